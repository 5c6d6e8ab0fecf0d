// The daemon run as the unit's instance (--unit): it signs itself in as soon as its bus
// serves, retries with growing pauses while the device is down, never overrides a
// caller's sign-in, refuses settings it cannot use, and ends with the statuses that the
// unit's restart policy reads, each end recorded in its status file.
#include <sys/stat.h>

#include "tests/support/unit_instance.h"

namespace Orvex::Test {
namespace {

const std::string kMac = "02:00:00:00:25:20";

using UnitInstance = IsolatedTest;

std::string signedIn(const char* family, int port, bool secure = false)
{
    return "STATUS=signed in to " + std::string(family) + " device 127.0.0.1:" + std::to_string(port) +
           (secure ? " (https)" : "");
}

std::string retrying(int port, int pause)
{
    return "STATUS=sign-in to 127.0.0.1:" + std::to_string(port) + " failed: refused; next try in " +
           std::to_string(pause) + " s";
}

TEST_F(UnitInstance, SignsItselfInOnceServingAndACallersSigninStillWins)
{
    Devsim own("token", true);
    Devsim callers("legacy", false);
    UnitDaemon daemon(kMac, {own.port(), true});
    ASSERT_EQ(daemon.manager().next(), "READY=1");
    EXPECT_EQ(daemon.manager().next(), signedIn("token", own.port(), true));
    BusReply info = sessionCall(kMac, "get_device_system_info");
    EXPECT_NE(info.body.find("\"model\":\"ZEM-880\""), std::string::npos) << info.body;
    ASSERT_EQ(sessionCall(kMac, "signin", callers.signinArgs()).rc, 0);
    EXPECT_EQ(daemon.manager().nextStartingWith("STATUS=signed in"), signedIn("legacy", callers.port()));
    EXPECT_NE(sessionCall(kMac, "get_device_system_info").body.find("NVX-4200"), std::string::npos);
}

TEST_F(UnitInstance, RetriesWithGrowingPausesWhileTheDeviceIsDownAndNeverOverridesACaller)
{
    int port = closedPort();
    UnitDaemon daemon(kMac, {port});
    ASSERT_EQ(daemon.manager().next(), "READY=1");
    EXPECT_EQ(daemon.manager().nextStartingWith("STATUS=sign-in to"), retrying(port, 2));
    EXPECT_EQ(daemon.manager().nextStartingWith("STATUS=sign-in to"), retrying(port, 4));
    Devsim device("legacy", false, {"--port", std::to_string(port)});
    EXPECT_EQ(daemon.manager().nextStartingWith("STATUS=signed in", 10000), signedIn("legacy", port));

    // Down again from the start, and a caller signs in meanwhile: the retries stop there.
    device.stop();
    Devsim callers("token", false);
    UnitDaemon second("02:00:00:00:25:21", {port});
    ASSERT_EQ(second.manager().next(), "READY=1");
    EXPECT_EQ(second.manager().nextStartingWith("STATUS=sign-in to"), retrying(port, 2));
    ASSERT_EQ(sessionCall("02:00:00:00:25:21", "signin", callers.signinArgs()).rc, 0);
    EXPECT_EQ(second.manager().nextStartingWith("STATUS=signed in"), signedIn("token", callers.port()));
    EXPECT_EQ(second.manager().next(7000), "") << "the own sign-in went on after the caller's";
}

TEST_F(UnitInstance, SignoutEndsWithTenUnderTheUnitWhileSigtermAndAPlainProcessKeepZeroEachWithItsEndRecord)
{
    Devsim device("legacy", false);
    {
        UnitDaemon daemon(kMac, {device.port()});
        ASSERT_EQ(daemon.manager().nextStartingWith("STATUS=signed in"), signedIn("legacy", device.port()));
        sessionCall(kMac, "signout");
        EXPECT_EQ(daemon.process().wait(), 10);
        EXPECT_EQ(daemon.end(), "stopped: signout");
    }
    {
        UnitDaemon daemon(kMac, {device.port()});
        ASSERT_EQ(daemon.manager().nextStartingWith("STATUS=signed in"), signedIn("legacy", device.port()));
        daemon.process().signal(SIGTERM);
        EXPECT_EQ(daemon.process().wait(), 0);
        EXPECT_EQ(daemon.end(), "stopped: SIGTERM");
    }
    Daemon plain(kMac);
    ASSERT_TRUE(plain.ready());
    ASSERT_EQ(plain.call("signin", device.signinArgs()).rc, 0);
    plain.call("signout");
    EXPECT_EQ(plain.process().wait(), 0);
}

TEST_F(UnitInstance, SettingsItCannotUseEndItAtOnceWithNotConfiguredAndTheReason)
{
    Devsim device("legacy", false);
    {
        UnitDaemon daemon(kMac, {device.port(), false, false});
        EXPECT_EQ(daemon.manager().next(), "STATUS=" + Paths::configPath(kMac) +
                                               " has no password credential with it (run orvexctl enable again)");
        EXPECT_EQ(daemon.process().wait(), 6);
        EXPECT_EQ(daemon.end(), "ended: " + Paths::configPath(kMac) +
                                    " has no password credential with it (run orvexctl enable again)");
    }
    writeDeviceConfig(DeviceConfig{kMac, "127.0.0.1", device.port(), "admin", false, 600});
    chmod(Paths::configPath(kMac).c_str(), 0644);
    Daemon daemon(kMac, {"--unit"});
    EXPECT_EQ(daemon.process().wait(), 6) << "a settings file that others can read";
    EXPECT_FALSE(answers(kMac));
    removeDeviceFiles(kMac);
}

}  // namespace
}  // namespace Orvex::Test
