// The port probe of the syslog server settings: is a local port free, or held only by the
// system log daemon? Answered without privilege over other processes.
//
// The kernel's socket tables (/proc/net/tcp, tcp6, udp, udp6, as ss reads them) give the
// sockets on the port with their inode and user: TCP sockets that listen, UDP sockets
// bound to it. The process behind a socket is found where its descriptors can be read
// (/proc/PID/fd): always for processes of our user with no more capabilities than ours,
// for every process with CAP_SYS_PTRACE. A socket whose process stays unknown counts as
// the program's when a process of that name runs as the socket's user and its own
// descriptors could not be read either (so it may be the one holding it).
#pragma once

#include <string>

namespace Orvex {
namespace PortProbe {

enum class Protocol { Tcp, Udp };

// True when no socket holds the port, or each one belongs to a process named program
// (the name in /proc/PID/comm). True as well when the socket tables cannot be read.
bool freeOrHeldBy(Protocol protocol, int port, const std::string& program);

}  // namespace PortProbe
}  // namespace Orvex
