// The daemon's process entry: command line, lock file, detaching, logging and shutdown.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>

#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

const std::string kMac = "00:11:22:33:44:55";

std::string link(const std::string& path)
{
    char target[256] = {0};
    ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : "";
}

std::string statusField(pid_t pid, const std::string& name)
{
    std::string status = readFile("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find(name + ":\t");
    if (at == std::string::npos)
        return "";
    size_t start = at + name.size() + 2;
    return status.substr(start, status.find('\n', start) - start);
}

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
    const std::vector<std::vector<std::string>> cases = {
        {"-m", "00-11-22-33-44-55"}, {"-d", "-m", "00-11-22-33-44-55"}, {"-m", "00:11:22:33:44"},
        {"-d", "-m", "00:11:22:33:44:5g"}, {"-m", "00:11:22:33:44:55:66"}, {"-d"}, {}};
    for (const auto& args : cases) {
        std::vector<std::string> argv = {daemonBinary()};
        argv.insert(argv.end(), args.begin(), args.end());
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
    EXPECT_EQ(readFile(lockPath(kMac)), pid);
    EXPECT_TRUE(answers(kMac));
}

TEST(ProcessEntry, TwoDevicesRunSideBySide)
{
    ORVEX_REQUIRE_ISOLATION();
    const std::string otherMac = "00:11:22:33:44:66";
    Daemon one(kMac), two(otherMac);
    ASSERT_TRUE(one.ready()) << one.log();
    ASSERT_TRUE(two.ready()) << two.log();
    EXPECT_EQ(lockHolder(kMac), one.process().pid());
    EXPECT_EQ(lockHolder(otherMac), two.process().pid());
    EXPECT_NE(sessionCall(kMac, "help", R"({"method":"signin"})").body.find("orvex-session@" + kMac + ".signin"),
        std::string::npos);
    EXPECT_NE(sessionCall(otherMac, "help", R"({"method":"signin"})").body.find("orvex-session@" + otherMac + ".signin"),
        std::string::npos);
}

TEST(ProcessEntry, TerminationSignalsSignOutAndExitZeroKeepingTheLockFile)
{
    ORVEX_REQUIRE_ISOLATION();
    struct Case {
        const char* family;
        int signo;
        const char* method;
        const char* logout;
    };
    for (const Case& c : {Case{"legacy", SIGTERM, "POST", "/cgi-bin/authLogout.cgi"},
             Case{"token", SIGINT, "GET", "/zem/oauth/logout"}}) {
        SignedIn s(c.family, false);
        ASSERT_TRUE(json_object_get(s.signin.get(), "model")) << dump(s.signin.get());
        pid_t pid = s.daemon.process().pid();
        s.daemon.process().signal(c.signo);
        EXPECT_EQ(s.daemon.process().wait(), 0) << c.family << "\n" << s.daemon.log();
        EXPECT_EQ(s.device.requestsTo(c.method, c.logout).size(), 1u) << c.family;
        EXPECT_EQ(readFile(lockPath(s.daemon.mac())), std::to_string(pid));
        EXPECT_EQ(lockHolder(s.daemon.mac()), 0);
        EXPECT_FALSE(answers(s.daemon.mac()));
    }
}

// Runs a foreground daemon at a level until SIGTERM and returns its console log.
std::string logAtLevel(const std::string& level)
{
    Daemon daemon(kMac, {"-l", level});
    if (!daemon.ready())
        return "did not start: " + daemon.log();
    daemon.process().signal(SIGTERM);
    EXPECT_EQ(daemon.process().wait(), 0) << level;
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

TEST(ProcessEntry, DetachesIntoTheBackgroundAndLogsToTheSharedLogFile)
{
    ORVEX_REQUIRE_ISOLATION();
    RunResult starter = run({daemonBinary(), "-m", kMac});
    ASSERT_EQ(starter.status, 0);
    EXPECT_EQ(starter.err, "");
    ASSERT_TRUE(waitFor([] { return answers(kMac); }));
    pid_t pid = lockHolder(kMac);
    ASSERT_GT(pid, 0);
    std::string proc = "/proc/" + std::to_string(pid);
    EXPECT_EQ(link(proc + "/cwd"), "/");
    for (int fd = 0; fd <= 2; ++fd)
        EXPECT_EQ(link(proc + "/fd/" + std::to_string(fd)), "/dev/null") << fd;
    EXPECT_EQ(statusField(pid, "Umask"), "0022");
    EXPECT_NE(statusField(pid, "PPid"), std::to_string(getpid()));
    struct stat lock;
    ASSERT_EQ(stat(lockPath(kMac).c_str(), &lock), 0);
    EXPECT_EQ(lock.st_mode & 0777, 0644u);
    const std::string logPath = Paths::kLogPath;
    std::string started = "service pid(" + std::to_string(pid) + ") start.";
    EXPECT_TRUE(waitFor([&] { return readFile(logPath).find(started) != std::string::npos; }))
        << readFile(logPath);
    kill(pid, SIGTERM);
    EXPECT_TRUE(waitFor([] { return lockHolder(kMac) == 0; }));
    std::string stopped = "service pid(" + std::to_string(pid) + ") stop.";
    EXPECT_NE(readFile(logPath).find(stopped), std::string::npos) << readFile(logPath);
}

}  // namespace
}  // namespace Orvex::Test
