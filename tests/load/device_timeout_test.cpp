// A device that stops answering in the middle of a session: the call waits out the
// transport's 10-second time-out, answers "connection fail" and the process ends with 0.
#include "tests/load/load_support.h"

#include <cstring>
#include <thread>

namespace load {
namespace {

constexpr double kTransportTimeoutS = 10;

TEST(FrozenDevice, CallTimesOutWithConnectionFailAndTheProcessEnds)
{
    E2E_REQUIRE_ISOLATION();
    SignedInDaemon s;
    s.device.freeze();

    // The bus itself stays responsive while the worker waits on the device: an unknown
    // method is answered by the bus thread. Probe once the daemon holds both the waiting
    // caller's connection and its socket to the device.
    const pid_t pid = s.daemon.process().pid();
    const long idleFds = restingFigures(pid).fds;
    BusReply pending;
    double waitedS = 0;
    std::thread caller([&] {
        auto start = std::chrono::steady_clock::now();
        pending = e2e::busCall(kMac, "get_device_rsyslog_config", "{}", -1, 30);
        waitedS = secondsSince(start);
    });
    bool waiting = e2e::waitFor([&] { return figuresOf(pid).fds >= idleFds + 2; }, 5s);
    auto probeStart = std::chrono::steady_clock::now();
    BusReply probe = e2e::busCall(kMac, "ready-probe", "{}", -1, 5);
    double probeMs = secondsSince(probeStart) * 1000;
    caller.join();
    int status = s.daemon.process().wait(5s);

    LOAD_FIGURES("frozen device: call answered after %.2f s with %s; bus answered an unknown method meanwhile "
                 "in %.2f ms; process status %d",
        waitedS, pending.body.c_str(), probeMs, status);

    ASSERT_EQ(pending.rc, 0) << std::strerror(pending.error);
    JsonRef reply = pending.json();
    JsonRef want = e2e::parseJson(R"({"error_code":400,"error_message":"connection fail"})");
    EXPECT_TRUE(json_equal(reply.get(), want.get())) << pending.body;
    EXPECT_GE(waitedS, kTransportTimeoutS - 0.5);
    EXPECT_LE(waitedS, kTransportTimeoutS + 5);
    EXPECT_TRUE(waiting) << "the daemon never held the call and a device connection";
    EXPECT_EQ(probe.rc, 0);
    EXPECT_LT(probeMs, 1000);
    EXPECT_EQ(status, 0) << s.daemon.log();
}

}  // namespace
}  // namespace load
