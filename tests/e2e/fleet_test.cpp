// orvexctl on one device and on a fleet of session processes: start, call and stop, error
// replies, sign-in failures with their causes and exit codes, list/status from the lock and
// status files, stop that escalates, and the password kept out of sight.
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "common/misc.h"
#include "common/paths.h"
#include "common/proc.h"
#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

using Fleet = FrontEndTest;

TEST_F(Fleet, StartsCallsAndStopsOneDevice)
{
    Devsim device("token", true);
    RunResult started = start("00:11:22:33:44:AA", device.port(), "secret", true);
    ASSERT_EQ(started.status, 0) << started.err;
    JsonRef identity = parseJson(started.out);
    EXPECT_STREQ(json_string_value(json_object_get(identity.get(), "model")), "ZEM-880") << started.out;
    EXPECT_EQ(started.out.find('\n'), started.out.size() - 1) << "compact, one line: " << started.out;

    const std::string mac = "00:11:22:33:44:aa";
    RunResult added = ctl({"call", mac, "add_device_rsyslog_client", R"({"address":"192.0.2.1","mode":3,"port":514})"});
    EXPECT_EQ(added.status, 0) << added.err;
    EXPECT_EQ(added.out, "{\"success\":true,\"id\":1}\n");
    RunResult listed = ctl({"call", "00:11:22:33:44:AA", "get_device_rsyslog_client"});
    EXPECT_TRUE(contains(listed.out, "192.0.2.1")) << listed.out;
    // An error reply is printed and exits 1; the device's own "success":false exits 6.
    RunResult bad = ctl({"call", mac, "set_device_rsyslog_client", "{}"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.out, "{\"error_code\":400,\"error_message\":\"id missed\"}\n");
    EXPECT_EQ(bad.err, "orvexctl: set_device_rsyslog_client on " + mac + " failed: id missed (error 400)\n");
    RunResult unknown = ctl({"call", mac, "del_device_rsyslog_client", R"({"id":42})"});
    EXPECT_EQ(unknown.status, 6) << unknown.err;
    EXPECT_TRUE(contains(unknown.out, "no client with id 42")) << unknown.out;
    EXPECT_EQ(unknown.err, "orvexctl: del_device_rsyslog_client on " + mac +
                               " failed: the device answered \"success\":false (no client with id 42)\n");

    RunResult stopped = ctl({"stop", mac});
    EXPECT_EQ(stopped.status, 0) << stopped.err;
    EXPECT_EQ(lockHolder(mac), 0);
    EXPECT_EQ(device.requestsTo("GET", "/zem/oauth/logout").size(), 1u);
    RunResult gone = ctl({"call", mac, "get_device_rsyslog_client"});
    EXPECT_EQ(gone.status, 3);
    EXPECT_EQ(gone.err, "orvexctl: no session process answers for MAC " + mac + "\n");
    EXPECT_EQ(ctl({"stop", mac}).status, 3);
}

TEST_F(Fleet, SigninFailuresNameTheirCauseInTheLogAndTheExitCode)
{
    Devsim plain("legacy", false);
    struct Case {
        std::string mac;
        int port;
        std::string pass;
        bool secure;
        int status;
        std::string cause;
        std::string logged;
    } cases[] = {
        {"02:00:00:00:01:01", closedPort(), "secret", false, 4, "refused", "connection refused"},
        {"02:00:00:00:01:02", plain.port(), "secret", true, 4, "tls-mismatch", "TLS where plain HTTP was expected"},
        {"02:00:00:00:01:03", plain.port(), "wrong", false, 5, "credentials", "credentials rejected"},
    };
    for (const Case& c : cases) {
        RunResult started = start(c.mac, c.port, c.pass, c.secure);
        EXPECT_EQ(started.status, c.status) << c.cause << ": " << started.err;
        EXPECT_TRUE(contains(started.err, "failed: " + c.cause)) << started.err;
        EXPECT_EQ(started.out, "{\"error_code\":403,\"error_message\":\"signin fail\"}\n") << c.cause;
        bool logged = false;
        for (const std::string& line : lines(readFile(Paths::kLogPath)))
            logged = logged || (contains(line, "[" + c.mac + " ") && contains(line, c.logged));
        EXPECT_TRUE(logged) << "no log line names " << c.mac << " and " << c.cause;
    }
}

TEST_F(Fleet, ListAndStatusShowRunningDeadAndHungSessionsWithoutCallingThem)
{
    SignedIn running("legacy", false, "02:00:00:00:02:01");
    SignedIn dead("token", false, "02:00:00:00:02:02");
    SignedIn hung("token", true, "02:00:00:00:02:03");
    dead.daemon.process().signal(SIGKILL);
    dead.daemon.process().wait();
    hung.daemon.process().signal(SIGSTOP);

    auto begin = std::chrono::steady_clock::now();
    RunResult list = ctl({"list"});
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s) << "list must not wait for a hung session";
    hung.daemon.process().signal(SIGCONT);
    EXPECT_EQ(list.status, 3) << list.err;
    std::vector<std::string> rows = lines(list.out);
    ASSERT_EQ(rows.size(), 3u) << list.out;
    EXPECT_EQ(rows[0].rfind("02:00:00:00:02:01 pid " + std::to_string(running.daemon.process().pid()) + " running up ", 0),
        0u) << rows[0];
    EXPECT_TRUE(contains(rows[0], "legacy 127.0.0.1:" + std::to_string(running.device.port()))) << rows[0];
    EXPECT_TRUE(contains(rows[0], "model=") && contains(rows[0], " idle ")) << rows[0];
    EXPECT_EQ(rows[1].rfind("02:00:00:00:02:02 pid " + std::to_string(dead.daemon.process().pid()) +
                  " crashed: no end record (killed or crashed) (last seen at ", 0), 0u) << rows[1];
    EXPECT_TRUE(contains(rows[2], " running (suspended) ") && contains(rows[2], "token") && contains(rows[2], " https"))
        << rows[2];

    RunResult status = ctl({"status", "02:00:00:00:02:01", "--json"});
    EXPECT_EQ(status.status, 0) << status.err;
    JsonRef json = parseJson(status.out);
    EXPECT_STREQ(json_string_value(json_object_get(json.get(), "state")), "running") << status.out;
    EXPECT_STREQ(json_string_value(json_object_get(json.get(), "family")), "legacy");
    EXPECT_EQ(json_integer_value(json_object_get(json.get(), "port")), running.device.port());
    EXPECT_STREQ(json_string_value(json_object_get(json.get(), "model")),
        json_string_value(json_object_get(running.signin.get(), "model")));
    EXPECT_GE(json_integer_value(json_object_get(json.get(), "idle")), 0);
    EXPECT_EQ(ctl({"status", "02:00:00:00:02:02"}).status, 3);
    EXPECT_EQ(ctl({"status", "02:00:00:00:02:09"}).status, 3);
    JsonRef listed = parseJson(ctl({"list", "--json=pretty"}).out);
    EXPECT_EQ(json_array_size(listed.get()), 3u);
}

