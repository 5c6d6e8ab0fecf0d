// The files that name a fleet for the front end: a device file for starting many sessions,
// a file of MACs for calling many, and a root-only file of passwords; and a runner that
// works through many devices a few at a time.
//
// Files are read whole; one entry per line; blanks or commas separate the fields; '#'
// starts a comment; blank lines are skipped. Errors: FleetFileError naming the file, the
// line and the reason (never a password).
#pragma once

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace Orvex {

class FleetFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct DeviceEntry {
    std::string mac;  // normalised
    std::string ip;
    int port = 0;
    std::string user;
    bool secure = false;
};

// "MAC IP PORT USER [SECURE]" per line; SECURE is secure, https, yes, true or 1 (or plain,
// http, no, false, 0; plain when left out). A MAC may appear once.
std::vector<DeviceEntry> readDeviceFile(const std::string& path);
// The first field of each line: a file of MACs, or a device file. A MAC may appear once.
std::vector<std::string> readMacFile(const std::string& path);
// "MAC PASSWORD" per line, the password being the rest of the line after the blanks that
// follow the MAC (no comments after it). The file must be a regular file of our own user
// that nobody else may read or write.
std::map<std::string, std::string> readPasswordFile(const std::string& path);

// Runs job(0) ... job(count - 1) on at most `parallel` threads at once, each index once;
// returns when all are done. job must not throw.
void forEachParallel(size_t count, int parallel, const std::function<void(size_t)>& job);

}  // namespace Orvex
