// The session processes of this machine as seen from outside, without calling them (a
// call would count as use and reset their idle clock): one entry per lock file, its
// state from the lock (held or not, through /proc/locks) and details from the status
// file that the process keeps. A session that no longer runs shows how it ended, as its
// status file's last record says; one whose file has no such record vanished (a crash
// or a kill). A lock file without a status file (never kept, or forgotten) is no entry.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "client/status_file.h"
#include "common/raii.h"

namespace Orvex {

// Stopped: by signout or a stop signal; Ended: it ended itself (idle, dead session, a
// session error, a failed sign-in); Crashed: a fatal signal, or gone without a record.
enum class SessionState { Running, StaleBinary, Stopped, Ended, Crashed };

struct SessionInfo {
    std::string mac;
    pid_t pid = 0;            // the holder of the lock, else the pid of the status file
    SessionState state = SessionState::Crashed;
    bool suspended = false;   // running but stopped by a signal (SIGSTOP), so it cannot answer
    long uptime = -1;         // seconds since start; -1 when unknown
    bool hasStatus = false;   // status below read from the status file of this very process
    StatusRecord status;
    // Not running: when it ended (for a crash without a record: the last sign of life),
    // why, and whether that is abnormal (anything but a stop or an idle end).
    time_t ended = 0;
    std::string reason;
    bool abnormal = false;

    bool running() const { return state == SessionState::Running || state == SessionState::StaleBinary; }
};

// "running", "stale binary", "stopped", "ended" or "crashed".
const char* stateName(SessionState state);

// Every session with a lock file, sorted by MAC.
std::vector<SessionInfo> listSessions();
// The session of one MAC; false when there is none to show.
bool findSession(const std::string& mac, SessionInfo& info);

// Removes what is left of a session that no process holds (its status file; the lock
// file stays where the daemon expects it). Running: nothing done.
enum class Forget { Forgotten, Running, Unknown };
Forget forgetSession(const std::string& mac);

// After a stop had to kill pid (SIGKILL leaves the process no word): when the MAC's status
// file is that process's and tells no end, it records the stop with this reason.
void recordKilled(const std::string& mac, pid_t pid, const std::string& reason);

// True when pid runs the daemon program (by its file, also after the file was replaced or
// removed; by its name where the file is hidden from us), with every user id root or ours:
// the users whose listeners the bus trusts. A copy run by anyone else is not a session of
// ours.
bool isSessionProcess(pid_t pid);

// One session process as it was found, so that every signal reaches that very process or
// none: it holds a pidfd taken while the process was a session (and its start time, for
// kernels without pidfds), and checks again before each signal that the process still
// runs the daemon program. Move-only.
class SessionProcess {
public:
    // Empty unless pid is a session process now.
    static SessionProcess find(pid_t pid);

    explicit operator bool() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }
    // False once the process found has ended (a zombie has); a new process that took its
    // pid does not count.
    bool running() const;
    // Sends signo while the process found runs and is a session; false when not sent.
    bool signal(int signo) const;

private:
    bool sameStart() const;

    pid_t pid_ = 0;
    unsigned long long start_ = 0;
    UniqueFd pidfd_;
};

}  // namespace Orvex
