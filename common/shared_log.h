// A log file that several processes append to and rotate by size together.
//
// Each line is one O_APPEND write. Before each write the channel compares the file at the
// path with its open descriptor and reopens when another process has rotated it away, so
// no process keeps writing into an archive. Rotation happens under an flock on the log
// file itself, taken without waiting, by one process at a time: the current file becomes
// "<path>.0", older archives move up by one ("<path>.1" ...), and only purgeCount
// archives are kept, the names the library's FileChannel used with archive by number.
// A line never waits for a lock: a process that finds the file locked writes on.
//
// The file is opened without following links, must be a regular file owned by this
// process's user, and is created with mode 0640 (a file readable by others loses that
// bit, since whoever can open it can lock it). Thread-safe.
#pragma once

#include <Poco/Channel.h>
#include <Poco/Mutex.h>

#include <sys/types.h>

#include <string>
#include <vector>

#include "common/raii.h"

namespace Orvex {

class SharedLogChannel : public Poco::Channel {
public:
    // rotateBytes: size at which the file is rotated; purgeCount: archives kept.
    SharedLogChannel(std::string path, off_t rotateBytes, int purgeCount);

    // Throws Poco::FileException naming the path and the reason.
    void open() override;
    void close() override;
    void log(const Poco::Message& message) override;

    const std::string& path() const { return path_; }

protected:
    ~SharedLogChannel() override;

private:
    void openFile();
    bool renamedAway() const;
    void rotate();

    const std::string path_;
    const off_t rotateBytes_;
    const int purgeCount_;
    Poco::FastMutex mutex_;
    UniqueFd file_;
    UniqueFd folder_;
};

// The log folder (created 0755 if missing) and "orvexd.log" in it, rotated at 100 KiB
// with two archives, as every session process shares it.
Poco::AutoPtr<SharedLogChannel> openSessionLog();
// The files of that log in the order their lines were written: the oldest archive first,
// the current file last (whether they exist or not).
std::vector<std::string> sessionLogFiles();

}  // namespace Orvex
