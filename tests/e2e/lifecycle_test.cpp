// The daemon process on its own: lock and log files that an attacker prepared or holds,
// the modes of what it creates, the log shared with other sessions across rotations, the
// notifications to a service manager, and its memory kept from other processes and cores.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>

#include "common/paths.h"
#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

const std::string kMac = "00:11:22:33:44:55";

// A process of uid nobody that opens path (a file or a folder) and holds a lock on it.
std::function<std::string()> lockAsNobody(const std::string& path, int operation)
{
    return [path, operation] {
        int fd = open(path.c_str(), O_RDONLY);
        return fd >= 0 && flock(fd, operation) == 0 ? "held" : "";
    };
}

ino_t inodeOf(const std::string& path)
{
    struct stat st{};
    return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

std::string linkOf(const std::string& path)
{
    std::error_code error;
    return std::filesystem::read_symlink(path, error).string();
}

using DaemonFiles = IsolatedTest;

// Whatever a stranger put or holds at the lock file's name is never followed, written or
// waited on, and never keeps the MAC from starting: the daemon swaps in a file of its own.
// Also as root without capabilities (the unit's daemon), which may not open a file of
// another user but, owning the sticky lock folder, may still replace it.
TEST_F(DaemonFiles, WhatAStrangerPutsOrHoldsAtTheLockFileIsSwappedOutNotFollowed)
{
    const std::string lock = lockPath(kMac);
    // As on Debian: anyone may create files there; only their owner or root remove them.
    ASSERT_EQ(chmod(std::filesystem::path(lock).parent_path().c_str(), 01777), 0);
    TempDir dir;
    const std::string victim = dir.file("victim");
    std::ofstream(victim) << "precious";
    struct Trap {
        std::string reason;
        std::function<void()> plant;
        std::vector<std::string> wrapper;
    };
    std::unique_ptr<Stranger> holder;
    const Trap traps[] = {
        {"is a symbolic link", [&] { ASSERT_EQ(symlink(victim.c_str(), lock.c_str()), 0); }, {}},
        {"is not a regular file", [&] { ASSERT_EQ(mkfifo(lock.c_str(), 0644), 0); }, {}},
        {"belongs to uid 65534",
            [&] {
                std::ofstream(lock) << "1";
                ASSERT_EQ(chown(lock.c_str(), kNobody, kNobody), 0);
                ASSERT_EQ(chmod(lock.c_str(), 0600), 0);
            },
            withoutCapabilities()},
        {"is held by pid ",
            [&] {
                std::ofstream(lock) << "1";
                chmod(lock.c_str(), 0644);
                holder = std::make_unique<Stranger>(lockAsNobody(lock, LOCK_SH));
                ASSERT_TRUE(*holder);
            },
            {}},
    };
    for (const Trap& trap : traps) {
        unlink(lock.c_str());
        trap.plant();
        Daemon daemon(kMac, {}, daemonBinary(), trap.wrapper);
        ASSERT_TRUE(daemon.ready()) << trap.reason << ": " << daemon.log();
        EXPECT_EQ(daemon.log().rfind("orvex-session lock file " + lock + " " + trap.reason, 0), 0u) << daemon.log();
        EXPECT_NE(daemon.log().find(": replaced by our own.\n"), std::string::npos) << daemon.log();
        struct stat st{};
        ASSERT_EQ(lstat(lock.c_str(), &st), 0) << trap.reason;
        EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_uid == 0 && (st.st_mode & 07777) == 0644) << trap.reason;
        EXPECT_EQ(readFile(lock), std::to_string(daemon.process().pid())) << trap.reason;
        EXPECT_EQ(readFile(victim), "precious");
        // The next start finds the daemon's own lock, held: the running one is named.
        RunResult second = run({daemonBinary(), "-d", "-m", kMac});
        EXPECT_EQ(second.status, 1) << trap.reason;
        EXPECT_EQ(second.err, "orvex-session daemon is running (" + std::to_string(daemon.process().pid()) + ").\n");
    }
    // The daemon's own lock file with a longer stale pid in it: the pid is replaced whole,
    // so a second instance names the one that runs.
    std::ofstream(lock, std::ios::trunc) << "99999999";
    {
        Daemon daemon(kMac);
        ASSERT_TRUE(daemon.ready()) << daemon.log();
        const std::string pid = std::to_string(daemon.process().pid());
        EXPECT_EQ(readFile(lock), pid);
        EXPECT_EQ(run({daemonBinary(), "-d", "-m", kMac}).err, "orvex-session daemon is running (" + pid + ").\n");
    }
    const std::string name = std::filesystem::path(lock).filename().string();
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(lock).parent_path()))
        EXPECT_TRUE(entry.path().filename() == name) << "left behind: " << entry.path();
}

