// logs MAC [-n N] [-f]: one device's lines. A service manager's instance logs to the
// journal (unit orvex-session@MAC); every other session to the shared log, whose every
// line carries "[MAC PID]".
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "client/fleet.h"
#include "common/paths.h"
#include "common/raii.h"
#include "common/shared_log.h"
#include "tools/orvexctl/ctl.h"

namespace Orvex {
namespace ctl {

namespace {

constexpr std::chrono::milliseconds kFollowPause{200};

// Does not return unless journalctl cannot be run.
int showJournal(const Command& command)
{
    std::vector<std::string> words = {"journalctl", "--no-pager", "-u", Paths::serviceName(command.mac), "-n",
                                      std::to_string(command.lines)};
    if (command.follow)
        words.push_back("-f");
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(&word[0]);
    argv.push_back(nullptr);
    std::fflush(stdout);
    ::execvp(argv[0], argv.data());
    std::fprintf(stderr, "orvexctl: cannot run journalctl for %s: %s\n", command.mac.c_str(), std::strerror(errno));
    return kExitFailure;
}

// Our own reading of one log file: what is there now, then what comes (follow).
class LogReader {
public:
    LogReader(std::string tag, size_t keep) : tag_(std::move(tag)), keep_(keep) {}

    // False when the file is there but cannot be read; a missing file has no lines.
    bool open(const std::string& path)
    {
        fd_.reset(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
        if (!fd_ && errno != ENOENT)
            return false;
        partial_.clear();
        return true;
    }
    // Reads to the end, keeping or printing the lines of our device.
    void drain()
    {
        char buffer[65536];
        for (ssize_t n; fd_ && (n = ::read(fd_.get(), buffer, sizeof buffer)) > 0;)
            take(std::string(buffer, static_cast<size_t>(n)));
    }
    // Prints the last lines kept so far; from then on each line is printed as it is read.
    void printKept()
    {
        for (const std::string& line : kept_)
            std::fputs(line.c_str(), stdout);
        kept_.clear();
        collecting_ = false;
        std::fflush(stdout);
    }
    // True when the file at path is no longer the one we read (rotated).
    bool replaced(const std::string& path) const
    {
        struct stat atPath{}, ours{};
        if (::stat(path.c_str(), &atPath) != 0)
            return false;
        return !fd_ || ::fstat(fd_.get(), &ours) != 0 || ours.st_ino != atPath.st_ino || ours.st_dev != atPath.st_dev;
    }

private:
    void take(const std::string& bytes)
    {
        partial_ += bytes;
        for (size_t end; (end = partial_.find('\n')) != std::string::npos;) {
            std::string line = partial_.substr(0, end + 1);
            partial_.erase(0, end + 1);
            if (line.find(tag_) == std::string::npos)
                continue;
            if (!collecting_) {
                std::fputs(line.c_str(), stdout);
                std::fflush(stdout);
                continue;
            }
            kept_.push_back(line);
            if (kept_.size() > keep_)
                kept_.pop_front();
        }
    }

    std::string tag_;
    size_t keep_;
    bool collecting_ = true;
    UniqueFd fd_;
    std::string partial_;
    std::deque<std::string> kept_;
};

[[noreturn]] void unreadable(const std::string& path)
{
    std::string reason = std::strerror(errno);
    if (errno == EACCES)
        throw NeedsRoot("logs needs root to read " + path + ": " + reason);
    throw std::runtime_error("cannot read " + path + ": " + reason);
}

int showSharedLog(const Command& command)
{
    const std::vector<std::string> files = sessionLogFiles();
    const std::string& current = files.back();
    LogReader reader("[" + command.mac + " ", static_cast<size_t>(command.lines));
    for (const std::string& file : files) {
        if (!reader.open(file))
            unreadable(file);
        reader.drain();
    }
    reader.printKept();
    while (command.follow) {
        reader.drain();
        if (reader.replaced(current)) {
            // Rotated: what was written before the rename is in the file we hold.
            reader.drain();
            if (!reader.open(current))
                unreadable(current);
            continue;
        }
        std::this_thread::sleep_for(kFollowPause);
    }
    return kExitDone;
}

}  // namespace

int runLogs(const Command& command)
{
    SessionInfo info;
    if (findSession(command.mac, info) && info.hasStatus && info.status.systemd)
        return showJournal(command);
    return showSharedLog(command);
}

}  // namespace ctl
}  // namespace Orvex
