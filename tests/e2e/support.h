// End-to-end test support: child processes, the device simulator, per-device daemons and
// bus calls. Tests that start daemons must run under tests/isolate.sh (private lock, log
// and sbin folders, private network namespace); they skip themselves elsewhere.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <jansson.h>

#include "common/raii.h"

namespace e2e {

using Orvex::JsonRef;
using namespace std::chrono_literals;

// The programs under test, as built.
std::string daemonBinary();
std::string devsimBinary();
std::string ctlBinary();
std::string zsCallBinary();

// True inside tests/isolate.sh.
bool isolated();
#define E2E_REQUIRE_ISOLATION()                                       \
    do {                                                              \
        if (!::e2e::isolated())                                       \
            GTEST_SKIP() << "starts daemons: runs only under tests/isolate.sh"; \
    } while (0)

// A fresh directory under /tmp, removed with its content.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Re-checks cond every few milliseconds until it holds or the time is up.
bool waitFor(const std::function<bool()>& cond, std::chrono::milliseconds timeout = 10s);
std::string readFile(const std::string& path);
JsonRef parseJson(const std::string& text);
// Compact text of a value, keys sorted (for comparisons in messages).
std::string dump(json_t* value);

struct Spawn {
    std::vector<std::string> argv;
    std::vector<std::string> env;     // extra NAME=VALUE entries
    std::string stdoutPath;           // empty: /dev/null
    std::string stderrPath;           // empty: /dev/null
    bool stdinPipe = false;           // else /dev/null
    int stdoutFd = -1;                // instead of stdoutPath
};

// One child process; killed (SIGKILL) and reaped at destruction if still there.
class Child {
public:
    explicit Child(const Spawn& spawn);
    ~Child();
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return pid_; }
    bool running();
    // Exit status, 128 + signal number after a signal, -1 when still running at timeout.
    int wait(std::chrono::milliseconds timeout = 10s);
    void signal(int signo);
    // Write end of the child's stdin (with stdinPipe); closeStdin() sends EOF.
    void writeStdin(const std::string& text);
    void closeStdin();

private:
    pid_t pid_ = -1;
    int status_ = -1;
    bool reaped_ = false;
    Orvex::UniqueFd stdin_;
};

struct RunResult {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs a program to its end, feeding stdinText.
RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
    const std::string& stdinText = "", std::chrono::milliseconds timeout = 60s);

// orvex-devsim on 127.0.0.1, an ephemeral port, with a request log; stops with the object.
class Devsim {
public:
    Devsim(const std::string& family, bool tls, const std::vector<std::string>& extra = {});
    ~Devsim();
    int port() const { return port_; }
    bool tls() const { return tls_; }
    // The request log so far, one object per request.
    std::vector<JsonRef> requests() const;
    // Requests with this HTTP method whose target starts with prefix.
    std::vector<JsonRef> requestsTo(const std::string& method, const std::string& prefix) const;
    // Arguments of "signin" for this device.
    std::string signinArgs(const std::string& pass = "secret") const;

private:
    TempDir dir_;
    std::unique_ptr<Child> child_;
    Orvex::UniqueFd stdout_;
    int port_ = 0;
    bool tls_ = false;
};

struct BusReply {
    int rc = -1;
    int error = 0;  // errno of a failed call
    std::string body;
    JsonRef json() const { return parseJson(body); }
};

std::string busAddress(const std::string& mac);
BusReply busCall(const std::string& mac, const std::string& method, const std::string& body = "{}",
    int fd = -1, int timeoutSeconds = 30);
std::string lockPath(const std::string& mac);

// orvex-session -d as a child, its console log in a file. ready() waits until the bus
// answers (an unknown method gets its 404 at once) or the process has ended.
class Daemon {
public:
    explicit Daemon(const std::string& mac, const std::vector<std::string>& extra = {},
        const std::string& binary = daemonBinary());
    bool ready(std::chrono::milliseconds timeout = 10s);
    Child& process() { return *child_; }
    std::string log() const { return readFile(dir_.file("stderr")); }
    std::string output() const { return readFile(dir_.file("stdout")); }
    const std::string& mac() const { return mac_; }
    BusReply call(const std::string& method, const std::string& body = "{}") const { return busCall(mac_, method, body); }

private:
    TempDir dir_;
    std::string mac_;
    std::unique_ptr<Child> child_;
};

// True once something answers on the device's bus address.
bool answers(const std::string& mac);
// Pid in the device's lock file while a process holds the lock, else 0.
pid_t lockHolder(const std::string& mac);
// Kills every session process of this namespace (found through the lock files).
void killSessions();

// Builds a daemon that is signed in to a fresh simulator of the given kind.
struct SignedIn {
    SignedIn(const std::string& family, bool tls, const std::string& mac = "00:11:22:33:44:55",
        const std::vector<std::string>& devsimExtra = {});
    Devsim device;
    Daemon daemon;
    JsonRef signin;  // the reply to signin
};

}  // namespace e2e
