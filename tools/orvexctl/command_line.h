// The command line of orvexctl, parsed without side effects (no environment or stdin
// reads; those happen when the command runs).
#pragma once

#include <stdexcept>
#include <string>

namespace Orvex {
namespace ctl {

// A command line that cannot be run; the message is one line for the user.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class Action { Help, Version, Start, Call, Stop, StopAll, List, Status, Enable, Disable };
enum class PassSource { Default, Environment, Stdin };
// How JSON is printed: Auto is indented on a terminal and compact otherwise.
enum class JsonStyle { Auto, Short, Pretty };

struct Command {
    Action action = Action::Help;
    std::string mac;     // trimmed and lower-cased, checked against the MAC pattern
    std::string method;  // Call
    std::string json = "{}";  // Call: the argument object as given
    std::string ip;      // Start, Enable
    int port = 0;        // Start, Enable: 1..65535
    std::string user;    // Start, Enable
    PassSource passSource = PassSource::Default;
    std::string passVariable;  // Environment: the variable's name
    bool secure = false; // Start, Enable
    int level = -1;      // Start: the daemon's log level, -1 for its default
    long idleSeconds = 600;  // Enable: the session's idle limit, 0 for never
    int timeoutSeconds = 15;  // Enable: how long to wait for the first sign-in
    int graceSeconds = 5;  // Stop, StopAll
    bool jsonOutput = false;  // List, Status: JSON instead of lines
    JsonStyle style = JsonStyle::Auto;
};

extern const char* const kUsage;

// Throws UsageError for anything that cannot be run.
Command parseCommandLine(int argc, const char* const* argv);

// Trimmed and lower-cased, as the daemon reads it; UsageError if it is no MAC address.
std::string normaliseMac(const std::string& text);

}  // namespace ctl
}  // namespace Orvex
