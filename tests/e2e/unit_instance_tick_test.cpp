// The first keep-alive tick, 30 s after the start, for the three kinds of process: a unit
// instance without settings ends for good (6, with the reason in its STATUS), one whose own
// sign-in still retries lives on, and a plain process still ends with 1.
#include "tests/support/unit_instance.h"

namespace Orvex::Test {
namespace {

TEST(UnitInstanceTick, WithoutSettingsEndsWithSixWhileARetryingOneLivesAndAPlainOneEndsWithOne)
{
    ORVEX_REQUIRE_ISOLATION();
    const std::string bareMac = "02:00:00:00:25:30", retryingMac = "02:00:00:00:25:31", plainMac = "02:00:00:00:25:32";
    UnitDaemon bare(bareMac, {0, false, false});
    const int port = closedPort();
    UnitDaemon retrying(retryingMac, {port});
    Daemon plain(plainMac);
    ASSERT_EQ(bare.manager().next(), "READY=1");
    ASSERT_TRUE(plain.ready());
    EXPECT_EQ(bare.process().wait(40s), 6);
    EXPECT_EQ(bare.manager().nextStartingWith("STATUS="), "STATUS=not signed in, and no settings in " +
                                                              Paths::configPath(bareMac) +
                                                              " to sign in with (orvexctl enable)");
    EXPECT_EQ(plain.process().wait(10s), 1);
    EXPECT_TRUE(retrying.process().running()) << "the tick ended a process whose own sign-in still retries";
    const std::string fifthTry =
        "STATUS=sign-in to 127.0.0.1:" + std::to_string(port) + " failed: refused; next try in 32 s";
    EXPECT_EQ(retrying.manager().nextStartingWith(fifthTry, 40000), fifthTry);
    killSessions();
}

}  // namespace
}  // namespace Orvex::Test
