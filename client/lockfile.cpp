#include "client/lockfile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "common/misc.h"

namespace Orvex {

namespace {

std::string message(const char* format, const std::string& path)
{
    return strformat(format, path.c_str());
}

uid_t ownerOf(pid_t pid)
{
    struct stat st{};
    if (::stat(("/proc/" + std::to_string(pid)).c_str(), &st) != 0)
        return static_cast<uid_t>(-1);
    return st.st_uid;
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
    // Non-blocking, so that a FIFO planted under the name cannot stall the open.
    fd_.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
    if (!fd_) {
        if (errno == ELOOP)
            throw LockError(message("orvex-session lock file %s is a symbolic link, refused.\n", path));
        throw LockError(message("orvex-session create pid file %s fail.\n", path));
    }
    struct stat st{};
    if (::fstat(fd_.get(), &st) != 0 || !S_ISREG(st.st_mode))
        throw LockError(message("orvex-session lock file %s is not a regular file, refused.\n", path));
    if (st.st_uid != ::geteuid())
        throw LockError(strformat("orvex-session lock file %s belongs to uid %u, refused.\n", path.c_str(),
            static_cast<unsigned>(st.st_uid)));
    if (::flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
        pid_t holder = flockHolder(st.st_dev, st.st_ino);
        uid_t holderUid = holder > 0 ? ownerOf(holder) : ::geteuid();
        if (holderUid != ::geteuid() && holderUid != static_cast<uid_t>(-1))
            throw LockError(strformat("orvex-session lock file %s is held by pid %d of uid %u, refused.\n",
                path.c_str(), static_cast<int>(holder), static_cast<unsigned>(holderUid)));
        char running[33] = {0};
        if (::pread(fd_.get(), running, 32, 0) < 0)
            running[0] = '\0';
        throw LockError(strformat("orvex-session daemon is running (%s).\n", running));
    }
    if (::ftruncate(fd_.get(), 0) != 0)
        throw LockError(message("orvex-session create pid file %s fail.\n", path));
    fdprintf(fd_.get(), "%d", static_cast<int>(::getpid()));
}

LockFile::~LockFile()
{
    ::flock(fd_.get(), LOCK_UN);
}

}  // namespace Orvex