TEST_F(DaemonFiles, DetachedDaemonCreatesNothingWritableByOthersAndNeverLogsThroughALink)
{
    const std::string folder = std::filesystem::path(Paths::kLogPath).parent_path();
    std::filesystem::remove_all(folder);
    std::filesystem::remove_all(Paths::kStatusDirectory);
    RunResult starter = run({daemonBinary(), "-m", kMac});
    ASSERT_EQ(starter.status, 0);
    EXPECT_EQ(starter.err, "");
    ASSERT_TRUE(waitFor([] { return answers(kMac); }));
    const pid_t pid = lockHolder(kMac);
    const std::string proc = "/proc/" + std::to_string(pid);
    EXPECT_EQ(linkOf(proc + "/cwd"), "/");
    for (int fd = 0; fd <= 2; ++fd)
        EXPECT_EQ(linkOf(proc + "/fd/" + std::to_string(fd)), "/dev/null") << fd;
    const std::string status = readFile(proc + "/status");
    EXPECT_NE(status.find("\nUmask:\t0022\n"), std::string::npos) << status;
    EXPECT_EQ(status.find("\nPPid:\t" + std::to_string(getpid()) + "\n"), std::string::npos) << "not detached";
    EXPECT_EQ(modeOf(folder), 0755u);
    EXPECT_EQ(modeOf(Paths::kLogPath), 0640u);
    EXPECT_EQ(modeOf(lockPath(kMac)), 0644u);
    EXPECT_EQ(modeOf(Paths::kStatusDirectory), 0755u);
    EXPECT_EQ(modeOf(Paths::statusPath(kMac)), 0644u);
    EXPECT_NE(readFile(Paths::kLogPath).find("[" + kMac + " " + std::to_string(pid) + "]"),
        std::string::npos) << "every line names the MAC and pid";
    EXPECT_TRUE(waitFor([&] { return readFile(Paths::kLogPath).find("service pid(" + std::to_string(pid) + ") start.") !=
        std::string::npos; })) << readFile(Paths::kLogPath);
    kill(pid, SIGTERM);
    ASSERT_TRUE(waitFor([] { return lockHolder(kMac) == 0; }));
    EXPECT_NE(readFile(Paths::kLogPath).find("service pid(" + std::to_string(pid) + ") stop."), std::string::npos);

    TempDir dir;
    const std::string victim = dir.file("victim");
    std::ofstream(victim) << "precious";
    std::filesystem::remove(Paths::kLogPath);
    ASSERT_EQ(symlink(victim.c_str(), Paths::kLogPath), 0);
    ASSERT_EQ(run({daemonBinary(), "-m", kMac}).status, 0);
    EXPECT_FALSE(waitFor([] { return answers(kMac); }, 2s)) << "the daemon must not run with a planted log link";
    EXPECT_EQ(readFile(victim), "precious");
    std::filesystem::remove(Paths::kLogPath);
}

// Time stamps ("YYYY-MM-DD HH:MM:SS,mmm") of the lines each tagged process wrote into the
// given log files, in file order.
using Stamps = std::map<std::string, std::vector<std::string>>;

Stamps stampsIn(const std::vector<std::string>& suffixes, const std::map<std::string, std::string>& tags)
{
    Stamps stamps;
    for (const std::string& suffix : suffixes) {
        std::ifstream in(std::string(Paths::kLogPath) + suffix);
        for (std::string line; std::getline(in, line);)
            for (const auto& [pid, tag] : tags)
                if (line.find(tag) != std::string::npos)
                    stamps[pid].push_back(line.substr(0, 23));
    }
    return stamps;
}

