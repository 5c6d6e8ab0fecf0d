// The harness's base, shared by tests, benchmarks and fuzz targets: temporary folders,
// files, JSON helpers, loopback sockets and the one owner of child processes (Child; run
// and inChild are built on fork too). For one test thread at a time.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <jansson.h>

#include "common/raii.h"

namespace Orvex::Test {

using namespace std::chrono_literals;

// True inside tests/isolate.sh (private lock, log and sbin folders and network).
bool isolated();

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
// Writes content as the whole file at path with these permission bits; returns path.
std::string writeFile(const std::string& path, const std::string& content, unsigned mode = 0644);
// Permission bits of path itself (a link is not followed), 0 when there is nothing.
unsigned modeOf(const std::string& path);
// The lines of a text, without their ends (a last line without one is left out).
std::vector<std::string> lines(const std::string& text);
inline bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}
// A null reference when the text does not parse.
JsonRef parseJson(const std::string& text);
// Compact text of a value, keys sorted (for comparisons and messages).
std::string dump(json_t* value);
// The string under key of a JSON object, "" when there is none.
std::string textAt(json_t* object, const char* key);

struct Spawn {
    std::vector<std::string> argv;
    std::vector<std::string> env;     // extra NAME=VALUE entries
    std::string stdoutPath;           // empty: /dev/null
    std::string stderrPath;           // empty: /dev/null
    bool stdinPipe = false;           // else stdinFd, else /dev/null
    int stdinFd = -1;
    int stdoutFd = -1;                // instead of stdoutPath
    int uid = -1;                     // run as this user (its uid as group too), not as we are
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
    // The same, blocking until the child ends, which is then reaped at once (no polling).
    int waitEnd();
    void signal(int signo);
    // Write end of the child's stdin (with stdinPipe); closeStdin() sends EOF.
    void writeStdin(const std::string& text);
    void closeStdin();

private:
    // waitpid with these flags unless already reaped; true once reaped.
    bool reap(int flags);

    pid_t pid_ = -1;
    int status_ = -1;
    bool reaped_ = false;
    UniqueFd stdin_;
};

// Open descriptors of a process (this one when pid is 0), -1 when it is gone.
int openFds(pid_t pid = 0);

// Runs body in a forked child (no exec) and returns its exit status (as Child::wait); the
// child's standard error is dropped when quiet is set.
int inChild(const std::function<void()>& body, bool quiet = false);

// The user every hostile neighbour runs as.
constexpr uid_t kNobody = 65534;

// A local user who is not root: a forked child that drops to uid and gid nobody, runs
// setup (which opens, locks or binds what the test needs) and then waits until it is
// killed, at destruction. setup returns "" on failure, else a text for the test (a port,
// say). Needs root.
class Stranger {
public:
    explicit Stranger(const std::function<std::string()>& setup);
    ~Stranger();
    Stranger(const Stranger&) = delete;
    Stranger& operator=(const Stranger&) = delete;

    explicit operator bool() const { return !said_.empty(); }
    pid_t pid() const { return pid_; }
    // What setup returned.
    const std::string& said() const { return said_; }

private:
    pid_t pid_ = -1;
    std::string said_;
};

// Empties this process's capability sets, bounding set included, while it stays uid 0:
// root as a unit without capabilities runs it, and so do the programs it starts. For
// forked children; false when the kernel refused.
bool dropCapabilities();

// A socket on 127.0.0.1 (SOCK_STREAM ones listen); port 0 picks a free one and is set to
// it. Empty when the port is taken.
UniqueFd loopbackSocket(int type, int& port);
// A loopback TCP port nobody listens on (any more).
int closedPort();

struct RunResult {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs a program to its end, feeding stdinText.
RunResult run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
    const std::string& stdinText = "", std::chrono::milliseconds timeout = 60s);
// The same as another user (see Spawn::uid).
RunResult runAs(int uid, const std::vector<std::string>& argv, std::chrono::milliseconds timeout = 60s);

}  // namespace Orvex::Test