TEST_F(Fleet, StopAllEndsHungAndUpgradedSessionsWithoutLsofInSbin)
{
    std::filesystem::remove("/usr/sbin/lsof");
    Daemon hung("02:00:00:00:03:01");
    Daemon upgraded("02:00:00:00:03:02", {}, Paths::kDaemonPath);
    ASSERT_TRUE(hung.ready() && upgraded.ready());
    installDaemon();
    EXPECT_TRUE(contains(ctl({"status", "02:00:00:00:03:02"}).out, " stale binary")) << "binary was replaced";
    hung.process().signal(SIGSTOP);

    RunResult stopped = ctl({"stop", "--all", "--grace", "1"});
    EXPECT_EQ(stopped.status, 0) << stopped.err;
    // The stopped one is not waited for: it gets SIGTERM with SIGCONT at once.
    EXPECT_TRUE(contains(stopped.out, "02:00:00:00:03:01 pid " + std::to_string(hung.process().pid()) +
                                          " ended (SIGTERM)\n")) << stopped.out;
    EXPECT_TRUE(contains(stopped.out, "02:00:00:00:03:02 pid " + std::to_string(upgraded.process().pid()) + " ended"))
        << stopped.out;
    EXPECT_EQ(hung.process().wait(2s), 0) << "SIGTERM with SIGCONT ends a stopped process in order\n" << hung.log();
    EXPECT_EQ(upgraded.process().wait(2s), 0) << upgraded.log();
    std::vector<std::string> ended = lines(ctl({"list", "--all"}).out);
    ASSERT_EQ(ended.size(), 2u);
    EXPECT_TRUE(contains(ended[0], " stopped: SIGTERM (at ")) << ended[0];
    EXPECT_EQ(ctl({"list"}).out, "") << "stopped sessions are listed with --all only";
}

