#include "daemon/notify.h"

#include "common/raii.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace Orvex {
namespace Notify {

namespace {

// The service manager's notification protocol: one datagram of "KEY=value" lines to the
// AF_UNIX socket named by NOTIFY_SOCKET ("@..." is an abstract name). Sent directly rather
// than through libsystemd, which would load seven more shared libraries into every one
// of a fleet's processes for these three messages. NOTIFY_SOCKET is kept: STATUS and
// STOPPING follow READY.
void send(const std::string& state)
{
    const char* path = std::getenv("NOTIFY_SOCKET");
    if (path == nullptr || (path[0] != '/' && path[0] != '@'))
        return;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t length = std::strlen(path);
    if (length < 2 || length >= sizeof(address.sun_path))
        return;
    std::memcpy(address.sun_path, path, length);
    if (path[0] == '@')
        address.sun_path[0] = '\0';
    UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd)
        return;
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    if (::sendto(fd.get(), state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                 size) < 0) {
        // Nobody to tell: the manager went away, or never listened.
    }
}

}  // namespace

void ready()
{
    send("READY=1");
}

void status(const std::string& text)
{
    send("STATUS=" + text);
}

void stopping()
{
    send("STOPPING=1");
}

void disown()
{
    static const char kName[] = "NOTIFY_SOCKET=";
    char* value = std::getenv("NOTIFY_SOCKET");
    if (value == nullptr)
        return;
    // The text stays in /proc/PID/environ, the first environment's copy, unless blanked there.
    char* entry = value - (sizeof kName - 1);
    const size_t length = std::strlen(entry);
    ::unsetenv("NOTIFY_SOCKET");
    std::memset(entry, 0, length);
}

}  // namespace Notify
}  // namespace Orvex
