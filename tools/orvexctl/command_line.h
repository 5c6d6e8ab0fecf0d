// The command line of orvexctl, parsed without side effects (no environment, file or
// stdin reads; those happen when the command runs).
#pragma once

#include <stdexcept>
#include <string>

#include "common/idle.h"

namespace Orvex {
namespace ctl {

// A command line that cannot be run; the message is one line for the user.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class Action {
    Help, Version, Start, StartFrom, Call, CallMany, Stop, StopAll, List, Status, Forget, Logs, Enable, Disable
};
enum class PassSource { Default, Environment, Stdin, File };
// How JSON is printed: Auto is indented on a terminal and compact otherwise.
enum class JsonStyle { Auto, Short, Pretty };

struct Command {
    Action action = Action::Help;
    std::string mac;     // trimmed and lower-cased, checked against the MAC pattern
    std::string method;  // Call, CallMany
    std::string json = "{}";  // Call, CallMany: the argument object as given
    std::string ip;      // Start, Enable
    int port = 0;        // Start, Enable: 1..65535
    std::string user;    // Start, Enable
    PassSource passSource = PassSource::Default;
    std::string passVariable;  // Environment: the variable's name
    std::string passFile;      // File (StartFrom): a password per device
    bool secure = false; // Start, Enable
    int level = -1;      // Start, StartFrom: the daemon's log level, -1 for its default
    // Start, StartFrom, Call, CallMany: how long an answer may take; Enable: how long to
    // wait for the first sign-in (0: not at all).
    int timeoutSeconds = 30;
    bool replace = false;     // Start, StartFrom, Enable: stop a session that runs for the MAC first
    std::string file;    // StartFrom: the device file; CallMany: the MAC file ("" for --all)
    int parallel = 8;    // StartFrom, CallMany: devices at a time
    long idleSeconds = Idle::kDefaultSeconds;  // Enable: the session's idle limit, 0 for never
    int graceSeconds = 5;  // Stop, StopAll
    bool all = false;    // List: every session, not only running and abnormally ended ones
    bool ended = false;  // Forget: every session that no longer runs
    int lines = 10;      // Logs: the last N lines
    bool follow = false; // Logs: then the lines to come
    bool jsonOutput = false;  // List, Status, Stop, StopAll, Forget: JSON instead of lines
    JsonStyle style = JsonStyle::Auto;
};

extern const char* const kUsage;

// Throws UsageError for anything that cannot be run.
Command parseCommandLine(int argc, const char* const* argv);

// Trimmed and lower-cased, as the daemon reads it; UsageError if it is no MAC address.
std::string normaliseMac(const std::string& text);

}  // namespace ctl
}  // namespace Orvex
