#include "client/fleet.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include <Poco/Path.h>

#include "common/paths.h"
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

// The head of /proc/PID/stat: "PID (NAME) STATE ..."; "" when gone.
std::string statOf(pid_t pid)
{
    char path[64], buffer[512];
    std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
    ssize_t n = fd ? ::read(fd.get(), buffer, sizeof buffer - 1) : -1;
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
}

// State letter of /proc/PID/stat ('R', 'S', 'T', 'Z', ...), '\0' when gone.
char processState(pid_t pid)
{
    std::string stat = statOf(pid);
    size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 1] == ' ' ? stat[close + 2] : '\0';
}

// The process's name (its program file's, cut to 15 characters), readable for anyone's.
std::string processName(pid_t pid)
{
    std::string stat = statOf(pid);
    size_t open = stat.find('('), close = stat.rfind(')');
    return open != std::string::npos && close != std::string::npos && close > open ? stat.substr(open + 1, close - open - 1)
                                                                                    : "";
}

std::string exeOf(pid_t pid)
{
    char target[4096];
    ssize_t n = ::readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), target, sizeof target - 1);
    return n > 0 ? std::string(target, static_cast<size_t>(n)) : "";
}

bool binaryReplaced(pid_t pid, const StatusRecord& status)
{
    if (exeOf(pid).find(" (deleted)") != std::string::npos)
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
    // A lock held by anything but a session process (or by nobody) means no session runs.
    if (holder == holders.end() || processGone(holder->second) || !isSessionProcess(holder->second)) {
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
    info.suspended = processState(info.pid) == 'T';
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

bool processGone(pid_t pid)
{
    char state = processState(pid);
    return state == '\0' || state == 'Z' || state == 'X';
}

bool isSessionProcess(pid_t pid)
{
    std::string exe = exeOf(pid);
    // Another user's process shows its program file only to those who may trace it: its
    // name then tells.
    if (exe.empty())
        return errno == EACCES && processName(pid) == Paths::kServicePrefix;
    const std::string deleted = " (deleted)";
    if (exe.size() > deleted.size() && exe.compare(exe.size() - deleted.size(), deleted.size(), deleted) == 0)
        exe.erase(exe.size() - deleted.size());
    return !exe.empty() && Poco::Path(exe).getFileName() == Paths::kServicePrefix;
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
