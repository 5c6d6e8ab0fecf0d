// The session processes of this machine as seen from outside, without calling them (a
// call would count as use and reset their idle clock): one entry per lock file, its
// state from the lock (held or not, through /proc/locks) and details from the status
// file that the process keeps.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "client/status_file.h"

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

// True when pid runs the daemon program (also after its file was replaced or removed).
bool isSessionProcess(pid_t pid);
// True when pid is gone or only a zombie.
bool processGone(pid_t pid);

}  // namespace Orvex
