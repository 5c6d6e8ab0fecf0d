#include "client/lockfile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include "common/misc.h"
#include "common/paths.h"
#include "common/proc.h"

namespace Orvex {

namespace {

// Other session processes hold the guard for microseconds; one stopped while it held it
// must not keep the MAC from starting forever.
constexpr std::chrono::seconds kGuardWait{5};

// Serialises the taking of lock files among this machine's session processes, so that
// one of them putting its own file in place of a stranger's never replaces the file
// another one has just taken. The guard lives in the status folder, which only our user
// may write, so no stranger can open, plant or hold it. Not held (false) when that folder
// is not ours: then a stranger's lock file is refused, not replaced.
class Guard {
public:
    Guard()
    {
        ::mkdir(Paths::kStatusDirectory, 0755);  // an unusable folder shows below
        UniqueFd folder(::open(Paths::kStatusDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        struct stat st{};
        if (!folder || ::fstat(folder.get(), &st) != 0 || st.st_uid != ::geteuid() || (st.st_mode & 0022) != 0)
            return;
        fd_.reset(::openat(folder.get(), Paths::kLockGuardName, O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
            0600));
        if (!fd_ || ::fstat(fd_.get(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != ::geteuid()) {
            fd_.reset();
            return;
        }
        auto deadline = std::chrono::steady_clock::now() + kGuardWait;
        while (::flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
            if (std::chrono::steady_clock::now() > deadline)
                throw LockError(strformat("orvex-session lock guard %s/%s stays locked, refused.\n",
                    Paths::kStatusDirectory, Paths::kLockGuardName));
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    explicit operator bool() const { return static_cast<bool>(fd_); }

private:
    UniqueFd fd_;
};

std::string refusal(const std::string& path, const std::string& reason)
{
    return strformat("orvex-session lock file %s %s, refused.\n", path.c_str(), reason.c_str());
}

// Why a file we could not open is not ours to use.
std::string unopenable(const std::string& path, int error)
{
    struct stat st{};
    if (error == ELOOP)
        return "is a symbolic link";
    if (error == EISDIR || error == ENXIO)
        return "is not a regular file";
    if (error == EACCES && ::lstat(path.c_str(), &st) == 0 && st.st_uid != ::geteuid())
        return strformat("belongs to uid %u", static_cast<unsigned>(st.st_uid));
    throw LockError(strformat("orvex-session create pid file %s fail.\n", path.c_str()));
}

// What is left at a temporary name after the swap: the stranger's link, FIFO, file or
// (empty) folder. A folder with content stays, under a name no lock file has.
void removeSwappedOut(const std::string& path)
{
    if (::unlink(path.c_str()) != 0 && errno == EISDIR)
        ::rmdir(path.c_str());
}

}  // namespace

LockHolders flockHolders()
{
    // "1: FLOCK  ADVISORY  WRITE 4711 00:1a:12345 0 EOF"; waiters carry "->" and are skipped.
    LockHolders holders;
    std::ifstream locks("/proc/locks");
    std::string line;
    while (std::getline(locks, line)) {
        if (line.find("->") != std::string::npos)
            continue;
        char kind[16];
        int pid = 0;
        unsigned devMajor = 0, devMinor = 0;
        unsigned long inode = 0;
        if (std::sscanf(line.c_str(), "%*d: %15s %*s %*s %d %x:%x:%lu", kind, &pid, &devMajor, &devMinor, &inode) == 5 &&
            std::strcmp(kind, "FLOCK") == 0)
            holders[{makedev(devMajor, devMinor), static_cast<ino_t>(inode)}] = pid;
    }
    return holders;
}

pid_t flockHolder(dev_t device, ino_t inode)
{
    LockHolders holders = flockHolders();
    auto found = holders.find({device, inode});
    return found == holders.end() ? 0 : found->second;
}

LockFile::LockFile(const std::string& path) : path_(path)
{
    Guard guard;
    std::string reason = take();
    if (reason.empty())
        return;
    if (!guard || !replace())
        throw LockError(refusal(path_, reason));
    replaced_ = strformat("orvex-session lock file %s %s: replaced by our own.\n", path_.c_str(), reason.c_str());
}

LockFile::~LockFile()
{
    ::flock(fd_.get(), LOCK_UN);
}

std::string LockFile::take()
{
    // Non-blocking, so that a FIFO planted under the name cannot stall the open.
    fd_.reset(::open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
    if (!fd_)
        return unopenable(path_, errno);
    struct stat st{};
    if (::fstat(fd_.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return "is not a regular file";
    if (st.st_uid != ::geteuid())
        return strformat("belongs to uid %u", static_cast<unsigned>(st.st_uid));
    if (::flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
        pid_t holder = flockHolder(st.st_dev, st.st_ino);
        uid_t holderUid = holder > 0 ? Proc::effectiveUid(holder) : ::geteuid();
        if (holderUid != ::geteuid() && holderUid != static_cast<uid_t>(-1))
            return strformat("is held by pid %d of uid %u", static_cast<int>(holder), static_cast<unsigned>(holderUid));
        char running[33] = {0};
        if (::pread(fd_.get(), running, 32, 0) < 0)
            running[0] = '\0';
        throw LockError(strformat("orvex-session daemon is running (%s).\n", running));
    }
    if (!claim())
        throw LockError(strformat("orvex-session create pid file %s fail.\n", path_.c_str()));
    return "";
}

bool LockFile::claim()
{
    if (::ftruncate(fd_.get(), 0) != 0)
        return false;
    fdprintf(fd_.get(), "%d", static_cast<int>(::getpid()));
    return true;
}

// A new file, locked and holding our pid before it gets the name, swapped in for whatever
// is there in one step: the name never leads to the stranger's thing while we hold it.
// Root may do so in the sticky lock folder, which it owns.
bool LockFile::replace()
{
    std::string temporary = path_ + ".XXXXXX";
    // mkostemp creates with O_EXCL under a name nobody could guess beforehand.
    fd_.reset(::mkostemp(&temporary[0], O_CLOEXEC));
    bool ready = fd_ && ::fchmod(fd_.get(), 0644) == 0 && ::flock(fd_.get(), LOCK_EX | LOCK_NB) == 0 && claim();
    if (ready && ::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, path_.c_str(), RENAME_EXCHANGE) == 0) {
        removeSwappedOut(temporary);
        return true;
    }
    // Nothing left to swap with (ENOENT), or a file system without exchange (EINVAL).
    if (ready && ::rename(temporary.c_str(), path_.c_str()) == 0)
        return true;
    ::unlink(temporary.c_str());
    fd_.reset();
    return false;
}

}  // namespace Orvex
