// How sessions end, as the front end shows them: every way a session process ends leaves
// a last record (or, for a kill, none) that list and status tell apart, with the time it
// ended; list shows what needs attention and exits non-zero only for that; forget clears
// what ended. Real daemons through orvexctl, under tests/isolate.sh.
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include "common/paths.h"
#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

using SessionEnds = FrontEndTest;

// The entries of `list --all --json`, by MAC.
std::map<std::string, JsonRef> listedByMac(const std::vector<std::string>& extra = {"--all"})
{
    std::vector<std::string> args = {"list", "--json"};
    args.insert(args.end(), extra.begin(), extra.end());
    JsonRef list = parseJson(ctl(args).out);
    std::map<std::string, JsonRef> byMac;
    for (size_t i = 0; i < json_array_size(list.get()); ++i) {
        json_t* entry = json_array_get(list.get(), i);
        byMac[textAt(entry, "mac")] = JsonRef::borrow(entry);
    }
    return byMac;
}

// The session process of mac, signalled and waited for.
void endBySignal(const std::string& mac, int signo)
{
    ASSERT_TRUE(signalSession(mac, signo)) << mac;
    ASSERT_TRUE(waitFor([&] { return lockHolder(mac) == 0; })) << mac;
}

TEST_F(SessionEnds, EveryWayOfEndingIsRecordedListedAndTimed)
{
    Devsim device("token", false);
    const std::string signout = "02:00:00:00:06:01", error = "02:00:00:00:06:02", refused = "02:00:00:00:06:03",
                      term = "02:00:00:00:06:04", killed = "02:00:00:00:06:05", crashed = "02:00:00:00:06:06",
                      running = "02:00:00:00:06:07";
    const time_t before = time(nullptr);
    for (const std::string& mac : {signout, term, killed, crashed, running})
        ASSERT_EQ(start(mac, device.port(), "secret", false).status, 0) << mac;
    EXPECT_EQ(start(refused, device.port(), "wrong", false).status, 5);
    ASSERT_EQ(ctl({"call", signout, "signout"}).status, 0);
    // A call that fails with a session error ends the process (its sign-in was dropped).
    Daemon unsigned_(error);
    ASSERT_TRUE(unsigned_.ready());
    ASSERT_EQ(unsigned_.call("get_device_system_info").body, errorReply(403, "not signin"));
    EXPECT_EQ(unsigned_.process().wait(), 0);
    endBySignal(term, SIGTERM);
    endBySignal(killed, SIGKILL);
    endBySignal(crashed, SIGSEGV);
    ASSERT_TRUE(waitFor([&] { return lockHolder(signout) == 0 && lockHolder(refused) == 0; }));

    struct Expected {
        std::string state, reason;
        bool abnormal;
    };
    const std::map<std::string, Expected> expected = {
        {signout, {"stopped", "signout", false}},
        {error, {"ended", "get_device_system_info: not signin", true}},
        {refused, {"ended", "signin: signin fail (credentials)", true}},
        {term, {"stopped", "SIGTERM", false}},
        {killed, {"crashed", "no end record (killed or crashed)", true}},
        {crashed, {"crashed", "SIGSEGV", true}},
    };
    std::map<std::string, JsonRef> all = listedByMac();
    ASSERT_EQ(all.size(), 7u);
    EXPECT_EQ(textAt(all[running].get(), "state"), "running");
    for (const auto& [mac, e] : expected) {
        json_t* entry = all[mac].get();
        EXPECT_EQ(textAt(entry, "state"), e.state) << mac;
        EXPECT_EQ(textAt(entry, "reason"), e.reason) << mac;
        EXPECT_EQ(json_is_true(json_object_get(entry, "abnormal")), e.abnormal) << mac;
        EXPECT_FALSE(json_is_true(json_object_get(entry, "signed_in"))) << mac << ": ended still signed in";
        // The process itself says so when it can (a kill leaves it no word).
        if (mac != killed) {
            EXPECT_TRUE(contains(readFile(Paths::statusPath(mac)), "\"signed_in\":false,")) << mac;
        }
        json_int_t ended = json_integer_value(json_object_get(entry, "ended"));
        EXPECT_GE(ended, before) << mac;
        EXPECT_LE(ended, time(nullptr)) << mac;
        EXPECT_EQ(ctl({"status", mac}).status, e.abnormal ? 3 : 0) << mac;
    }

    // By default: what runs and what needs attention, and the exit code says which.
    RunResult list = ctl({"list"});
    EXPECT_EQ(list.status, 3);
    std::vector<std::string> rows = lines(list.out);
    ASSERT_EQ(rows.size(), 5u) << list.out;
    EXPECT_EQ(rows[0].rfind(error + " pid " + std::to_string(unsigned_.process().pid()) +
                                " ended: get_device_system_info: not signin (at ", 0), 0u) << rows[0];
    EXPECT_TRUE(contains(rows[1], " ended: signin: signin fail (credentials) (at ")) << rows[1];
    EXPECT_TRUE(contains(rows[1], ") 127.0.0.1:" + std::to_string(device.port()))) << "the device it was for";
    EXPECT_TRUE(contains(rows[2], " crashed: no end record (killed or crashed) (last seen at ")) << rows[2];
    EXPECT_TRUE(contains(rows[3], " crashed: SIGSEGV (at ")) << rows[3];
    EXPECT_TRUE(contains(rows[4], " running up ")) << rows[4];
    EXPECT_TRUE(contains(lines(ctl({"list", "--all"}).out)[3], " stopped: SIGTERM (at ")) << "with --all";
    // Stops alone are no alarm.
    ASSERT_EQ(ctl({"forget", "--ended"}).status, 0);
    ASSERT_EQ(start(signout, device.port(), "secret", false).status, 0);
    ASSERT_EQ(ctl({"stop", signout}).status, 0);
    EXPECT_EQ(ctl({"list"}).status, 0);
}

