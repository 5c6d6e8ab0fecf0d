// Every option record built from one arbitrary JSON text. A record either completes with
// its documented ranges holding or throws OptionException with code 400; anything else
// (another exception, a crash, a sanitizer report) is a finding.
#include "common/raii.h"
#include "fuzz/fuzz_support.h"
#include "option/option.h"

#include <jansson.h>

#include <cstdint>

using namespace Orvex;

namespace {

// Builds a record; false when it refused the arguments the documented way.
template <typename Build>
bool attempt(Build build)
{
    try {
        build();
        return true;
    } catch (const OptionException& e) {
        FUZZ_CHECK(e.code() == 400, e.message().c_str());
        FUZZ_CHECK(!e.message().empty(), "an option error names its key");
        return false;
    }
}

bool validPort(int64_t port, int64_t low)
{
    return port >= low && port <= 65535;
}

void signinRecord(json_t* args)
{
    attempt([&] {
        SigninOption o(args);
        FUZZ_CHECK(validPort(o.port, 1), "signin port in range");
    });
}

// The port probe runs lsof through popen, which would fork a shell per input and look at the
// machine's real sockets; the port keys are dropped from a copy so the rest of the record
// (the switch rules) is still exercised.
void syslogServerRecord(json_t* args)
{
    JsonRef copy = JsonRef::adopt(json_deep_copy(args));
    if (json_is_object(copy.get())) {
        json_object_del(copy.get(), "tcp_port");
        json_object_del(copy.get(), "udp_port");
    }
    attempt([&] {
        SyslogServerOption o(copy.get());
        FUZZ_CHECK(!o.enable || o.tcp_enable || o.udp_enable, "enabled server has a transport");
        FUZZ_CHECK(o.tcp_port == 1514 && o.udp_port == 1514, "ports keep their defaults");
    });
}

void syslogClientRecords(json_t* args)
{
    for (bool idRequired : {false, true}) {
        attempt([&] {
            SyslogClientOption o(args, idRequired);
            FUZZ_CHECK(o.mode >= 1 && o.mode <= 3, "client mode in range");
            FUZZ_CHECK(validPort(o.port, 1), "client port in range");
            FUZZ_CHECK(!o.address.empty(), "client address present");
            FUZZ_CHECK(!idRequired || o.id != 0, "required id is set");
        });
    }
}

// IdOption rewrites a single "id" into an array in place, so it gets its own copy.
void idRecords(json_t* args)
{
    attempt([&] { IdOption o(args, false); FUZZ_CHECK(o.ids.empty(), "unread ids stay empty"); });
    JsonRef copy = JsonRef::adopt(json_deep_copy(args));
    attempt([&] {
        IdOption o(copy.get(), true);
        FUZZ_CHECK(!o.ids.empty(), "read ids are never empty");
        for (int64_t id : o.ids)
            FUZZ_CHECK(id != 0, "no id is 0");
        json_t* stored = json_object_get(copy.get(), "id");
        FUZZ_CHECK(json_is_array(stored) && json_array_size(stored) == o.ids.size(), "id stored as the list read");
    });
}

void frontEndRecords(json_t* args)
{
    attempt([&] {
        DeviceOption o(args);
        FUZZ_CHECK(validPort(o.port, 0), "device port in range");
    });
    attempt([&] { MacOption o(args); });
    attempt([&] { SyslogClientManagerOption o(args); });
    attempt([&] { Option o(args); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Any JSON value: a record must cope with an array or a scalar as its arguments too.
    JsonRef args = JsonRef::adopt(json_loadb(reinterpret_cast<const char*>(data), size, JSON_DECODE_ANY, nullptr));
    JsonRef before = JsonRef::adopt(json_deep_copy(args.get()));
    signinRecord(args.get());
    syslogServerRecord(args.get());
    syslogClientRecords(args.get());
    idRecords(args.get());
    frontEndRecords(args.get());
    // Only IdOption may change arguments, and it worked on a copy.
    FUZZ_CHECK(json_equal(args.get(), before.get()) || !args, "records leave the arguments alone");
    return 0;
}
