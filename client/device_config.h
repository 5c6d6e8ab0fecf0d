// The settings of a device whose session process systemd keeps (orvexctl enable), shared by
// orvexctl, which writes them, and the daemon, which signs itself in with them: one JSON
// object {"mac","ip","port","user","secure","idle"} in "/etc/orvex/orvex-session@MAC.conf".
// The password is not in it: the unit hands it to the daemon as a credential, which
// orvexctl stores beside the settings (encrypted by systemd-creds where it can, else as a
// plain file). Everything here is root-only: the folder 0700, the files 0600 and of our
// own user, never opened through a link.
//
// Errors: ConfigError, whose message is one line naming the file and the reason (never the
// password).
#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "common/idle.h"

namespace Orvex {

class ConfigError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct DeviceConfig {
    std::string mac;
    std::string ip;
    int port = 0;
    std::string user;
    bool secure = false;
    long idleSeconds = Idle::kDefaultSeconds;  // 0: never idle
};

// Replaces the MAC's settings file whole (temporary file, then rename), creating the folder.
void writeDeviceConfig(const DeviceConfig& config);
// False when the MAC has no settings file; ConfigError when there is one that cannot be
// used: a link, not a regular file, not ours, readable by others, or not a valid object
// for this MAC.
bool readDeviceConfig(const std::string& mac, DeviceConfig& config);

// Writes text as a root-only file at path (in the settings folder), replacing it whole.
void writeRootOnlyFile(const std::string& path, const std::string& text);
// Removes the settings and both kinds of stored password of the MAC; true when one existed.
// ConfigError when one cannot be removed.
bool removeDeviceFiles(const std::string& mac);

// The password credential that systemd handed this process ($CREDENTIALS_DIRECTORY/password);
// nothing when no credential was given. One trailing newline is not part of it.
std::optional<std::string> readPasswordCredential();

}  // namespace Orvex