TEST_F(SessionEnds, ForgetClearsWhatEndedButNeitherRunningSessionsNorLockFiles)
{
    Devsim device("legacy", false);
    const std::string running = "02:00:00:00:07:01", refused = "02:00:00:00:07:02", stopped = "02:00:00:00:07:03";
    ASSERT_EQ(start(running, device.port(), "secret", false).status, 0);
    ASSERT_EQ(start(stopped, device.port(), "secret", false).status, 0);
    ASSERT_EQ(ctl({"stop", stopped}).status, 0);
    ASSERT_EQ(start(refused, device.port(), "wrong", false).status, 5);
    ASSERT_TRUE(waitFor([&] { return lockHolder(refused) == 0; }));

    RunResult busy = ctl({"forget", running});
    EXPECT_EQ(busy.status, 1);
    EXPECT_EQ(busy.err, "orvexctl: the session for MAC " + running + " runs; stop it first\n");
    RunResult unknown = ctl({"forget", "02:00:00:00:07:09"});
    EXPECT_EQ(unknown.status, 3);
    EXPECT_EQ(unknown.err, "orvexctl: nothing is recorded for MAC 02:00:00:00:07:09\n");

    RunResult one = ctl({"forget", refused});
    EXPECT_EQ(one.status, 0) << one.err;
    EXPECT_EQ(one.out, refused + " forgotten\n");
    EXPECT_EQ(listedByMac().count(refused), 0u);
    EXPECT_TRUE(std::filesystem::exists(Paths::lockPath(refused))) << "the lock file stays where the daemon expects it";
    EXPECT_EQ(ctl({"list"}).status, 0) << "nothing abnormal is left";

    RunResult ended = ctl({"forget", "--ended", "--json"});
    EXPECT_EQ(ended.status, 0);
    EXPECT_EQ(ended.out, "[\"" + stopped + "\"]\n");
    std::map<std::string, JsonRef> left = listedByMac();
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left.count(running), 1u);
    // The daemon starts again where a forgotten session was.
    EXPECT_EQ(start(refused, device.port(), "secret", false).status, 0);
}

// Another user sees the sessions as they are, and is told which commands need root.
TEST_F(SessionEnds, AnotherUserSeesRunningSessionsAndIsToldWhatNeedsRoot)
{
    Devsim device("token", false);
    const std::string mac = "02:00:00:00:08:01";
    ASSERT_EQ(start(mac, device.port(), "secret", false).status, 0);
    RunResult list = ctlAs(kNobody, {"list"});
    EXPECT_EQ(list.status, 0) << list.err;
    EXPECT_EQ(list.out.rfind(mac + " pid " + std::to_string(lockHolder(mac)) + " running up ", 0), 0u) << list.out;
    const std::vector<std::pair<std::vector<std::string>, std::string>> rootOnly = {
        {{"call", mac, "get_device_system_info"}, "call"},
        {{"start", mac, "--ip", "127.0.0.1", "--port", "1", "--user", "u", "--pass-env", "HOME"}, "start"},
        {{"stop", "--all"}, "stop"},
        {{"forget", "--ended"}, "forget"},
    };
    for (const auto& [args, name] : rootOnly) {
        RunResult refused = ctlAs(kNobody, args);
        EXPECT_EQ(refused.status, 8) << name;
        EXPECT_EQ(refused.err, "orvexctl: " + name + " needs root: the session processes run as root and answer root alone\n");
    }
    EXPECT_GT(lockHolder(mac), 0) << "nothing was stopped";
}

}  // namespace
}  // namespace Orvex::Test
