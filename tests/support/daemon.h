// The per-device daemon (orvex-session -d) as a child process, and calls to it over the
// bus. Tests that start daemons must run under tests/isolate.sh (private lock, log, run
// and sbin folders, private network namespace); ORVEX_REQUIRE_ISOLATION() skips elsewhere.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/paths.h"
#include "tests/support/bus.h"
#include "tests/support/devsim.h"
#include "tests/support/process.h"

namespace Orvex::Test {

// The programs under test, as built.
std::string daemonBinary();
std::string ctlBinary();
std::string zsCallBinary();

#define ORVEX_REQUIRE_ISOLATION()                                                   \
    do {                                                                          \
        if (!::Orvex::Test::isolated())                                           \
            GTEST_SKIP() << "starts daemons: runs only under tests/isolate.sh";   \
    } while (0)

std::string busAddress(const std::string& mac);
std::string lockPath(const std::string& mac);
// busCall to the session of this device.
BusReply sessionCall(const std::string& mac, const std::string& method, const std::string& body = "{}",
    int fd = -1, int timeoutSeconds = 30);

// The words that run a program as root without any capability, as the daemon's unit does
// (put before the program's own).
const std::vector<std::string>& withoutCapabilities();

// What a service manager puts into the environment of its units' processes: the daemon
// then knows it runs as a unit's instance.
inline const std::vector<std::string> kServiceManagerEnv = {"INVOCATION_ID=0123456789abcdef"};

// orvex-session -d -m MAC [extra] as a child, its console output in files, started through
// wrapper (words put before the program's, e.g. withoutCapabilities()) when given, with env
// (NAME=VALUE) added to its environment. ready() waits until the bus answers (an unknown
// method gets its 404 at once) or the process has ended.
class Daemon {
public:
    explicit Daemon(const std::string& mac, const std::vector<std::string>& extra = {},
        const std::string& binary = daemonBinary(), const std::vector<std::string>& wrapper = {},
        const std::vector<std::string>& env = {});
    bool ready(std::chrono::milliseconds timeout = 10s);
    Child& process() { return *child_; }
    std::string log() const { return readFile(dir_.file("stderr")); }
    std::string output() const { return readFile(dir_.file("stdout")); }
    const std::string& mac() const { return mac_; }
    BusReply call(const std::string& method, const std::string& body = "{}") const
    {
        return sessionCall(mac_, method, body);
    }

private:
    TempDir dir_;
    std::string mac_;
    std::unique_ptr<Child> child_;
};

// True once something answers on the device's bus address.
bool answers(const std::string& mac);
// True while some process holds a lock on the file at path.
bool isLocked(const std::string& path);
// Pid in the device's lock file while a process holds the lock, else 0.
pid_t lockHolder(const std::string& mac);
// Sends signo to the process holding the MAC's lock; false (and nothing sent) when none
// does: a pid of 0 would signal the whole process group, the test runner included.
bool signalSession(const std::string& mac, int signo);
// Kills every session process of this namespace (found through the lock files). Also runs
// after the last test of every program that links this file.
void killSessions();

// The front end (orvexctl) with these words, run to its end.
RunResult ctl(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
    const std::string& input = "");
// The same as another user (see Spawn::uid).
RunResult ctlAs(int uid, const std::vector<std::string>& args);
// The built daemon put where the front end launches it: a new file renamed over the old
// one, as a package upgrade does.
void installDaemon();
// No session process, lock file or status file left: a test that lists sessions sees
// only its own, also when several run in one namespace.
void clearSessions();

// A test that starts daemons: skipped outside tests/isolate.sh, and none of its session
// processes outlives it.
class IsolatedTest : public ::testing::Test {
protected:
    void SetUp() override { ORVEX_REQUIRE_ISOLATION(); }
    void TearDown() override { killSessions(); }
};

// A test of the front end on sessions it starts (isolated only): the daemon installed
// where the front end launches it, no other session around, and none left after it.
class FrontEndTest : public IsolatedTest {
protected:
    void SetUp() override;
    // orvexctl start for a device on 127.0.0.1 as admin, the password from DEVICE_PASS
    // through --pass-env; extra {} leaves it to ORVEX_PASS (also set).
    static RunResult start(const std::string& mac, int port, const std::string& pass, bool secure,
        const std::vector<std::string>& extra = {"--pass-env", "DEVICE_PASS"}, const std::string& input = "");
};

// A stand-in for a service manager's notification socket, in a folder of its own.
class NotifySocket {
public:
    NotifySocket();
    bool bound() const { return bound_; }
    // "NOTIFY_SOCKET=<its path>", for the environment of the process that notifies.
    std::string env() const { return "NOTIFY_SOCKET=" + path_; }
    // The next datagram, "" after the time-out.
    std::string next(int timeoutMs = 10000);
    // The next datagram that starts with prefix, skipping others; "" after the time-out.
    std::string nextStartingWith(const std::string& prefix, int timeoutMs = 10000);

private:
    TempDir dir_;
    std::string path_;
    UniqueFd fd_;
    bool bound_ = false;
};

// A daemon signed in to a fresh simulator of the given kind; throws when either fails.
struct SignedIn {
    SignedIn(const std::string& family, bool tls, const std::string& mac = "00:11:22:33:44:55",
        const std::vector<std::string>& devsimExtra = {});
    Devsim device;
    Daemon daemon;
    JsonRef signin;  // the reply to signin
};

}  // namespace Orvex::Test
