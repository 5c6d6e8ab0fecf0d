// Notifications to a service manager (the sd_notify protocol), only when one started us
// with NOTIFY_SOCKET set; otherwise each call does nothing.
#pragma once

#include <string>

namespace Orvex {
namespace Notify {

void ready();
void status(const std::string& text);
void stopping();
// Removes NOTIFY_SOCKET from the environment: a detached process is not the one a service
// manager started, and must not speak for it. Before any thread starts.
void disown();

}  // namespace Notify
}  // namespace Orvex
