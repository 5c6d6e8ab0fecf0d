// orvexctl enable and disable: a device whose session process systemd keeps, as the
// instance orvex-session@MAC of the template unit. For root (orvexctl checks), and only
// where systemd runs (/run/systemd/system); systemctl and systemd-creds are run from PATH.
//
// What enable leaves behind, and disable removes:
//   /etc/orvex/orvex-session@MAC.conf      the settings (client/device_config.h)
//   /etc/orvex/orvex-session@MAC.cred      the password, encrypted by systemd-creds, or
//   /etc/orvex/orvex-session@MAC.pass      the same as a root-only file where it cannot
//   /etc/systemd/system/orvex-session@MAC.service.d/credential.conf
//                                          hands that file to the unit as its credential
//   the instance enabled (multi-user.target) and started.
// The password never travels on a command line or through an environment.
//
// Errors: std::runtime_error (one line: what failed and why).
#pragma once

#include <chrono>
#include <string>

#include "client/device_config.h"
#include "client/status_file.h"

namespace Orvex {
namespace ctl {

// Throws unless systemd runs here; command names the caller in the message.
void requireSystemd(const char* command);

// How the password was stored.
enum class Stored { Encrypted, Plain };

// Writes the files, then enables the instance and (re)starts it: systemctl returns once
// the daemon serves.
Stored enableInstance(const DeviceConfig& config, const std::string& password);

// Stops the instance (it signs out), disables it and removes every file enable wrote;
// systemd is told even when some step failed, and the first failure is thrown after.
void disableInstance(const std::string& mac);

// The status of the instance's first sign-in attempt after enable (signed in, the cause
// of a failure, or the end of the process); false when none came within the time.
bool waitForSignin(const std::string& mac, std::chrono::seconds timeout, StatusRecord& record);

}  // namespace ctl
}  // namespace Orvex
