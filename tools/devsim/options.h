// Command line of orvex-devsim: which device to play, where to listen and which faults
// to inject. parseCommandLine throws std::invalid_argument with a one-line reason.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace Orvex::Devsim {

enum class Family { Legacy, Token };

// What the device says about itself.
struct Identity {
    std::string model;
    std::string firmwareVersion;
    std::string firmwareNumber;
    std::string hostname;
    std::string serial;
};

// Answers to paths starting with prefix wait this long.
struct PathDelay {
    std::string prefix;
    int ms = 0;
};

struct Faults {
    int delayMs = 0;
    std::vector<PathDelay> pathDelays;    // first matching prefix, added to delayMs
    std::set<std::string> omit;           // XML node / JSON key names dropped from answers
    std::vector<std::string> garbage;     // path prefixes answered with non-XML/JSON text
    std::vector<std::string> jsonArray;   // path prefixes answered with a JSON array
    std::vector<std::string> hangup;      // path prefixes answered by closing the connection
    int expireAfter = 0;                  // seconds a session/token lives; 0 = forever
    bool tls10Only = false;
    bool tls11Only = false;
};

struct Config {
    Family family = Family::Legacy;
    bool mixed = false;          // --family mixed: device i plays legacy when i is even, else token
    int devices = 0;             // --devices N: N devices in one process; 0 = the one classic device
    std::string host = "127.0.0.1";
    uint16_t port = 0;
    bool tls = false;
    std::string cert;
    std::string key;
    std::string user = "admin";
    std::string pass = "secret";
    std::string logFile;
    bool stdinWatch = false;
    bool help = false;
    bool version = false;
    Identity identity;
    Identity tokenIdentity;      // with --family mixed: what the token devices say about themselves
    Faults faults;
};

Config parseCommandLine(int argc, char** argv);
// The configuration of device `index` of a --devices run: its family, identity and port
// (consecutive from --port, or 0 = a free one).
Config deviceConfig(const Config& fleet, int index);
const char* helpText();
bool hasPrefix(const std::vector<std::string>& prefixes, const std::string& path);
// How long the answer to path waits: --delay-ms plus the first matching --delay-path.
int answerDelayMs(const Faults& faults, const std::string& path);

}  // namespace Orvex::Devsim
