// Client side of the per-device session processes: launch one and sign it in, forward a
// call to it, stop one or all of them. Bus clients (front ends) link only this, not the
// device protocols.
//
// Errors: SessionNotFound(<MAC>, 0) when no process answers for the MAC (or the MAC is
// empty), NoAnswer (one of them) when a process took the call but did not answer in
// time; BusSquatter when something else listens on the MAC's bus address;
// std::runtime_error for a launch that cannot run. Replies replace the whole content of
// the caller's object.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include <jansson.h>

#include "common/exceptions.h"
#include "option/option.h"

namespace Orvex {
namespace Control {

// A listener on the MAC's bus address that is not the MAC's session process; what() names
// its pid and uid.
class BusSquatter : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// How long a process gets between SIGTERM and SIGKILL unless the caller says otherwise.
constexpr std::chrono::milliseconds kDefaultGrace{5000};
// How long a call (the sign-in of start included) waits for its answer by default.
constexpr int kCallTimeoutSeconds = 30;

class NoAnswer : public SessionNotFound {
public:
    using SessionNotFound::SessionNotFound;
};

struct LaunchOptions {
    int level = -1;  // passed as "-l N" when 0 or more
    int timeoutSeconds = kCallTimeoutSeconds;  // for the sign-in's answer, and at most 5 s of it until it serves
};

// One session process that stop() dealt with; how: "signout", "SIGTERM" or "SIGKILL".
struct Ended {
    std::string mac;  // empty when found only by the program file
    pid_t pid = 0;
    std::string how;
};

struct StopReport {
    std::vector<Ended> ended;
    std::vector<Ended> survivors;  // still there after SIGKILL (how: the last signal sent)
};

// Launches the daemon for opt "mac", waits (bounded) until it answers on the bus, then
// signs it in with opt's device; out becomes the sign-in reply. The sign-in (and with it
// the password) goes only to the process that holds the MAC's lock.
void start(json_t*& out, const DeviceOption& opt);
void start(json_t*& out, const DeviceOption& opt, const LaunchOptions& launch);

// Every session process: found through the lock files (holder, or the pid left in the
// file if that process runs the daemon program) and through lsof on the program file
// when lsof is installed; SIGTERM, the grace period, then SIGKILL. Each signal reaches the
// very process found, and only while it still runs the daemon program (SessionProcess).
void stop();
StopReport stopAll(std::chrono::milliseconds grace);

// Asks the process to sign out; when that fails or it does not end within the grace
// period, SIGTERM, then SIGKILL after another grace period. SessionNotFound when nothing
// answers and no process holds the MAC's lock. out is left as it was.
void stop(json_t*& out, const MacOption& opt);
StopReport stopOne(const std::string& mac, std::chrono::milliseconds grace);

// Runs method on the MAC's process with inout as arguments; inout becomes the reply.
void call(json_t*& inout, const DeviceOption& opt, const std::string& method);
void call(json_t*& inout, const DeviceOption& opt, const std::string& method, int timeoutSeconds);

}  // namespace Control
}  // namespace Orvex
