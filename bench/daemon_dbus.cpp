#include "bench/daemon_dbus.h"

#ifdef ORVEX_BENCH_DBUS
#include <systemd/sd-bus.h>
#endif

#include <cstring>

namespace Orvex {
namespace Bench {

#ifdef ORVEX_BENCH_DBUS

namespace {

sd_bus* connect(const std::string& address)
{
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0)
        return nullptr;
    if (sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0) {
        sd_bus_unref(bus);
        return nullptr;
    }
    return bus;
}

bool echo(sd_bus* bus, const std::string& body, size_t expected)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const char* text = nullptr;
    const bool ok = sd_bus_call_method(bus, kDbusName, kDbusPath, kDbusName, kDbusMethod, &error, &reply, "s",
                                       body.c_str()) >= 0 &&
                    sd_bus_message_read(reply, "s", &text) >= 0 && text && std::strlen(text) == expected;
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    return ok;
}

}  // namespace

bool dbusAvailable()
{
    return true;
}

bool dbusCallOnce(const std::string& address, const std::string& body, size_t expected)
{
    sd_bus* bus = connect(address);
    if (!bus)
        return false;
    const bool ok = echo(bus, body, expected);
    sd_bus_flush_close_unref(bus);
    return ok;
}

DbusConnection::DbusConnection(const std::string& address) : bus_(connect(address)) {}

DbusConnection::~DbusConnection()
{
    if (bus_)
        sd_bus_flush_close_unref(static_cast<sd_bus*>(bus_));
}

bool DbusConnection::call(const std::string& body, size_t expected)
{
    return bus_ && echo(static_cast<sd_bus*>(bus_), body, expected);
}

#else

bool dbusAvailable()
{
    return false;
}

bool dbusCallOnce(const std::string&, const std::string&, size_t)
{
    return false;
}

DbusConnection::DbusConnection(const std::string&) {}
DbusConnection::~DbusConnection() = default;

bool DbusConnection::call(const std::string&, size_t)
{
    return false;
}

#endif

}  // namespace Bench
}  // namespace Orvex