TEST_F(Fleet, StopKillsASessionThatOutlivesSigtermAndTheGrace)
{
    // The device holds the sign-out that SIGTERM's shutdown makes: the process lives on
    // for the exchange's whole deadline unless it is killed.
    SignedIn held("token", false, "02:00:00:00:03:03", {"--delay-path", "/zem/oauth/logout:20000"});
    const pid_t pid = held.daemon.process().pid();
    RunResult stopped = ctl({"stop", "--all", "--grace", "1"});
    EXPECT_EQ(stopped.status, 0) << stopped.out << stopped.err;
    EXPECT_EQ(stopped.out, "02:00:00:00:03:03 pid " + std::to_string(pid) + " ended (SIGKILL)\n") << stopped.err;
    EXPECT_EQ(held.daemon.process().wait(2s), 128 + SIGKILL);
    // Killed, the process could not record its end: the stop did, as a normal stop.
    RunResult status = ctl({"status", "02:00:00:00:03:03"});
    EXPECT_EQ(status.status, 0) << status.out << status.err;
    EXPECT_TRUE(contains(status.out, " stopped: SIGKILL after the stop's grace period (at ")) << status.out;
}

TEST_F(Fleet, StartKeepsThePasswordOutOfTheProcessListAndTheDaemon)
{
    RunResult literal = ctl({"start", "02:00:00:00:05:01", "--ip", "h", "--port", "1", "--user", "u", "--pass", "p"});
    EXPECT_EQ(literal.status, 2);
    EXPECT_TRUE(contains(literal.err, "process list")) << literal.err;

    Devsim device("legacy", false, {"--pass", "s3cr3t-word"});
    RunResult fromStdin = start("02:00:00:00:05:02", device.port(), "", false, {"--pass-stdin"}, "s3cr3t-word\n");
    ASSERT_EQ(fromStdin.status, 0) << fromStdin.err;
    EXPECT_FALSE(contains(fromStdin.out + fromStdin.err, "s3cr3t"));
    RunResult fromOrvexPass = start("02:00:00:00:05:03", device.port(), "s3cr3t-word", false, {});
    ASSERT_EQ(fromOrvexPass.status, 0) << fromOrvexPass.err;
    EXPECT_FALSE(contains(fromOrvexPass.out + fromOrvexPass.err, "s3cr3t"));

    RunResult started = start("02:00:00:00:05:01", device.port(), "s3cr3t-word", false,
        {"--pass-env", "DEVICE_PASS", "--level", "7"});
    ASSERT_EQ(started.status, 0) << started.err;
    pid_t pid = lockHolder("02:00:00:00:05:01");
    ASSERT_GT(pid, 0);
    std::string environment = readFile("/proc/" + std::to_string(pid) + "/environ");
    EXPECT_FALSE(contains(environment, "s3cr3t-word")) << "the daemon inherited the password";
    EXPECT_TRUE(contains(readFile("/proc/" + std::to_string(pid) + "/cmdline"), std::string("-l\0007\0", 5)));
    std::string daemonVersion = run({daemonBinary(), "--version"}).out;
    EXPECT_EQ(ctl({"--version"}).out, "orvexctl " + daemonVersion.substr(daemonVersion.find(' ') + 1));
}

