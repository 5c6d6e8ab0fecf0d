#include "common/shared_log.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <Poco/Exception.h>
#include <Poco/Message.h>
#include <Poco/Path.h>

#include "common/paths.h"

namespace Orvex {

namespace {

constexpr off_t kSessionRotateBytes = 100 * 1024;  // "100 K"
constexpr int kSessionPurgeCount = 2;

[[noreturn]] void fail(const std::string& path, const std::string& reason)
{
    throw Poco::FileException(path + ": " + reason);
}

std::string baseName(const std::string& path)
{
    return Poco::Path(path).getFileName();
}

std::string folderName(const std::string& path)
{
    return Poco::Path(path).parent().toString();
}

// Our own folder, created if missing; a folder an older version left writable by
// others is tightened, since anyone could otherwise replace the log in it.
void prepareFolder(const std::string& folder)
{
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST)
        fail(folder, std::strerror(errno));
    struct stat st{};
    if (::lstat(folder.c_str(), &st) != 0)
        fail(folder, std::strerror(errno));
    if (!S_ISDIR(st.st_mode))
        fail(folder, "not a directory");
    if (st.st_uid == ::geteuid() && (st.st_mode & 0022) != 0)
        ::chmod(folder.c_str(), 0755);
}

}  // namespace

SharedLogChannel::SharedLogChannel(std::string path, off_t rotateBytes, int purgeCount)
    : path_(std::move(path)), rotateBytes_(rotateBytes), purgeCount_(purgeCount)
{
}

SharedLogChannel::~SharedLogChannel() = default;

void SharedLogChannel::open()
{
    Poco::FastMutex::ScopedLock lock(mutex_);
    if (!file_)
        openFile();
}

void SharedLogChannel::close()
{
    Poco::FastMutex::ScopedLock lock(mutex_);
    file_.reset();
    folder_.reset();
}

void SharedLogChannel::openFile()
{
    if (!folder_) {
        folder_.reset(::open(folderName(path_).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!folder_)
            fail(folderName(path_), std::strerror(errno));
    }
    // Non-blocking so that a FIFO planted under the name cannot stall the open.
    UniqueFd fd(::openat(folder_.get(), baseName(path_).c_str(),
        O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0640));
    if (!fd)
        fail(path_, errno == ELOOP ? "is a symbolic link" : std::strerror(errno));
    struct stat st{};
    if (::fstat(fd.get(), &st) != 0)
        fail(path_, std::strerror(errno));
    if (!S_ISREG(st.st_mode))
        fail(path_, "not a regular file");
    if (st.st_uid != ::geteuid())
        fail(path_, "owned by uid " + std::to_string(st.st_uid));
    // Not readable by others either: whoever can open the file can lock it.
    if ((st.st_mode & 0027) != 0)
        ::fchmod(fd.get(), st.st_mode & 0750);
    file_ = std::move(fd);
}

bool SharedLogChannel::renamedAway() const
{
    struct stat atPath{}, open{};
    if (::fstatat(folder_.get(), baseName(path_).c_str(), &atPath, AT_SYMLINK_NOFOLLOW) != 0)
        return true;
    if (::fstat(file_.get(), &open) != 0)
        return true;
    return atPath.st_ino != open.st_ino || atPath.st_dev != open.st_dev;
}

void SharedLogChannel::rotate()
{
    // The lock is the log file's own, which only our user and group can open: nobody else
    // can hold it. Whoever takes it first rotates; the others do not wait but write on,
    // and their next line finds the file renamed and reopens.
    const int held = file_.get();
    if (::flock(held, LOCK_EX | LOCK_NB) != 0)
        return;
    struct stat st{};
    if (!renamedAway() && ::fstat(held, &st) == 0 && st.st_size >= rotateBytes_) {
        std::string base = baseName(path_);
        for (int i = purgeCount_ - 1; i >= 1; --i) {
            std::string from = base + "." + std::to_string(i - 1), to = base + "." + std::to_string(i);
            ::renameat(folder_.get(), from.c_str(), folder_.get(), to.c_str());
        }
        ::unlinkat(folder_.get(), (base + "." + std::to_string(purgeCount_)).c_str(), 0);
        ::renameat(folder_.get(), base.c_str(), folder_.get(), (base + ".0").c_str());
    }
    ::flock(held, LOCK_UN);
    try {
        openFile();
    } catch (const Poco::Exception&) {
        // Keep the descriptor we have: a line in the archive beats a lost line.
    }
}

void SharedLogChannel::log(const Poco::Message& message)
{
    Poco::FastMutex::ScopedLock lock(mutex_);
    try {
        if (!file_ || renamedAway())
            openFile();
    } catch (const Poco::Exception&) {
        // Logging never fails the caller: keep the old file, or drop the line.
        if (!file_)
            return;
    }
    std::string line = message.getText();
    line += '\n';
    // One write per line: O_APPEND keeps lines of different processes whole.
    if (::write(file_.get(), line.data(), line.size()) < 0)
        return;
    struct stat st{};
    if (::fstat(file_.get(), &st) == 0 && st.st_size >= rotateBytes_)
        rotate();
}

Poco::AutoPtr<SharedLogChannel> openSessionLog()
{
    prepareFolder(folderName(Paths::kLogPath));
    Poco::AutoPtr<SharedLogChannel> channel(new SharedLogChannel(Paths::kLogPath, kSessionRotateBytes, kSessionPurgeCount));
    channel->open();
    return channel;
}

std::vector<std::string> sessionLogFiles()
{
    std::vector<std::string> files;
    for (int i = kSessionPurgeCount - 1; i >= 0; --i)
        files.push_back(std::string(Paths::kLogPath) + "." + std::to_string(i));
    files.push_back(Paths::kLogPath);
    return files;
}

}  // namespace Orvex
