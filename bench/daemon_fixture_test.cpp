// Checks of the benchmark's fixture against the real device simulator and daemon: a
// baseline that silently did something else (no resumption, no sign-in) would skew every
// ratio without failing.
#include "bench/daemon_fixture.h"

#include <cstdlib>

#include <gtest/gtest.h>

#include <Poco/Net/NetSSL.h>

using namespace Orvex::Bench;
using namespace std::chrono_literals;

namespace {

Programs programs()
{
    Programs p;
    p.daemon = ORVEX_BENCH_DAEMON;
    p.devsim = ORVEX_BENCH_DEVSIM;
    return p;
}

bool isolated()
{
    const char* flag = std::getenv("ORVEX_ISOLATED");
    return flag && std::string(flag) == "1";
}

class SslEnvironment : public ::testing::Environment {
public:
    void SetUp() override { Poco::Net::initializeSSL(); }
};

const auto* const ssl = ::testing::AddGlobalTestEnvironment(new SslEnvironment);

}  // namespace

TEST(Fixture, MacAddressesAreDistinctAndWellFormed)
{
    EXPECT_EQ(macAddress(1), "02:00:00:00:00:01");
    EXPECT_EQ(macAddress(300), "02:00:00:00:01:2c");
    EXPECT_EQ(busAddressOf(macAddress(1)), "@/var/run/orvex/orvex-session@02:00:00:00:00:01");
}

TEST(Fixture, BareClientGetsTheConfigurationOverHttp)
{
    Devsim device(programs(), false);
    EXPECT_GT(device.port(), 0);
    EXPECT_EQ(device.url("/x"), "http://127.0.0.1:" + std::to_string(device.port()) + "/x");
    BareClient client(device, 1);
    EXPECT_TRUE(client.callHttp());
}

TEST(Fixture, ResumedBaselineReallyResumesAndFullOneDoesNot)
{
    Devsim device(programs(), true);
    BareClient client(device, 2);
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(client.callResumed(0));
        ASSERT_TRUE(client.callResumed(1));
    }
    // The first call of each slot makes a full handshake; every later one resumes.
    EXPECT_EQ(client.resumed(), 8);
    EXPECT_TRUE(client.callFullHandshake());
    EXPECT_EQ(client.resumed(), 8);
}

TEST(Fixture, WaitForAnswerGivesUpWhenNobodyServes)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(waitForAnswer("@orvex-bench-test-nobody", 50ms));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
}

TEST(Fixture, DaemonAnswersSignsInAndRefusesAWrongDevice)
{
    if (!isolated())
        GTEST_SKIP() << "starts daemons: runs only under tests/isolate.sh";
    Devsim device(programs(), false);
    Daemon daemon(programs(), macAddress(7));
    ASSERT_TRUE(daemon.ready());
    daemon.signin(device);
    std::string reply;
    ASSERT_TRUE(busCall(daemon.address(), "get_device_system_info", "{}", &reply));
    EXPECT_NE(reply.find("\"model\""), std::string::npos) << reply;
    daemon.process().stop();

    // A device that is gone: the sign-in reply carries an error, which must not pass.
    Daemon refused(programs(), macAddress(8));
    ASSERT_TRUE(refused.ready());
    device.stop();
    EXPECT_THROW(refused.signin(device), std::runtime_error);
}
