// The per-device lock file "/var/lock/orvex-session@MAC.pid": held (flock, exclusive) for
// the life of the process, holding our pid ("%d", no newline). The file stays after
// release.
//
// Taking it never follows a link, never opens anything but a regular file owned by our
// user, never blocks, and truncates only once the lock is held. What a stranger put or
// holds at the name (a link, a FIFO, a file of another user, our file locked by another
// user) is never used: it is swapped out for a new file of ours, so that no stranger can
// keep a MAC from starting. Session processes take their lock files one at a time (a
// guard in the status folder), so that this swap never removes another one's lock.
#pragma once

#include <sys/types.h>

#include <map>
#include <stdexcept>
#include <string>

#include "common/raii.h"

namespace Orvex {

// Why the lock could not be taken; what() is the one-line message for standard error.
class LockError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class LockFile {
public:
    // Takes the lock at path or throws LockError ("daemon is running" when a process of
    // our user holds it; a refusal when a stranger's thing is there and cannot be swapped).
    explicit LockFile(const std::string& path);
    ~LockFile();
    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;

    const std::string& path() const { return path_; }
    // The one-line message naming what was swapped out, "" when the file was ours.
    const std::string& replaced() const { return replaced_; }

private:
    // Takes our own free file at the path; else returns why the thing there is not ours.
    std::string take();
    bool claim();
    bool replace();

    std::string path_;
    std::string replaced_;
    UniqueFd fd_;
};

// Processes holding an flock, by the locked file's device and inode, from /proc/locks
// (read without taking or disturbing any lock).
using LockHolders = std::map<std::pair<dev_t, ino_t>, pid_t>;
LockHolders flockHolders();
// The process holding an flock on the file with this device and inode, from /proc/locks
// (which is read without taking or disturbing any lock); 0 when none.
pid_t flockHolder(dev_t device, ino_t inode);

}  // namespace Orvex
