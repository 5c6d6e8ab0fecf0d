// The daemon process on its own: lock and log files that an attacker prepared, the
// modes of what it creates, the log shared with other sessions across rotations, and the
// notifications to a service manager.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>

#include "common/paths.h"
#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

const std::string kMac = "00:11:22:33:44:55";
constexpr uid_t kNobody = 65534;

// A process of uid nobody that holds a shared flock on path until killed.
pid_t holdLockAsNobody(const std::string& path)
{
    int ready[2];
    if (pipe(ready) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        int fd = open(path.c_str(), O_RDONLY);
        if (setgid(kNobody) != 0 || setuid(kNobody) != 0 || fd < 0 || flock(fd, LOCK_SH) != 0)
            _exit(1);
        (void)!write(ready[1], "x", 1);
        pause();
        _exit(0);
    }
    char c;
    close(ready[1]);
    bool held = read(ready[0], &c, 1) == 1;
    close(ready[0]);
    return held ? pid : -1;
}

std::string linkOf(const std::string& path)
{
    std::error_code error;
    return std::filesystem::read_symlink(path, error).string();
}

void endProcess(pid_t pid)
{
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

class DaemonFiles : public ::testing::Test {
protected:
    void SetUp() override { ORVEX_REQUIRE_ISOLATION(); }
    void TearDown() override { killSessions(); }
};

TEST_F(DaemonFiles, LockFileRefusesLinksFifosAndFilesOfOtherUsers)
{
    const std::string lock = lockPath(kMac);
    TempDir dir;
    const std::string victim = dir.file("victim");
    std::ofstream(victim) << "precious";

    ASSERT_EQ(symlink(victim.c_str(), lock.c_str()), 0);
    RunResult linked = run({daemonBinary(), "-d", "-m", kMac});
    EXPECT_EQ(linked.status, 1);
    EXPECT_EQ(linked.err, "orvex-session lock file " + lock + " is a symbolic link, refused.\n");
    EXPECT_EQ(readFile(victim), "precious");
    unlink(lock.c_str());

    ASSERT_EQ(mkfifo(lock.c_str(), 0644), 0);
    RunResult fifo = run({daemonBinary(), "-d", "-m", kMac});
    EXPECT_EQ(fifo.status, 1) << "a FIFO must not stall the start";
    EXPECT_EQ(fifo.err, "orvex-session lock file " + lock + " is not a regular file, refused.\n");
    unlink(lock.c_str());

    std::ofstream(lock) << "1";
    ASSERT_EQ(chown(lock.c_str(), kNobody, kNobody), 0);
    RunResult foreign = run({daemonBinary(), "-d", "-m", kMac});
    EXPECT_EQ(foreign.status, 1);
    EXPECT_EQ(foreign.err, "orvex-session lock file " + lock + " belongs to uid 65534, refused.\n");
    ASSERT_EQ(chown(lock.c_str(), 0, 0), 0);

    chmod(lock.c_str(), 0644);
    pid_t holder = holdLockAsNobody(lock);
    ASSERT_GT(holder, 0);
    RunResult held = run({daemonBinary(), "-d", "-m", kMac});
    endProcess(holder);
    EXPECT_EQ(held.status, 1);
    EXPECT_EQ(held.err, "orvex-session lock file " + lock + " is held by pid " + std::to_string(holder) +
                            " of uid 65534, refused.\n");

    // With the traps gone the daemon starts; a longer stale pid left in the file is
    // replaced whole, so a second instance names the one that runs.
    std::ofstream(lock, std::ios::trunc) << "99999999";
    Daemon daemon(kMac);
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    const std::string pid = std::to_string(daemon.process().pid());
    EXPECT_EQ(readFile(lock), pid);
    EXPECT_EQ(run({daemonBinary(), "-d", "-m", kMac}).err, "orvex-session daemon is running (" + pid + ").\n");
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
    auto inodeOf = [](const std::string& suffix) {
        struct stat st{};
        return stat((std::string(Paths::kLogPath) + suffix).c_str(), &st) == 0 ? st.st_ino : 0;
    };
    std::map<std::string, size_t> calls;
    int rotations = 0;
    for (ino_t seen = inodeOf(".0"); rotations < 4;) {
        for (const std::string& mac : macs) {
            ASSERT_EQ(sessionCall(mac, "ping").rc, 0);
            ++calls[std::to_string(lockHolder(mac))];
        }
        if (inodeOf(".0") == seen)
            continue;
        // The archive before moved on to .1; nothing older than .1 is kept.
        if (seen != 0) {
            EXPECT_EQ(inodeOf(".1"), seen) << "rotation " << rotations + 1 << " did not move .0 to .1";
        }
        EXPECT_EQ(inodeOf(".2"), 0u);
        seen = inodeOf(".0");
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

TEST_F(DaemonFiles, NotifiesReadyOnlyWhenServingThenSessionStatusAndStopping)
{
    TempDir dir;
    NotifySocket manager(dir.file("notify"));
    ASSERT_TRUE(manager.bound());
    Devsim device("legacy", false);
    Child daemon(Spawn{{daemonBinary(), "-d", "-m", kMac}, {"NOTIFY_SOCKET=" + dir.file("notify")}, "", "", false});
    ASSERT_EQ(manager.next(), "READY=1");
    EXPECT_TRUE(answers(kMac)) << "READY=1 before the bus answers";
    ASSERT_EQ(sessionCall(kMac, "signin", device.signinArgs()).rc, 0);
    EXPECT_EQ(manager.next().rfind("STATUS=signed in to legacy device 127.0.0.1:", 0), 0u);
    daemon.signal(SIGTERM);
    EXPECT_EQ(manager.next(), "STOPPING=1");
    // The legacy family keeps its session id after the sign-out; the status must not.
    EXPECT_EQ(manager.next(), "STATUS=signed out") << "the shutdown's sign-out";
    EXPECT_EQ(daemon.wait(), 0);
}

}  // namespace
}  // namespace Orvex::Test
