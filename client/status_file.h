// The status file of a session process, "/run/orvex/orvex-session@MAC.status": one JSON
// object that the daemon replaces whole (temporary file + rename) whenever its session
// changes and on each keep-alive tick, and that front ends read instead of calling the
// process, so that looking does not count as use.
//
// The folder is created 0755 and must be a directory of our own user; files are 0644,
// never opened through a link. Nothing here throws: a status file is advisory.
//
// Text from the device is data of unknown size: each text field is stored as valid UTF-8
// (other bytes become '?') of at most kFieldLimit bytes, so a record stays a few KB
// whatever the device answers.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <string>

namespace Orvex {

constexpr size_t kFieldLimit = 256;

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
    bool systemd = false; // runs as an instance of the service manager's unit
    // How the process ended, written as its last record: end is "" while it runs, else
    // "stopped" (signout, SIGTERM, SIGINT), "ended" (it ended itself) or "crashed" (a fatal
    // signal); abnormal unless it was stopped or idle; reason in words; the time.
    std::string end;
    bool abnormal = false;
    std::string reason;
    time_t ended = 0;
};

// The record as the file holds it: one compact JSON object, text fields bounded.
std::string renderStatus(const StatusRecord& record);
// Writes the record to its MAC's path; false (and errno) on failure.
bool writeStatus(const StatusRecord& record);
// The record for the MAC; false when there is none or it does not parse.
bool readStatus(const std::string& mac, StatusRecord& record);
void removeStatus(const std::string& mac);

// "none", "token" or "legacy".
const char* familyName(int family);

}  // namespace Orvex
