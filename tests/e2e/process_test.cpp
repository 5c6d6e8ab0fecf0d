// The daemon's process entry: command line, lock file and logging. (Shutdown on a
// termination signal: tests/e2e/methods_test.cpp.)
#include <signal.h>
#include <unistd.h>

#include <regex>

#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

const std::string kMac = "00:11:22:33:44:55";

TEST(ProcessEntry, NormalisesTheMacAndNamesLockAndServiceAfterIt)
{
    ORVEX_REQUIRE_ISOLATION();
    Daemon daemon(" 00:11:22:AA:BB:CC\t");
    const std::string mac = "00:11:22:aa:bb:cc";
    ASSERT_TRUE(waitFor([&] { return answers(mac); })) << daemon.log();
    EXPECT_EQ(lockHolder(mac), daemon.process().pid());
    EXPECT_EQ(readFile(lockPath(mac)), std::to_string(daemon.process().pid()));
    BusReply help = sessionCall(mac, "help", R"({"method":"get_device_rsyslog_client"})");
    ASSERT_EQ(help.rc, 0);
    EXPECT_EQ(help.body,
        "\nUsage: [General]\n\n[General]:\n   orvex-session@00:11:22:aa:bb:cc.get_device_rsyslog_client\n\n\n");
}

TEST(ProcessEntry, RefusesAnInvalidOrMissingMacBeforeDetaching)
{
    const std::string daemon = daemonBinary();
    const std::vector<std::vector<std::string>> cases = {
        {daemon, "-m", "00-11-22-33-44-55"}, {daemon, "-d", "-m", "00-11-22-33-44-55"}, {daemon, "-m", "00:11:22:33:44"},
        {daemon, "-d", "-m", "00:11:22:33:44:5g"}, {daemon, "-m", "00:11:22:33:44:55:66"}, {daemon, "-d"}, {daemon}};
    for (const auto& argv : cases) {
        RunResult result = run(argv);
        EXPECT_EQ(result.status, 1) << argv.back();
        EXPECT_EQ(result.err, "invalid mac address\n") << argv.back();
    }
}

TEST(ProcessEntry, SecondInstanceNamesTheRunningOneInForegroundAndLeavesQuietlyInBackground)
{
    ORVEX_REQUIRE_ISOLATION();
    Daemon first(kMac);
    ASSERT_TRUE(first.ready()) << first.log();
    const std::string pid = std::to_string(first.process().pid());
    // The same device written differently is still the same device.
    RunResult foreground = run({daemonBinary(), "-d", "-m", "00:11:22:33:44:55 "});
    EXPECT_EQ(foreground.status, 1);
    // The console line first; the log line that follows on the console is the logger's.
    EXPECT_EQ(foreground.err.rfind("orvex-session daemon is running (" + pid + ").\n", 0), 0u) << foreground.err;
    RunResult background = run({daemonBinary(), "-m", kMac});
    EXPECT_EQ(background.status, 0);
    EXPECT_EQ(background.err, "");
    // The starter returns before its detached process has looked at the lock; that one
    // says why it left in the shared log, and the checks below must follow its exit.
    EXPECT_TRUE(waitFor([&] {
        return readFile(Paths::kLogPath).find("orvex-session daemon is running (" + pid + ")") != std::string::npos;
    })) << readFile(Paths::kLogPath);
    EXPECT_EQ(readFile(lockPath(kMac)), pid);
    EXPECT_TRUE(answers(kMac));
}

// Runs a foreground daemon at a level until SIGTERM and returns its console log.
std::string logAtLevel(const std::string& level)
{
    Daemon daemon(kMac, {"-l", level});
    if (!daemon.ready())
        return "did not start: " + daemon.log();
    daemon.process().signal(SIGTERM);
    EXPECT_EQ(daemon.process().wait(), 0) << level << "\n" << daemon.log();
    return daemon.log();
}

TEST(ProcessEntry, LevelDecidesWhichLinesAreLogged)
{
    ORVEX_REQUIRE_ISOLATION();
    const std::regex line(R"(^\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2},\d{3} \[(\w+)\] .*)");
    for (const char* level : {"8", "9", "100", "-1"}) {
        std::string log = logAtLevel(level);
        EXPECT_NE(log.find(" [Trace] "), std::string::npos) << level;
        EXPECT_NE(log.find(":enter"), std::string::npos) << level;
    }
    std::string normal = logAtLevel("6");
    EXPECT_EQ(normal.find("[Trace]"), std::string::npos);
    EXPECT_NE(normal.find(" [Information] "), std::string::npos) << normal;
    std::smatch match;
    std::string first = normal.substr(0, normal.find('\n'));
    EXPECT_TRUE(std::regex_match(first, match, line)) << first;
    EXPECT_EQ(logAtLevel("abc"), "");
}

}  // namespace
}  // namespace Orvex::Test