// What callers sent to a raw listener so far.
std::string sentTo(int listener)
{
    fcntl(listener, F_SETFL, O_NONBLOCK);
    std::string sent;
    for (int fd; (fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0; close(fd)) {
        char buffer[4096];
        for (ssize_t n; (n = recv(fd, buffer, sizeof buffer, 0)) > 0;)
            sent.append(buffer, size_t(n));
    }
    return sent;
}

// A stranger plants a lock file for an unused MAC and holds it from a copy of a program
// under the daemon's name. The listing must not show it as a session, and no stop may
// signal it; a genuine session beside it is still stopped.
TEST_F(Fleet, AStrangersDecoyIsNeitherListedAsRunningNorSignalled)
{
    const std::string decoyMac = "02:00:00:00:06:01";
    const std::string lock = lockPath(decoyMac);
    ASSERT_EQ(chmod(std::filesystem::path(lock).parent_path().c_str(), 01777), 0);
    TempDir dir;
    ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
    const std::string decoy = dir.file(Paths::kServicePrefix);
    std::filesystem::copy_file("/usr/bin/flock", decoy);
    const std::string nobody = std::to_string(kNobody);
    Child holder(Spawn{{"/usr/bin/setpriv", "--reuid=" + nobody, "--regid=" + nobody, "--clear-groups", decoy, "-o",
        lock, "sleep", "600"}, {}, "", ""});
    ASSERT_TRUE(waitFor([&] { return isLocked(lock); })) << "the decoy did not lock " << lock;
    Daemon genuine("02:00:00:00:06:02", {}, Paths::kDaemonPath);
    ASSERT_TRUE(genuine.ready()) << genuine.log();

    RunResult listed = ctl({"list", "--all"});
    EXPECT_EQ(listed.status, 0) << listed.err;
    const std::string genuineRow = "02:00:00:00:06:02 pid " + std::to_string(genuine.process().pid()) + " running";
    std::vector<std::string> rows = lines(listed.out);
    ASSERT_EQ(rows.size(), 1u) << listed.out;
    EXPECT_EQ(rows[0].rfind(genuineRow, 0), 0u) << rows[0];
    // A third user, to whom neither program file shows, sees the same.
    RunResult third = ctlAs(1, {"list", "--all"});
    EXPECT_EQ(third.status, 0) << third.err;
    rows = lines(third.out);
    ASSERT_EQ(rows.size(), 1u) << third.out;
    EXPECT_EQ(rows[0].rfind(genuineRow, 0), 0u) << rows[0];
    EXPECT_EQ(ctl({"stop", decoyMac, "--grace", "1"}).status, 3);
    RunResult all = ctl({"stop", "--all", "--grace", "1"});
    EXPECT_EQ(all.status, 0) << all.err;
    EXPECT_EQ(all.out, "02:00:00:00:06:02 pid " + std::to_string(genuine.process().pid()) + " ended (SIGTERM)\n");
    EXPECT_EQ(genuine.process().wait(2s), 0);
    EXPECT_TRUE(holder.running()) << "the decoy was signalled";
}

// Runs scene as pid 1 of a new pid namespace with its own /proc, and returns its exit
// status; 90 when the namespace cannot be made.
int inPidNamespace(const std::function<int()>& scene)
{
    return inChild([&] {
        if (unshare(CLONE_NEWPID | CLONE_NEWNS) != 0)
            _exit(90);
        pid_t init = fork();
        if (init == 0) {
            if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                mount("proc", "/proc", "proc", 0, nullptr) != 0)
                _exit(90);
            _exit(scene());
        }
        int status = 0;
        waitpid(init, &status, 0);
        _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 91);
    });
}

// The next process forked in this pid namespace gets pid.
bool nextPidIs(pid_t pid)
{
    std::ofstream last("/proc/sys/kernel/ns_last_pid");
    last << pid - 1;
    last.close();
    return last.good();
}

