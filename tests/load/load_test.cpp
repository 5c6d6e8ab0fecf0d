// One signed-in daemon under load and faults: many callers at once, callers that vanish
// mid-call, a device that answers nonsense, a daemon killed outright, and a caller of
// another user. Afterwards the daemon still serves and holds no extra descriptors.
#include "tests/support/daemon.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

namespace Orvex::Test {
namespace {

const char* const kMac = "00:11:22:33:44:55";

// A daemon signed in to a legacy simulator, the system-info reply it gives, and its
// descriptors at rest. At its end it fails the test on a sanitizer report in the daemon.
struct Loaded {
    explicit Loaded(const std::vector<std::string>& devsimExtra = {}) : s("legacy", false, kMac, devsimExtra)
    {
        info = s.daemon.call("get_device_system_info").body;
        EXPECT_NE(info.find("NVX-4200"), std::string::npos) << info;
        fds = openFds(pid());
    }
    ~Loaded()
    {
        std::string log = s.daemon.log();
        for (const char* mark : {"WARNING: ThreadSanitizer", "ERROR: AddressSanitizer", "runtime error:"})
            EXPECT_EQ(log.find(mark), std::string::npos) << "orvex-session:\n" << log;
    }
    pid_t pid() { return s.daemon.process().pid(); }
    // Serves the next caller right, and its descriptors are back to their count at rest
    // (a caller's connection closes just after its reply left).
    void expectHealthy()
    {
        EXPECT_EQ(s.daemon.call("get_device_system_info").body, info);
        EXPECT_TRUE(waitFor([&] { return openFds(pid()) <= fds; }, 5s)) << openFds(pid()) << " > " << fds;
        EXPECT_TRUE(s.daemon.process().running()) << s.daemon.log();
    }
    size_t deviceCalls() const { return s.device.requestsTo("", "/orvex/v1/rsyslog/config").size(); }

    SignedIn s;
    std::string info;
    int fds;
};

TEST(Load, ManyConcurrentCallersAllGetTheirOwnRightReply)
{
    ORVEX_REQUIRE_ISOLATION();
    Loaded d;
    const std::string config = d.s.daemon.call("get_device_rsyslog_config").body;
    ASSERT_NE(config.find(R"("success":true)"), std::string::npos) << config;
    constexpr size_t kCallers = 32, kCalls = 4000, kDeviceEvery = 50;
    std::atomic<size_t> next{0}, wrong{0};
    std::vector<std::thread> callers;
    for (size_t c = 0; c < kCallers; ++c)
        callers.emplace_back([&] {
            for (size_t i = next++; i < kCalls; i = next++) {
                bool device = i % kDeviceEvery == 0;
                BusReply reply = sessionCall(kMac, device ? "get_device_rsyslog_config" : "get_device_system_info");
                wrong += reply.rc != 0 || reply.body != (device ? config : d.info);
            }
        });
    for (std::thread& caller : callers)
        caller.join();
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(d.deviceCalls(), 1 + kCalls / kDeviceEvery);
    d.expectHealthy();
}

TEST(Load, CallersThatHangUpMidCallLeaveNothingBehind)
{
    ORVEX_REQUIRE_ISOLATION();
    // A slow device, so that the callers are gone long before their calls are done.
    Loaded d({"--delay-ms", "5"});
    for (size_t i = 0; i < 300; ++i) {
        UniqueFd fd(rawConnect(busAddress(kMac)));
        std::string frame = callFrame(i % 3 == 1 ? "get_device_rsyslog_config" : "get_device_system_info", "{}");
        if (i % 3 == 2)
            frame.resize(frame.size() / 2);
        ASSERT_TRUE(fd && sendAll(fd.get(), frame)) << "caller " << i;
    }
    // Calls run in order on one worker, so this reply comes after all of theirs.
    d.expectHealthy();
}

TEST(Load, DeviceThatAnswersGarbageGivesEmptyRepliesAndTheDaemonKeepsServing)
{
    ORVEX_REQUIRE_ISOLATION();
    Loaded d({"--garbage", "/orvex/v1/rsyslog/"});
    for (int i = 0; i < 50; ++i)
        ASSERT_EQ(d.s.daemon.call("get_device_rsyslog_config").body, "{}") << "call " << i;
    EXPECT_EQ(d.deviceCalls(), 50u);
    d.expectHealthy();
}

TEST(Load, KilledDaemonLeavesNothingThatStopsTheNextOne)
{
    ORVEX_REQUIRE_ISOLATION();
    auto d = std::make_unique<Loaded>();
    const pid_t first = d->pid();
    ASSERT_EQ(lockHolder(kMac), first);
    d->s.daemon.process().signal(SIGKILL);
    ASSERT_EQ(d->s.daemon.process().wait(5s), 128 + SIGKILL);

    Daemon second(kMac);
    ASSERT_TRUE(second.ready()) << second.log();
    EXPECT_EQ(second.call("signin", d->s.device.signinArgs()).rc, 0);
    EXPECT_EQ(lockHolder(kMac), second.process().pid());
    EXPECT_EQ(second.call("get_device_system_info").body, d->info) << second.log();
}

TEST(Load, CallerOfAnotherUserIsRefusedWhileRootIsServed)
{
    ORVEX_REQUIRE_ISOLATION();
    Loaded d;
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(inChild([] {
            if (setgid(65534) != 0 || setuid(65534) != 0)
                _exit(3);
            BusReply reply = sessionCall(kMac, "get_device_system_info", "{}", -1, 5);
            _exit(reply.rc == -1 && reply.error == EPROTO && reply.body.find("NVX") == std::string::npos ? 0 : 1);
        }), 0) << "1: the call was not refused with EPROTO; 3: no user nobody";
    }
    d.expectHealthy();
}

}  // namespace
}  // namespace Orvex::Test
