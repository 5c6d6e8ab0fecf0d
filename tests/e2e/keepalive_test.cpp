// The keep-alive's end of a session, which comes 30 s after start at the earliest: the one
// slow test of the daemon. Real daemon, under tests/isolate.sh.
#include "common/paths.h"
#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

using KeepAliveEnd = IsolatedTest;

TEST_F(KeepAliveEnd, ASessionWithoutSignInEndsOnTheFirstTickAndRecordsWhy)
{
    const std::string mac = "02:00:00:00:09:01";
    Daemon daemon(mac);
    ASSERT_TRUE(daemon.ready());
    EXPECT_EQ(daemon.process().wait(45s), 1) << daemon.log();
    JsonRef record = parseJson(readFile(Paths::statusPath(mac)));
    EXPECT_STREQ(json_string_value(json_object_get(record.get(), "end")), "ended") << dump(record.get());
    EXPECT_STREQ(json_string_value(json_object_get(record.get(), "reason")), "not signin (no live session with the device)");
    EXPECT_TRUE(json_is_true(json_object_get(record.get(), "abnormal")));
    EXPECT_TRUE(contains(daemon.log(), "[Warning] [" + mac + " " + std::to_string(daemon.process().pid()) +
                                           "] [Session] process " + std::to_string(daemon.process().pid()) +
                                           " ends, ended: not signin (no live session with the device)\n"))
        << daemon.log();
}

}  // namespace
}  // namespace Orvex::Test
