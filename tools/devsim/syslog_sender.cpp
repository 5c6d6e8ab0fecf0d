#include "tools/devsim/syslog_sender.h"

#include <Poco/DateTime.h>
#include <Poco/DateTimeFormat.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/Net/StreamSocket.h>

namespace Orvex::Devsim {

namespace {

// Facility user (1), severity informational (6).
constexpr int kPriority = 1 * 8 + 6;

void sendUdp(const Poco::Net::SocketAddress& to, const std::string& line)
{
    Poco::Net::DatagramSocket socket(to.family());
    socket.sendTo(line.data(), static_cast<int>(line.size()), to);
}

void sendTcp(const Poco::Net::SocketAddress& to, const std::string& line)
{
    Poco::Net::StreamSocket socket;
    socket.connect(to, Poco::Timespan(3, 0));
    socket.setSendTimeout(Poco::Timespan(3, 0));
    std::string framed = line + "\n";
    size_t sent = 0;
    while (sent < framed.size()) {
        int n = socket.sendBytes(framed.data() + sent, static_cast<int>(framed.size() - sent));
        if (n <= 0)
            throw Poco::IOException("connection closed while sending");
        sent += static_cast<size_t>(n);
    }
    socket.shutdownSend();
}

}  // namespace

std::string syslogTestLine(const SyslogTarget& target, const std::string& hostname)
{
    Poco::DateTime now;
    std::string pri = "<" + std::to_string(kPriority) + ">";
    const std::string message = "orvex-devsim remote syslog test from " + hostname;
    if (target.bsd)
        return pri + Poco::DateTimeFormatter::format(now, "%b %e %H:%M:%S") + " " + hostname +
               " orvex: " + message;
    return pri + "1 " + Poco::DateTimeFormatter::format(now, Poco::DateTimeFormat::ISO8601_FRAC_FORMAT) +
           " " + hostname + " orvex - - - " + message;
}

std::string sendSyslogTest(const SyslogTarget& target, const std::string& hostname)
{
    std::string where = target.address + ":" + std::to_string(target.port);
    try {
        Poco::Net::SocketAddress to(target.address, static_cast<Poco::UInt16>(target.port));
        std::string line = syslogTestLine(target, hostname);
        if (target.mode == 3)
            sendUdp(to, line);
        else
            sendTcp(to, line);
        return "";
    } catch (const Poco::Exception& e) {
        return (target.mode == 3 ? "udp " : "tcp ") + where + ": " + e.displayText();
    }
}

}  // namespace Orvex::Devsim
