// Many concurrent callers against one signed-in daemon: every reply right, and afterwards
// no descriptors or memory left behind.
#include "tests/load/load_support.h"

#include <cstring>

namespace load {
namespace {

constexpr size_t kCallers = 32;
constexpr size_t kWarmUpCalls = 320;
constexpr size_t kCalls = 20000;
constexpr size_t kDeviceCallEvery = 50;  // one call in this many goes to the device

#if defined(__SANITIZE_ADDRESS__)
// AddressSanitizer keeps freed blocks in its quarantine (up to 256 MB), so resident memory
// says nothing there; its leak checker watches the daemon instead.
constexpr long kRssMarginKb = -1;
#elif defined(__SANITIZE_THREAD__)
// ThreadSanitizer keeps per-allocation history that grows with the work done.
constexpr long kRssMarginKb = 16384;
#else
constexpr long kRssMarginKb = 1024;
#endif

std::string check(const std::string& method, const std::string& expected)
{
    BusReply reply = e2e::busCall(kMac, method, "{}", -1, 30);
    if (reply.rc != 0)
        return method + " failed: " + std::strerror(reply.error);
    if (reply.body != expected)
        return method + " answered " + reply.body;
    return "";
}

// The reply of get_device_rsyslog_config for the simulator's untouched state.
std::string checkedSyslogConfig()
{
    BusReply reply = e2e::busCall(kMac, "get_device_rsyslog_config");
    JsonRef got = reply.json();
    JsonRef want = e2e::parseJson(R"({"success":true,"server":{"enable":false,"tcp_enable":true,"tls_enable":false,
        "udp_enable":true,"tcp_port":514,"udp_port":514},"client":{"bsd":false,"orvex":true},"clients":[]})");
    EXPECT_TRUE(json_equal(got.get(), want.get())) << reply.body;
    return reply.body;
}

TEST(Throughput, ManyConcurrentCallersGetRightRepliesAndLeaveNothingBehind)
{
    E2E_REQUIRE_ISOLATION();
    SignedInDaemon s;
    const pid_t pid = s.daemon.process().pid();
    const std::string syslogConfig = checkedSyslogConfig();
    auto call = [&](size_t index) {
        if (index % kDeviceCallEvery == kDeviceCallEvery / 2)
            return check("get_device_rsyslog_config", syslogConfig);
        return check("get_device_system_info", s.systemInfo);
    };

    LoadResult warmUp = runCallers(kCallers, kWarmUpCalls, call);
    ASSERT_EQ(warmUp.wrong, 0u) << warmUp.firstWrong;
    ProcessFigures before = restingFigures(pid);
    size_t deviceBefore = s.device.requestsTo("", "/orvex/v1/rsyslog/config").size();

    LoadResult result = runCallers(kCallers, kCalls, call);
    ProcessFigures after = settleFds(pid, before.fds);
    after = restingFigures(pid);
    size_t deviceCalls = s.device.requestsTo("", "/orvex/v1/rsyslog/config").size() - deviceBefore;

    LOAD_FIGURES("throughput: %zu calls (%zu to the device) from %zu callers in %.2f s = %.0f calls/s; "
                 "latency p50 %.2f ms, p99 %.2f ms, max %.2f ms",
        result.calls, deviceCalls, kCallers, result.seconds, static_cast<double>(result.calls) / result.seconds,
        result.p50Ms, result.p99Ms, result.maxMs);
    LOAD_FIGURES("throughput: daemon fds %ld -> %ld, VmRSS %ld kB -> %ld kB (%+ld kB)", before.fds, after.fds,
        before.rssKb, after.rssKb, after.rssKb - before.rssKb);

    EXPECT_EQ(result.calls, kCalls);
    EXPECT_EQ(result.wrong, 0u) << result.firstWrong;
    EXPECT_EQ(deviceCalls, kCalls / kDeviceCallEvery);
    EXPECT_TRUE(s.daemon.process().running()) << s.daemon.log();
    EXPECT_LE(after.fds, before.fds);
    if (kRssMarginKb >= 0) {
        EXPECT_LE(after.rssKb, before.rssKb + kRssMarginKb);
    }
}

}  // namespace
}  // namespace load
