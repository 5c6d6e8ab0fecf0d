// Facts about a process from /proc. Its state, start time, user ids and name are open to
// every user; its program file needs privilege over it (the same user and capabilities,
// or CAP_SYS_PTRACE). A pid names a process only until that process is reaped: a caller
// that acts on one later compares the start time, or holds a pidfd.
#pragma once

#include <sys/types.h>

#include <string>

namespace Orvex {
namespace Proc {

struct Stat {
    char state = '\0';             // 'R', 'S', 'T', 'Z', ... of /proc/PID/stat
    unsigned long long start = 0;  // start time, clock ticks after boot
};

// False when the process is gone.
bool stat(pid_t pid, Stat& out);
// True when pid is gone or only a zombie.
bool gone(pid_t pid);
// True when the real, effective, saved and file-system user ids of pid are all uid
// (/proc/PID/status; the owner of /proc/PID is root for any process that is not dumpable).
bool runsAs(pid_t pid, uid_t uid);
// The effective user id, or (uid_t)-1 when the process is gone.
uid_t effectiveUid(pid_t pid);
// The process name (/proc/PID/comm, at most 15 bytes), "" when gone.
std::string name(pid_t pid);
// The program file (the /proc/PID/exe link, " (deleted)" removed), "" when it cannot be
// read; deleted is set when the file was removed or replaced since the process started.
std::string program(pid_t pid, bool* deleted = nullptr);

}  // namespace Proc
}  // namespace Orvex
