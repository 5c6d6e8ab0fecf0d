// The first keep-alive tick, 30 s after the start, for the kinds of process: a unit instance
// without settings ends for good (6, with the reason in its STATUS and its end record), one
// whose own sign-in still retries lives on, one whose settings set a short idle limit ends
// idle, and a plain process still ends with 1.
#include "tests/support/unit_instance.h"

namespace Orvex::Test {
namespace {

using UnitInstanceTick = IsolatedTest;

TEST_F(UnitInstanceTick, WithoutSettingsEndsWithSixWhileARetryingOneLivesAndIdleAndPlainOnesEndWithOne)
{
    const std::string bareMac = "02:00:00:00:25:30", retryingMac = "02:00:00:00:25:31", plainMac = "02:00:00:00:25:32",
                      idleMac = "02:00:00:00:25:33";
    UnitDaemon bare(bareMac, {0, false, false});
    const int port = closedPort();
    UnitDaemon retrying(retryingMac, {port});
    Daemon plain(plainMac);
    Devsim device("token", false);
    UnitDaemonOptions shortIdle{device.port()};
    shortIdle.idle = 1;
    UnitDaemon idle(idleMac, shortIdle);
    ASSERT_EQ(bare.manager().next(), "READY=1");
    ASSERT_TRUE(plain.ready());
    ASSERT_EQ(idle.manager().nextStartingWith("STATUS=signed in"), "STATUS=signed in to token device 127.0.0.1:" +
                                                                       std::to_string(device.port()));
    EXPECT_EQ(bare.process().wait(40s), 6);
    const std::string why = "not signed in, and no settings in " + Paths::configPath(bareMac) +
                            " to sign in with (orvexctl enable)";
    EXPECT_EQ(bare.manager().nextStartingWith("STATUS="), "STATUS=" + why);
    EXPECT_EQ(bare.end(), "ended: " + why);
    EXPECT_EQ(plain.process().wait(10s), 1);
    EXPECT_EQ(idle.process().wait(10s), 1) << "the settings' idle limit of 1 s";
    EXPECT_EQ(idle.end(), "ended: timeout (idle over 1 s)");
    EXPECT_TRUE(retrying.process().running()) << "the tick ended a process whose own sign-in still retries";
    const std::string fifthTry =
        "STATUS=sign-in to 127.0.0.1:" + std::to_string(port) + " failed: refused; next try in 32 s";
    EXPECT_EQ(retrying.manager().nextStartingWith(fifthTry, 40000), fifthTry);
}

}  // namespace
}  // namespace Orvex::Test
