// The last word of a session process that ends itself. The steps that leave at once with
// _exit (the signout method, a call that failed with a session error, the keep-alive
// finding the session idle or dead) call aboutToEnd() right before, so that whatever the
// process installed records why: after _exit no destructor or exit handler runs.
// In programs that install nothing (front ends, tests) it does nothing.
#pragma once

#include <string>

namespace Orvex {
namespace Ending {

enum class Why {
    Signout,       // the signout method replied
    Idle,          // the keep-alive found no use for over the idle limit; detail: "idle over N s"
    DeadSession,   // the keep-alive found the device session gone
    SessionError,  // a call failed with a session error; detail: "<method>: <message>"
    NotConfigured, // a unit's instance has nothing to sign in with; detail: the reason
};

using Hook = void (*)(Why why, const std::string& detail);

// Process-wide; nullptr removes the hook. Thread-safe.
void install(Hook hook);
// Runs the installed hook on the calling thread; never throws. The hook must be bounded
// (the daemon's writes one small file): the process ends right after.
void aboutToEnd(Why why, const std::string& detail = std::string()) noexcept;

}  // namespace Ending
}  // namespace Orvex
