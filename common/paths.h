// The fixed names every part of the system agrees on: bus addresses, lock files, the
// daemon's install path, the shared log, the status files and the MAC expression.
// Each is written here once; everything else builds on these.
#pragma once

#include <string>

namespace Orvex {
namespace Paths {

// Directory that prefixes every bus address (abstract sockets start with '@').
constexpr const char* kBusDirectory = "/var/run/orvex";
// Service name prefix; a session process is "orvex-session@<mac>".
constexpr const char* kServicePrefix = "orvex-session";
// One lock file per MAC, holding the owner's pid ("%d", no newline).
constexpr const char* kLockFormat = "/var/lock/orvex-session@%s.pid";
// Where front ends launch the daemon from.
constexpr const char* kDaemonPath = "/usr/local/sbin/orvex-session";
// The log file every session process shares.
constexpr const char* kLogPath = "/var/log/orvex/orvexd.log";
// Directory of the per-session status files.
constexpr const char* kStatusDirectory = "/run/orvex";
// In that directory, which only root writes: the file whose flock serialises the taking of
// lock files among session processes.
constexpr const char* kLockGuardName = "lock-guard";
// Root-only folder of the devices' settings (orvexctl enable), one file per MAC.
constexpr const char* kConfigDirectory = "/etc/orvex";
// The name of the password credential that the unit hands the daemon (systemd's
// LoadCredential=/LoadCredentialEncrypted=), read from $CREDENTIALS_DIRECTORY.
constexpr const char* kCredentialName = "password";
// Where the template unit's per-instance drop-ins live.
constexpr const char* kUnitDirectory = "/etc/systemd/system";
// A MAC address after normalisation: six lower-case hex pairs joined by ':'.
constexpr const char* kMacPattern = "^([0-9a-f]{2}:){5}([0-9a-f]{2})$";

// "orvex-session@MAC"
std::string serviceName(const std::string& mac);
// "@/var/run/orvex/orvex-session@MAC"
std::string busAddress(const std::string& mac);
// "/var/lock/orvex-session@MAC.pid"
std::string lockPath(const std::string& mac);
// "/run/orvex/orvex-session@MAC.status"
std::string statusPath(const std::string& mac);
// "/etc/orvex/orvex-session@MAC.conf"
std::string configPath(const std::string& mac);
// The password as orvexctl stores it for the unit: "/etc/orvex/orvex-session@MAC.cred"
// (encrypted by systemd-creds) or "/etc/orvex/orvex-session@MAC.pass" (plain, root-only).
std::string credentialPath(const std::string& mac, bool encrypted);
// "orvex-session@MAC.service"
std::string unitName(const std::string& mac);
// "/etc/systemd/system/orvex-session@MAC.service.d", and its one file "credential.conf".
std::string dropInDirectory(const std::string& mac);
std::string dropInPath(const std::string& mac);
// Surrounding white space removed, letters lower-cased.
std::string normaliseMac(std::string text);
// True when mac matches kMacPattern exactly.
bool validMac(const std::string& mac);

}  // namespace Paths
}  // namespace Orvex
