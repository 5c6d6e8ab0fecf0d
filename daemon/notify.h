// Notifications to a service manager (the sd_notify protocol), only when one started us
// with NOTIFY_SOCKET set; otherwise each call does nothing.
#pragma once

#include <string>

namespace Orvex {
namespace Notify {

void ready();
void status(const std::string& text);
void stopping();

}  // namespace Notify
}  // namespace Orvex
