// Faults around a signed-in daemon: callers that vanish mid-call, a device that hangs up or
// answers nonsense, a daemon killed outright, and a caller of another user.
#include "tests/load/load_support.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace load {
namespace {

const char* const kConnectionFail = R"({"error_code":400,"error_message":"connection fail"})";

bool sameJson(const std::string& got, const std::string& want)
{
    JsonRef a = e2e::parseJson(got), b = e2e::parseJson(want);
    return a && b && json_equal(a.get(), b.get());
}

// ---- callers that hang up ---------------------------------------------------------------

constexpr size_t kVanishingCallers = 300;

// Caller i sends a whole system-info call, a whole device call, or half a call, and
// hangs up without waiting for anything.
void vanish(size_t i)
{
    Orvex::UniqueFd fd = connectBus(kMac);
    ASSERT_TRUE(fd) << "caller " << i;
    std::string frame = callFrame(i % 3 == 1 ? "get_device_rsyslog_config" : "get_device_system_info", "{}");
    if (i % 3 == 2)
        frame.resize(frame.size() / 2);
    EXPECT_TRUE(sendAll(fd.get(), frame)) << "caller " << i;
}

TEST(VanishingCallers, DaemonKeepsServingAndLeaksNoDescriptors)
{
    E2E_REQUIRE_ISOLATION();
    // A slow device, so that the callers are gone long before their calls are done.
    SignedInDaemon s({"--delay-ms", "5"});
    const pid_t pid = s.daemon.process().pid();
    ProcessFigures before = restingFigures(pid);

    auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < kVanishingCallers; ++i)
        vanish(i);
    double sendS = secondsSince(start);
    // Calls run in order on one worker, so this reply comes after all of theirs.
    BusReply reply = s.daemon.call("get_device_system_info");
    double drainS = secondsSince(start);
    ProcessFigures after = settleFds(pid, before.fds);
    size_t deviceCalls = s.device.requestsTo("", "/orvex/v1/rsyslog/config").size();

    LOAD_FIGURES("vanishing callers: %zu sent and hung up in %.3f s, next caller answered after %.3f s; device saw "
                 "%zu of %zu device calls; daemon fds %ld -> %ld, VmRSS %ld kB -> %ld kB",
        kVanishingCallers, sendS, drainS, deviceCalls, kVanishingCallers / 3, before.fds, after.fds, before.rssKb,
        after.rssKb);
    ASSERT_EQ(reply.rc, 0) << std::strerror(reply.error);
    EXPECT_EQ(reply.body, s.systemInfo);
    EXPECT_LE(after.fds, before.fds);
    EXPECT_TRUE(s.daemon.process().running()) << s.daemon.log();
}

// ---- a device that misbehaves -----------------------------------------------------------

TEST(MisbehavingDevice, HangupEndsTheProcessAfterAConnectionFailReply)
{
    E2E_REQUIRE_ISOLATION();
    SignedInDaemon s({"--hangup", "/orvex/v1/rsyslog/"});
    auto start = std::chrono::steady_clock::now();
    BusReply reply = s.daemon.call("get_device_rsyslog_config");
    double callS = secondsSince(start);
    int status = s.daemon.process().wait(5s);
    LOAD_FIGURES("device hang-up: reply %s after %.3f s, process status %d", reply.body.c_str(), callS, status);
    ASSERT_EQ(reply.rc, 0) << std::strerror(reply.error);
    EXPECT_TRUE(sameJson(reply.body, kConnectionFail)) << reply.body;
    EXPECT_EQ(status, 0) << s.daemon.log();
    EXPECT_EQ(s.device.requestsTo("", "/orvex/v1/rsyslog/config").size(), 1u);
}

