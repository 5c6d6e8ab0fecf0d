// The status file of a session process, "/run/orvex/orvex-session@MAC.status": one JSON
// object that the daemon replaces whole (temporary file + rename) whenever its session
// changes and on each keep-alive tick, and that front ends read instead of calling the
// process, so that looking does not count as use.
//
// The folder is created 0755 and must be a directory of our own user; files are 0644,
// never opened through a link. Nothing here throws: a status file is advisory.
#pragma once

#include <sys/types.h>

#include <ctime>
#include <string>

namespace Orvex {

struct StatusRecord {
    std::string mac;
    pid_t pid = 0;
    time_t started = 0;
    // The program file as it was when the process started; a replaced file is told apart
    // by its inode and modification time.
    std::string binary;
    unsigned long binaryInode = 0;
    time_t binaryMtime = 0;
    // The device session: 0 none, 1 token family, 2 legacy family.
    int family = 0;
    std::string host;
    unsigned port = 0;
    bool secure = false;
    std::string model, serial, firmware, hostname;
    bool signedIn = false;
    std::string failure;  // cause of the last failed sign-in, "" if none
    time_t lastUse = 0;   // 0: never used
};

// Writes the record to its MAC's path; false (and errno) on failure.
bool writeStatus(const StatusRecord& record);
// The record for the MAC; false when there is none or it does not parse.
bool readStatus(const std::string& mac, StatusRecord& record);
void removeStatus(const std::string& mac);

// "none", "token" or "legacy".
const char* familyName(int family);

}  // namespace Orvex