TEST_F(DaemonFiles, SharedLogKeepsEveryLineAfterTheFirstRotationInTheNewestTwoFiles)
{
    const std::vector<std::string> macs = {"02:00:00:00:00:01", "02:00:00:00:00:02"};
    std::map<std::string, std::string> tags;
    for (const std::string& mac : macs) {
        ASSERT_EQ(run({daemonBinary(), "-m", mac, "-l", "8"}).status, 0);
        ASSERT_TRUE(waitFor([&] { return answers(mac); }));
        std::string pid = std::to_string(lockHolder(mac));
        tags[pid] = "[" + mac + " " + pid + "]";
    }
    const std::vector<std::string> all = {".1", ".0", ""};
    // Lines one unknown-method call writes at trace level, measured per daemon.
    std::map<std::string, size_t> perCall;
    for (size_t i = 0; i < macs.size(); ++i) {
        std::string pid = std::to_string(lockHolder(macs[i]));
        // After a few calls, so that no line of start-up or of the readiness probes counts.
        for (int warm = 0; warm < 3; ++warm)
            sessionCall(macs[i], "ping");
        size_t before = stampsIn(all, tags)[pid].size();
        for (int call = 0; call < 5; ++call)
            sessionCall(macs[i], "ping");
        perCall[pid] = (stampsIn(all, tags)[pid].size() - before) / 5;
        ASSERT_GT(perCall[pid], 0u);
    }
    // Rotation renames the current file to .0 and .0 to .1: at each rotation from the
    // second on, the newest archive and the current file hold exactly what was written
    // since the one before. Every call's lines must be there: nobody wrote into an older file.
    auto logInode = [](const std::string& suffix) { return inodeOf(std::string(Paths::kLogPath) + suffix); };
    std::map<std::string, size_t> calls;
    int rotations = 0;
    for (ino_t seen = logInode(".0"); rotations < 4;) {
        for (const std::string& mac : macs) {
            ASSERT_EQ(sessionCall(mac, "ping").rc, 0);
            ++calls[std::to_string(lockHolder(mac))];
        }
        if (logInode(".0") == seen)
            continue;
        // The archive before moved on to .1; nothing older than .1 is kept.
        if (seen != 0) {
            EXPECT_EQ(logInode(".1"), seen) << "rotation " << rotations + 1 << " did not move .0 to .1";
        }
        EXPECT_EQ(logInode(".2"), 0u);
        seen = logInode(".0");
        if (rotations++ > 0) {
            Stamps newest;
            // A call's last trace lines may follow its reply; a slow (sanitized) daemon
            // writes them a moment after the caller returned.
            waitFor([&] {
                newest = stampsIn({".0", ""}, tags);
                for (const auto& [pid, count] : calls)
                    if (newest[pid].size() < count * perCall[pid])
                        return false;
                return true;
            });
            for (const auto& [pid, count] : calls) {
                EXPECT_GE(newest[pid].size(), count * perCall[pid]) << "pid " << pid << " lost lines";
                EXPECT_TRUE(std::is_sorted(newest[pid].begin(), newest[pid].end())) << "pid " << pid << " out of order";
            }
        }
        calls.clear();
    }
}

// The log folder is 0755: any user may open and lock it. The log file itself is ours
// alone, so nobody else can take the lock rotation uses; and a line never waits for it.
TEST_F(DaemonFiles, AStrangersLockOnTheLogFolderNeitherStallsNorStopsRotation)
{
    const std::string folder = std::filesystem::path(Paths::kLogPath).parent_path();
    // An older version left the log readable by others; the daemon takes that away.
    std::ofstream(Paths::kLogPath) << "";
    ASSERT_EQ(chmod(Paths::kLogPath, 0644), 0);
    Stranger folderLock(lockAsNobody(folder, LOCK_EX));
    ASSERT_TRUE(folderLock) << "needs root to play uid nobody";
    ASSERT_EQ(run({daemonBinary(), "-m", kMac, "-l", "8"}).status, 0);
    ASSERT_TRUE(waitFor([] { return answers(kMac); }));
    EXPECT_EQ(modeOf(Paths::kLogPath), 0640u);
    EXPECT_FALSE(Stranger(lockAsNobody(Paths::kLogPath, LOCK_SH))) << "a stranger could lock the log file";

    const std::string archive = std::string(Paths::kLogPath) + ".0";
    int rotations = 0;
    auto begin = std::chrono::steady_clock::now();
    for (ino_t seen = inodeOf(archive); rotations < 2 && std::chrono::steady_clock::now() - begin < 60s;) {
        ASSERT_EQ(sessionCall(kMac, "ping", "{}", -1, 5).rc, 0) << "a call stalled after " << rotations << " rotations";
        if (inodeOf(archive) != seen) {
            seen = inodeOf(archive);
            ++rotations;
        }
    }
    EXPECT_EQ(rotations, 2);
}