TEST(MisbehavingDevice, GarbageAnswersGiveEmptyRepliesAndTheDaemonKeepsServing)
{
    E2E_REQUIRE_ISOLATION();
    SignedInDaemon s({"--garbage", "/orvex/v1/rsyslog/"});
    const pid_t pid = s.daemon.process().pid();
    ProcessFigures before = restingFigures(pid);
    const size_t kCalls = 50;
    size_t empty = 0;
    for (size_t i = 0; i < kCalls; ++i) {
        BusReply reply = s.daemon.call("get_device_rsyslog_config");
        JsonRef json = reply.json();
        if (reply.rc == 0 && json_is_object(json.get()) && json_object_size(json.get()) == 0)
            ++empty;
        else
            ADD_FAILURE() << "call " << i << ": " << reply.body << " " << std::strerror(reply.error);
    }
    BusReply info = s.daemon.call("get_device_system_info");
    ProcessFigures after = settleFds(pid, before.fds);
    LOAD_FIGURES("garbage device: %zu of %zu replies empty objects; daemon fds %ld -> %ld, VmRSS %ld kB -> %ld kB",
        empty, kCalls, before.fds, after.fds, before.rssKb, after.rssKb);
    EXPECT_EQ(s.device.requestsTo("", "/orvex/v1/rsyslog/config").size(), kCalls);
    EXPECT_EQ(info.body, s.systemInfo);
    EXPECT_LE(after.fds, before.fds);
    EXPECT_TRUE(s.daemon.process().running()) << s.daemon.log();
}

// ---- the process itself -----------------------------------------------------------------

TEST(KilledDaemon, NewDaemonForTheSameDeviceStarts)
{
    E2E_REQUIRE_ISOLATION();
    auto s = std::make_unique<SignedInDaemon>();
    const pid_t first = s->daemon.process().pid();
    ASSERT_EQ(e2e::lockHolder(kMac), first);
    s->daemon.process().signal(SIGKILL);
    ASSERT_EQ(s->daemon.process().wait(5s), 128 + SIGKILL);

    // The lock and the bus address went with the process: nothing to clean up first.
    auto start = std::chrono::steady_clock::now();
    e2e::Daemon second(kMac);
    ASSERT_TRUE(second.ready()) << second.log();
    double readyS = secondsSince(start);
    BusReply signin = second.call("signin", s->device.signinArgs());
    BusReply info = second.call("get_device_system_info");
    LOAD_FIGURES("killed daemon: successor answered %.3f s after start", readyS);
    EXPECT_EQ(signin.rc, 0) << std::strerror(signin.error);
    EXPECT_EQ(e2e::lockHolder(kMac), second.process().pid());
    EXPECT_NE(second.process().pid(), first);
    EXPECT_EQ(info.body, s->systemInfo) << second.log();
}

// ---- a caller of another user ------------------------------------------------------------

struct ForeignCall {
    int rc = 0;
    int error = 0;
    bool answered = false;  // the device identity reached the caller after all
};

// Makes one call as user nobody from a forked child and reports how it went.
ForeignCall callAsNobody()
{
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        return {-2, errno, false};
    pid_t child = fork();
    if (child == 0) {
        close(pipeFds[0]);
        ForeignCall result{-3, 0, false};
        if (setgid(65534) == 0 && setuid(65534) == 0) {
            BusReply reply = e2e::busCall(kMac, "get_device_system_info", "{}", -1, 5);
            result = {reply.rc, reply.error, reply.body.find("NVX-4200") != std::string::npos};
        }
        _exit(write(pipeFds[1], &result, sizeof result) == sizeof result ? 0 : 1);
    }
    close(pipeFds[1]);
    ForeignCall result{-4, 0, false};
    if (child < 0 || read(pipeFds[0], &result, sizeof result) != sizeof result)
        result.rc = -4;
    close(pipeFds[0]);
    if (child > 0)
        waitpid(child, nullptr, 0);
    return result;
}

TEST(ForeignCaller, IsRefusedWhileRootIsServed)
{
    E2E_REQUIRE_ISOLATION();
    SignedInDaemon s;
    const pid_t pid = s.daemon.process().pid();
    ProcessFigures before = restingFigures(pid);
    const int kAttempts = 20;
    int refused = 0;
    for (int i = 0; i < kAttempts; ++i) {
        ForeignCall call = callAsNobody();
        ASSERT_GE(call.rc, -1) << "the child could not make its call (" << call.rc << ")";
        EXPECT_EQ(call.rc, -1);
        EXPECT_EQ(call.error, EPROTO) << std::strerror(call.error);
        EXPECT_FALSE(call.answered);
        refused += call.rc == -1;
    }
    BusReply root = s.daemon.call("get_device_system_info");
    ProcessFigures after = settleFds(pid, before.fds);
    LOAD_FIGURES("foreign caller: %d of %d calls as uid 65534 refused; daemon fds %ld -> %ld", refused, kAttempts,
        before.fds, after.fds);
    EXPECT_EQ(root.body, s.systemInfo);
    EXPECT_LE(after.fds, before.fds);
    EXPECT_TRUE(s.daemon.process().running());
}

}  // namespace
}  // namespace load
