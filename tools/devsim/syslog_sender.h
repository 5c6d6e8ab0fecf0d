// Sends the one test line of POST /orvex/v1/rsyslog/client/test. Blocking (at most a few
// seconds: connect and send time-outs); safe from any thread.
#pragma once

#include <string>

namespace Orvex::Devsim {

struct SyslogTarget {
    int mode;             // 1 TCP, 2 TLS (sent as plain TCP), 3 UDP
    std::string address;
    int port;
    bool bsd;             // true: RFC 3164 line, false: RFC 5424 line
};

// The line as it goes on the wire (without the TCP newline).
std::string syslogTestLine(const SyslogTarget& target, const std::string& hostname);

// Returns an empty string when the line went out, else the reason it did not.
std::string sendSyslogTest(const SyslogTarget& target, const std::string& hostname);

}  // namespace Orvex::Devsim
