#include "client/fleet.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include <Poco/Path.h>

#include "common/paths.h"
#include "common/proc.h"
#include "common/raii.h"
#include "client/lockfile.h"

namespace Orvex {

namespace {

// The lock folder and the name around the MAC, split from the one lock-file format.
struct LockName {
    std::string folder, prefix, suffix;
    LockName()
    {
        std::string sample = Paths::lockPath("@");
        size_t slash = sample.rfind('/');
        folder = sample.substr(0, slash);
        std::string name = sample.substr(slash + 1);
        size_t at = name.find("@@");
        prefix = name.substr(0, at + 1);
        suffix = name.substr(at + 2);
    }
    bool macOf(const std::string& file, std::string& mac) const
    {
        if (file.size() <= prefix.size() + suffix.size() || file.compare(0, prefix.size(), prefix) != 0 ||
            file.compare(file.size() - suffix.size(), suffix.size(), suffix) != 0)
            return false;
        mac = file.substr(prefix.size(), file.size() - prefix.size() - suffix.size());
        return Paths::validMac(mac);
    }
};

const LockName& lockName()
{
    static const LockName name;
    return name;
}

bool binaryReplaced(pid_t pid, const StatusRecord& status)
{
    bool deleted = false;
    Proc::program(pid, &deleted);
    if (deleted)
        return true;
    struct stat st{};
    if (status.binary.empty() || ::stat(status.binary.c_str(), &st) != 0)
        return !status.binary.empty();
    return st.st_ino != status.binaryInode || st.st_mtime != status.binaryMtime;
}

time_t modified(const std::string& path)
{
    struct stat st{};
    return ::stat(path.c_str(), &st) == 0 ? st.st_mtime : 0;
}

// How a session that no longer runs ended, from the last record of its status file.
void describeEnd(SessionInfo& info)
{
    const StatusRecord& r = info.status;
    info.pid = r.pid;
    info.abnormal = r.end.empty() || r.abnormal;
    info.reason = r.reason;
    info.ended = r.ended;
    if (r.end == "stopped")
        info.state = SessionState::Stopped;
    else if (r.end == "ended")
        info.state = SessionState::Ended;
    else
        info.state = SessionState::Crashed;
    // Gone without a word: the file was last written at its last sign of life.
    if (r.end.empty())
        info.ended = modified(Paths::statusPath(info.mac));
}

bool inspect(const std::string& mac, const LockHolders& holders, time_t now, SessionInfo& info)
{
    UniqueFd fd(::open(Paths::lockPath(mac).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st{};
    if (!fd || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    info = SessionInfo{};
    info.mac = mac;
    auto holder = holders.find({st.st_dev, st.st_ino});
    StatusRecord status;
    bool recorded = readStatus(mac, status);
    // A lock held by anything but a session process (or by nobody) means no session runs;
    // so does a lock file of another user than its holder's, such as one a stranger
    // planted and holds from a copy of the program.
    if (holder == holders.end() || Proc::gone(holder->second) || !isSessionProcess(holder->second) ||
        !Proc::runsAs(holder->second, st.st_uid)) {
        if (!recorded)
            return false;
        info.hasStatus = true;
        info.status = status;
        describeEnd(info);
        return true;
    }
    info.pid = holder->second;
    info.hasStatus = recorded && status.pid == info.pid;
    if (info.hasStatus)
        info.status = status;
    info.state = info.hasStatus && binaryReplaced(info.pid, status) ? SessionState::StaleBinary : SessionState::Running;
    Proc::Stat current;
    info.suspended = Proc::stat(info.pid, current) && current.state == 'T';
    if (info.hasStatus && status.started > 0)
        info.uptime = static_cast<long>(now - status.started);
    return true;
}

}  // namespace

const char* stateName(SessionState state)
{
    switch (state) {
    case SessionState::Running:
        return "running";
    case SessionState::StaleBinary:
        return "stale binary";
    case SessionState::Stopped:
        return "stopped";
    case SessionState::Ended:
        return "ended";
    case SessionState::Crashed:
        break;
    }
    return "crashed";
}

bool isSessionProcess(pid_t pid)
{
    // Only root's or our own: a copy run by anyone else is not a session of ours.
    if (!Proc::runsAs(pid, 0) && !Proc::runsAs(pid, ::geteuid()))
        return false;
    // The program file shows only to those who may trace the process (the daemon is not
    // dumpable): without that right its name tells.
    std::string program = Proc::program(pid);
    return (program.empty() ? Proc::name(pid) : Poco::Path(program).getFileName()) == Paths::kServicePrefix;
}

SessionProcess SessionProcess::find(pid_t pid)
{
    SessionProcess found;
    Proc::Stat st;
    if (pid <= 0 || !Proc::stat(pid, st))
        return found;
    found.pid_ = pid;
    found.start_ = st.start;
    // Taken before the checks, so that they are about the process the pidfd refers to:
    // it still runs afterwards, so it is the one that had the pid while they ran. (The
    // system call: Debian 12's <sys/pidfd.h> lacks the C linkage for C++.)
    found.pidfd_.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    if (!isSessionProcess(pid) || !found.running())
        return SessionProcess();
    return found;
}

bool SessionProcess::sameStart() const
{
    Proc::Stat st;
    return Proc::stat(pid_, st) && st.start == start_ && st.state != 'Z' && st.state != 'X';
}

bool SessionProcess::running() const
{
    if (pid_ <= 0)
        return false;
    if (!pidfd_)
        return sameStart();
    // A pidfd turns readable when its process ends, whoever has the pid since.
    pollfd ended{pidfd_.get(), POLLIN, 0};
    return ::poll(&ended, 1, 0) == 0 && sameStart();
}

bool SessionProcess::signal(int signo) const
{
    if (!running() || !isSessionProcess(pid_))
        return false;
    if (pidfd_)
        return ::syscall(SYS_pidfd_send_signal, pidfd_.get(), signo, nullptr, 0) == 0;
    // Without a pidfd the pid might change hands between the check and the signal; the
    // start time checked just before leaves that window as small as it gets.
    return ::kill(pid_, signo) == 0;
}

std::vector<SessionInfo> listSessions()
{
    std::vector<SessionInfo> sessions;
    std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(lockName().folder.c_str()), &::closedir);
    if (!folder)
        return sessions;
    LockHolders holders = flockHolders();
    time_t now = ::time(nullptr);
    while (dirent* entry = ::readdir(folder.get())) {
        std::string mac;
        SessionInfo info;
        if (lockName().macOf(entry->d_name, mac) && inspect(mac, holders, now, info))
            sessions.push_back(std::move(info));
    }
    std::sort(sessions.begin(), sessions.end(),
        [](const SessionInfo& a, const SessionInfo& b) { return a.mac < b.mac; });
    return sessions;
}

bool findSession(const std::string& mac, SessionInfo& info)
{
    return inspect(mac, flockHolders(), ::time(nullptr), info);
}

Forget forgetSession(const std::string& mac)
{
    SessionInfo info;
    if (!findSession(mac, info))
        return Forget::Unknown;
    if (info.running())
        return Forget::Running;
    removeStatus(mac);
    return Forget::Forgotten;
}

void recordKilled(const std::string& mac, pid_t pid, const std::string& reason)
{
    StatusRecord record;
    if (!readStatus(mac, record) || record.pid != pid || !record.end.empty())
        return;
    record.signedIn = false;
    record.end = "stopped";
    record.abnormal = false;
    record.reason = reason;
    record.ended = ::time(nullptr);
    writeStatus(record);
}

}  // namespace Orvex
