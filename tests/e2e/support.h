// End-to-end test support: per-device daemons and calls to them, on top of the shared
// support (tests/support). Tests that start daemons must run under tests/isolate.sh
// (private lock, log and sbin folders, private network namespace); they skip elsewhere.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bus.h"
#include "tests/support/devsim.h"
#include "tests/support/process.h"

namespace e2e {

using namespace Orvex::Test;
using Orvex::JsonRef;

// The programs under test, as built.
std::string daemonBinary();
std::string ctlBinary();
std::string zsCallBinary();

#define E2E_REQUIRE_ISOLATION()                                       \
    do {                                                              \
        if (!::Orvex::Test::isolated())                               \
            GTEST_SKIP() << "starts daemons: runs only under tests/isolate.sh"; \
    } while (0)

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
