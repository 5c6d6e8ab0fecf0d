// Notifications to a service manager (sd_notify), only when one started us with
// NOTIFY_SOCKET set; otherwise, and in builds without libsystemd, each call does nothing.
#pragma once

#include <string>

namespace Orvex {
namespace Notify {

void ready();
void status(const std::string& text);
void stopping();

}  // namespace Notify
}  // namespace Orvex
