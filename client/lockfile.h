// The per-device lock file "/var/lock/orvex-session@MAC.pid": held (flock, exclusive) for
// the life of the process, holding our pid ("%d", no newline). The file stays after
// release.
//
// Taking it never follows a link, never opens anything but a regular file owned by our
// user, never blocks, and truncates only once the lock is held.
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
    // Takes the lock at path or throws LockError.
    explicit LockFile(const std::string& path);
    ~LockFile();
    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;

    const std::string& path() const { return path_; }

private:
    std::string path_;
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
