// Load and fault test support on top of the end-to-end helpers: a signed-in daemon, the daemon's descriptor and memory
// figures, raw bus connections that stop half-way, and many callers at once.
// Everything runs on loopback inside tests/isolate.sh; the helpers are for one test thread
// except runCallers, which starts its own threads and joins them before it returns.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/e2e/support.h"

namespace load {

using e2e::BusReply;
using e2e::JsonRef;
using namespace std::chrono_literals;

// The standard mac of these tests; every test runs in its own namespace.
extern const char* const kMac;

// A daemon (orvex-session -d) signed in to a simulator of the legacy family.
// At its end it fails the running test if a sanitizer reported on the daemon's console.
struct SignedInDaemon {
    explicit SignedInDaemon(const std::vector<std::string>& simulatorExtra = {});
    ~SignedInDaemon();
    SignedInDaemon(const SignedInDaemon&) = delete;
    SignedInDaemon& operator=(const SignedInDaemon&) = delete;
    e2e::Devsim device;
    e2e::Daemon daemon;
    std::string systemInfo;  // the checked reply body of get_device_system_info
};

// Open descriptors and resident memory of a process.
struct ProcessFigures {
    long fds = -1;
    long rssKb = -1;
};
ProcessFigures figuresOf(pid_t pid);
// Waits until the process has at most `fds` descriptors open; the figures at the end.
ProcessFigures settleFds(pid_t pid, long fds, std::chrono::milliseconds timeout = 5s);

// Figures of a process at rest: the fewest descriptors seen over 100 ms (connections of
// calls just answered are still being closed), the last resident size.
ProcessFigures restingFigures(pid_t pid);

// A bus connection to the device's service, made by hand; sends whatever it is given.
inline Orvex::UniqueFd connectBus(const std::string& mac)
{
    return Orvex::UniqueFd(e2e::rawConnect(e2e::busAddress(mac)));
}
using e2e::callFrame;
using e2e::sendAll;

// Runs `callers` threads that share `total` calls; call(index) does call number index
// and returns an empty string when its reply was right, else what was wrong.
struct LoadResult {
    size_t calls = 0;
    size_t wrong = 0;
    std::string firstWrong;
    double seconds = 0;
    double p50Ms = 0, p99Ms = 0, maxMs = 0;
};
LoadResult runCallers(size_t callers, size_t total, const std::function<std::string(size_t)>& call);

double secondsSince(std::chrono::steady_clock::time_point start);

// One line of figures on stdout, prefixed so that they stand out in the test log.
#define LOAD_FIGURES(...)                       \
    do {                                        \
        std::printf("[figures] " __VA_ARGS__);  \
        std::printf("\n");                      \
        std::fflush(stdout);                    \
    } while (0)

}  // namespace load
