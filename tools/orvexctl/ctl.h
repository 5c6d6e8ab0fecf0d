// What the commands of orvexctl share: the exit codes, JSON printing, and the outcome of
// one device's start or call, which the one-device commands print as the reply and a
// message, and the fleet commands (start --from, call --all/--macs) as one line each.
#pragma once

#include <stdexcept>
#include <string>

#include <jansson.h>

#include "client/fleet_files.h"
#include "common/raii.h"
#include "tools/orvexctl/command_line.h"

namespace Orvex {
namespace ctl {

enum ExitCode {
    kExitDone = 0,
    kExitFailure = 1,
    kExitUsage = 2,
    kExitNoSession = 3,
    kExitUnreachable = 4,
    kExitCredentials = 5,
    kExitDeviceRefused = 6,
    kExitRunning = 7,
    kExitNeedsRoot = 8,
};

// A command that only root may run, run by another user; the message says which.
class NeedsRoot : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// How printJson prints: as the command line says (set once, before any command runs).
void setStyle(JsonStyle style);
void printJson(json_t* value);
// One compact line, whatever the style.
std::string compactJson(json_t* value);

// One device's result: the exit code it would have alone, the reply when one came, and,
// for a failure, one line saying why (without the "orvexctl: " prefix).
struct Outcome {
    int code = kExitDone;
    JsonRef reply;
    std::string message;
};

// The one-device form of an outcome: the reply on standard output, the reason on standard
// error; returns the exit code.
int printOutcome(const Outcome& outcome);

struct StartRequest {
    DeviceEntry device;
    std::string pass;
    int level = -1;
    int timeoutSeconds = 30;
    bool replace = false;
};

// start and start --from: the command's settings for one device, without the password.
StartRequest startRequest(const Command& command, const DeviceEntry& device);
// Throws unless the daemon that start launches is installed.
void requireDaemon();
// Never throw: every failure is an outcome.
Outcome startDevice(const StartRequest& request);
// Before a new session of the MAC: nothing when none runs; kExitRunning when one runs and
// replace is false; else that one is stopped first (kExitFailure when it survives).
Outcome makeRoom(const std::string& mac, bool replace);
// The exit code of a sign-in that failed with the cause the daemon recorded.
int signinExitCode(const std::string& cause);
// The argument object of call (command.json); UsageError unless it is one JSON object.
JsonRef callArguments(const Command& command);
// args: the call's argument object (borrowed, not changed).
Outcome callDevice(const std::string& mac, const std::string& method, json_t* args, int timeoutSeconds);

// The password of start, start --from (not --pass-file) and enable: from the variable named, from
// standard input, or from ORVEX_PASS; removed from our environment so the daemon we launch
// does not inherit it. UsageError when there is none.
std::string password(const Command& command);

int runList(const Command& command);
int runStatus(const Command& command);
int runForget(const Command& command);
int runLogs(const Command& command);
int runStartFrom(const Command& command);
int runCallMany(const Command& command);
int runEnable(const Command& command);
int runDisable(const Command& command);

}  // namespace ctl
}  // namespace Orvex