// A hung (stopped) session ends on stop's SIGTERM, and a root process takes its pid
// within the grace period: the SIGKILL after it must not reach that process.
TEST_F(Fleet, StopNeverSignalsAProcessThatTookTheSessionsPid)
{
    const std::string mac = "02:00:00:00:08:01";
    const int status = inPidNamespace([&] {
        Daemon session(mac);
        if (!session.ready())
            return 2;
        const pid_t pid = session.process().pid();
        session.process().signal(SIGSTOP);
        if (!waitFor([&] { Proc::Stat st; return Proc::stat(pid, st) && st.state == 'T'; }))
            return 2;
        Child stop(Spawn{{ctlBinary(), "stop", mac, "--grace", "2"}, {}, "", ""});
        // Reaped the moment it ends, so that its pid is free at once.
        if (session.process().waitEnd() != 0 || !nextPidIs(pid))
            return 3;
        Child successor(Spawn{{"/bin/sleep", "30"}, {}, "", ""});
        if (successor.pid() != pid)
            return 4;
        if (stop.wait(10s) != 0)
            return 5;
        return successor.running() ? 0 : 1;
    });
    EXPECT_EQ(status, 0) << "1: the successor was signalled, 2: no stopped session, 3: it did not end on SIGTERM, "
                            "4: the pid was not reused, 5: stop failed, 90: no pid namespace";
}

// Whoever bound a session's bus address first gets no sign-in (and no password) from
// start, which names it instead: a listener of another user, or a root process that is
// not the MAC's session.
TEST_F(Fleet, StartNamesWhoeverSquatsTheBusAddressAndSendsItNothing)
{
    const std::string strangerMac = "02:00:00:00:07:01";
    Stranger stranger([&] { return rawListen(busAddress(strangerMac)) >= 0 ? "listening" : ""; });
    ASSERT_TRUE(stranger) << "needs root to play uid nobody";
    RunResult started = start(strangerMac, closedPort(), "s3cr3t", false);
    EXPECT_EQ(started.status, 3);
    EXPECT_EQ(started.err, "orvexctl: the bus address " + busAddress(strangerMac) + " is held by pid " +
                               std::to_string(stranger.pid()) + " of uid 65534, not by a session process for MAC " +
                               strangerMac + ": nothing sent\n");

    const std::string rootMac = "02:00:00:00:07:02";
    UniqueFd squatter(rawListen(busAddress(rootMac)));
    ASSERT_TRUE(squatter);
    started = start(rootMac, closedPort(), "s3cr3t", false);
    EXPECT_EQ(started.status, 3);
    EXPECT_EQ(started.err, "orvexctl: the bus address " + busAddress(rootMac) + " is held by pid " +
                               std::to_string(getpid()) + " of uid 0, not by a session process for MAC " + rootMac +
                               ": nothing sent\n");
    EXPECT_EQ(sentTo(squatter.get()), "");
}

// Needs no daemon, so no isolation.
TEST(OrvexctlUsage, BadCommandLinesExitTwoWithOneLine)
{
    const std::string kUsageMac = "00:11:22:33:44:55";
    const std::string port = "--port=443";
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"frobnicate"},
        {"start", kUsageMac},
        {"start", "00-11-22-33-44-55", "--ip", "h", "--port", "1", "--user", "u", "--pass-env", "HOME"},
        {"start", kUsageMac, "--ip", "h", "--port", "70000", "--user", "u", "--pass-env", "HOME"},
        {"start", kUsageMac, "--ip", "h", port, "--user", "u", "--pass-env", "HOME", "--pass-stdin"},
        {"start", kUsageMac, "--ip", "h", port, "--user", "u", "--pass-env", "ORVEX_TEST_UNSET_VARIABLE"},
        {"start", kUsageMac, "--ip", "h", port, "--user", "u", "--pass-env", "HOME", "--colour"},
        {"call", kUsageMac},
        {"call", kUsageMac, "signin", "[1]"},
        {"call", kUsageMac, "signin", "{\"ip\":"},
        {"call", kUsageMac, "signin", "{}", "extra"},
        {"stop"},
        {"stop", "everything"},
    };
    for (const auto& args : cases) {
        RunResult result = ctl(args);
        std::string shown = args.empty() ? "(none)" : args.back();
        EXPECT_EQ(result.status, 2) << shown << ": " << result.err;
        EXPECT_EQ(result.err.rfind("orvexctl: ", 0), 0u) << shown;
        EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << shown << ": " << result.err;
        EXPECT_EQ(result.out, "") << shown;
    }
    RunResult help = ctl({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("usage: orvexctl start MAC", 0), 0u) << help.out;
}

}  // namespace
}  // namespace Orvex::Test
