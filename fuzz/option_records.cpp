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

// Builds a record and checks it; a refusal must be the documented one.
template <typename Build>
void attempt(Build build)
{
    try {
        build();
    } catch (const OptionException& e) {
        FUZZ_CHECK(e.code() == 400, e.message().c_str());
        FUZZ_CHECK(!e.message().empty(), "an option error names its key");
    }
}

bool validPort(int64_t port, int64_t low)
{
    return port >= low && port <= 65535;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Any JSON value: a record must cope with an array or a scalar as its arguments too.
    JsonRef args = JsonRef::adopt(json_loadb(reinterpret_cast<const char*>(data), size, JSON_DECODE_ANY, nullptr));
    json_t* raw = args.get();
    JsonRef before = JsonRef::adopt(json_deep_copy(raw));
    attempt([&] { FUZZ_CHECK(validPort(SigninOption(raw).port, 1), "signin port in range"); });
    // The port probe reads the machine's real socket tables and scans /proc (per input, and
    // its answer depends on the machine): the port keys are dropped from a copy, so the
    // switch rules still run.
    JsonRef server = JsonRef::adopt(json_deep_copy(raw));
    if (json_is_object(server.get())) {
        json_object_del(server.get(), "tcp_port");
        json_object_del(server.get(), "udp_port");
    }
    attempt([&] {
        SyslogServerOption o(server.get());
        FUZZ_CHECK(!o.enable || o.tcp_enable || o.udp_enable, "enabled server has a transport");
        FUZZ_CHECK(o.tcp_port == 1514 && o.udp_port == 1514, "ports keep their defaults");
    });
    for (bool idRequired : {false, true})
        attempt([&] {
            SyslogClientOption o(raw, idRequired);
            FUZZ_CHECK(o.mode >= 1 && o.mode <= 3, "client mode in range");
            FUZZ_CHECK(validPort(o.port, 1) && !o.address.empty(), "client port and address");
            FUZZ_CHECK(!idRequired || o.id != 0, "required id is set");
        });
    attempt([&] { FUZZ_CHECK(IdOption(raw, false).ids.empty(), "unread ids stay empty"); });
    // IdOption rewrites a single "id" into an array in place, so it works on a copy.
    JsonRef ids = JsonRef::adopt(json_deep_copy(raw));
    attempt([&] {
        IdOption o(ids.get(), true);
        FUZZ_CHECK(!o.ids.empty(), "read ids are never empty");
        for (int64_t id : o.ids)
            FUZZ_CHECK(id != 0, "no id is 0");
        json_t* stored = json_object_get(ids.get(), "id");
        FUZZ_CHECK(json_is_array(stored) && json_array_size(stored) == o.ids.size(), "id stored as the list read");
    });
    attempt([&] { FUZZ_CHECK(validPort(DeviceOption(raw).port, 0), "device port in range"); });
    attempt([&] { MacOption o(raw); });
    attempt([&] { SyslogClientManagerOption o(raw); });
    attempt([&] { Option o(raw); });
    FUZZ_CHECK(json_equal(raw, before.get()) || !raw, "records leave the arguments alone");
    return 0;
}