TEST_F(DaemonFiles, NotifiesReadyOnlyWhenServingThenSessionStatusAndStopping)
{
    NotifySocket manager;
    ASSERT_TRUE(manager.bound());
    Devsim device("legacy", false);
    Daemon daemon(kMac, {}, daemonBinary(), {}, {manager.env()});
    ASSERT_EQ(manager.next(), "READY=1");
    EXPECT_TRUE(answers(kMac)) << "READY=1 before the bus answers";
    ASSERT_EQ(daemon.call("signin", device.signinArgs()).rc, 0);
    EXPECT_EQ(manager.next().rfind("STATUS=signed in to legacy device 127.0.0.1:", 0), 0u);
    daemon.process().signal(SIGTERM);
    EXPECT_EQ(manager.next(), "STOPPING=1");
    // The legacy family keeps its session id after the sign-out; the status must not.
    EXPECT_EQ(manager.next(), "STATUS=signed out") << "the shutdown's sign-out";
    EXPECT_EQ(daemon.process().wait(), 0);
}

// Only a daemon in the foreground is a unit's process: one that detached must not speak
// for whoever started it, nor keep the socket's name around.
TEST_F(DaemonFiles, DetachedDaemonDropsTheNotifySocketItInherited)
{
    NotifySocket manager;
    ASSERT_TRUE(manager.bound());
    ASSERT_EQ(run({daemonBinary(), "-m", kMac}, {manager.env()}).status, 0);
    ASSERT_TRUE(waitFor([] { return answers(kMac); }));
    EXPECT_EQ(manager.next(1000), "") << "the detached daemon notified";
    const pid_t pid = lockHolder(kMac);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(readFile("/proc/" + std::to_string(pid) + "/environ").find("NOTIFY_SOCKET="), std::string::npos);
}

// The device password lives in the daemon's memory. A root process without capabilities
// (as the unit runs the daemon) may not read another session's memory, and the fault
// that switching the syslog server on causes leaves no core file holding it.
TEST_F(DaemonFiles, NeitherACapabilityLessRootProcessNorACoreFileSeesTheSessionsMemory)
{
    const std::string secret = "core-secret-4711";
    Devsim device("token", false, {"--pass", secret});
    TempDir cwd, out;
    // In the foreground the daemon keeps its working directory, where a core lands when
    // core_pattern is a plain file name.
    std::string command = "ulimit -c unlimited && cd " + cwd.path() + " && exec";
    for (const std::string& word : withoutCapabilities())
        command += " " + word;
    Child daemon(Spawn{{"/bin/sh", "-c", command + " " + daemonBinary() + " -d -m " + kMac}, {}, "", out.file("err")});
    ASSERT_TRUE(waitFor([] { return answers(kMac); })) << readFile(out.file("err"));
    ASSERT_EQ(sessionCall(kMac, "signin", device.signinArgs(secret)).rc, 0);

    const std::string proc = "/proc/" + std::to_string(lockHolder(kMac));
    const int reader = inChild([&] {
        if (!dropCapabilities())
            _exit(3);
        for (const char* entry : {"/mem", "/environ"})
            if (open((proc + entry).c_str(), O_RDONLY) >= 0)
                _exit(entry[1] == 'm' ? 1 : 2);
        _exit(0);
    });
    EXPECT_EQ(reader, 0) << "1: memory readable, 2: environment readable, 3: capabilities not dropped";

    sessionCall(kMac, "set_device_rsyslog_server_config", R"({"enable":true,"tcp_enable":true})");
    EXPECT_NE(daemon.wait(), 0) << "the pack fault ends the process";
    for (const auto& entry : std::filesystem::directory_iterator(cwd.path()))
        EXPECT_EQ(readFile(entry.path()).find(secret), std::string::npos) << entry.path() << " holds the password";
    // A pattern without a path (not a pipe either) puts cores into the working directory.
    const std::string pattern = readFile("/proc/sys/kernel/core_pattern");
    if (pattern.find_first_of("|/") == std::string::npos) {
        EXPECT_TRUE(std::filesystem::is_empty(cwd.path())) << "a core was written";
    }
}

}  // namespace
}  // namespace Orvex::Test
