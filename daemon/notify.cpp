#include "daemon/notify.h"

#ifdef ORVEX_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace Orvex {
namespace Notify {

namespace {

void send(const std::string& state)
{
#ifdef ORVEX_SYSTEMD
    // Keeps NOTIFY_SOCKET: STATUS and STOPPING follow READY.
    sd_notify(0, state.c_str());
#else
    (void)state;
#endif
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

}  // namespace Notify
}  // namespace Orvex
