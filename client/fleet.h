// The session processes of this machine as seen from outside, without calling them (a
// call would count as use and reset their idle clock): one entry per lock file, its
// state from the lock (held or not, through /proc/locks) and details from the status
// file that the process keeps.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "client/status_file.h"
#include "common/raii.h"

namespace Orvex {

enum class SessionState { Running, Exited, StaleBinary };

struct SessionInfo {
    std::string mac;
    pid_t pid = 0;            // the holder of the lock, else the pid left in the file
    SessionState state = SessionState::Exited;
    bool stopped = false;     // running but stopped by a signal (SIGSTOP), so it cannot answer
    long uptime = -1;         // seconds since start; -1 when unknown
    bool hasStatus = false;   // status below read from the status file of this very process
    StatusRecord status;
};

// "running", "exited" or "stale binary".
const char* stateName(SessionState state);

// Every session with a lock file, sorted by MAC.
std::vector<SessionInfo> listSessions();
// The session of one MAC; false when it has no lock file.
bool findSession(const std::string& mac, SessionInfo& info);

// True when pid runs the daemon program (by its file name, also after the file was
// replaced or removed), with every user id root or ours: the users whose listeners the
// bus trusts. A copy run by anyone else is not a session of ours.
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
