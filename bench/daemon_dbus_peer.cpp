// D-Bus side of the bus baseline: owns org.orvex.Bench on the bus at ADDRESS and answers
// every Echo call with REPLY, one call at a time, like the bus loop. Prints "ready" once
// the name is owned.
//
//   orvex_bench_dbus_peer ADDRESS REPLY
#include "bench/daemon_dbus.h"

#include <systemd/sd-bus.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

using namespace Orvex::Bench;

std::string g_reply;

int onEcho(sd_bus_message* message, void*, sd_bus_error*)
{
    const char* body = nullptr;
    int r = sd_bus_message_read(message, "s", &body);
    if (r < 0)
        return r;
    return sd_bus_reply_method_return(message, "s", g_reply.c_str());
}

const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Echo", "s", "s", onEcho, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

int fail(const char* what, int r)
{
    std::fprintf(stderr, "orvex_bench_dbus_peer: %s: %s\n", what, std::strerror(-r));
    return 1;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fputs("usage: orvex_bench_dbus_peer ADDRESS REPLY\n", stderr);
        return 2;
    }
    g_reply = argv[2];
    sd_bus* bus = nullptr;
    int r = sd_bus_new(&bus);
    if (r < 0)
        return fail("new", r);
    if ((r = sd_bus_set_address(bus, argv[1])) < 0 || (r = sd_bus_set_bus_client(bus, 1)) < 0 ||
        (r = sd_bus_start(bus)) < 0)
        return fail("connect", r);
    if ((r = sd_bus_add_object_vtable(bus, nullptr, kDbusPath, kDbusName, kVtable, nullptr)) < 0)
        return fail("object", r);
    if ((r = sd_bus_request_name(bus, kDbusName, 0)) < 0)
        return fail("name", r);
    std::fputs("ready\n", stdout);
    std::fflush(stdout);
    for (;;) {
        r = sd_bus_process(bus, nullptr);
        if (r < 0)
            return fail("process", r);
        if (r > 0)
            continue;
        if ((r = sd_bus_wait(bus, UINT64_MAX)) < 0)
            return fail("wait", r);
    }
}
