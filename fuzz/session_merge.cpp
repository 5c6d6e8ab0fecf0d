// A device answer merged into a reply, at both places it happens: directly (the syslog
// operations' merge) and through a forwarded bus call to a per-device process, whose
// stand-in (a bus service on that process's address, background thread) answers the input.
// The reply must end up equal to the answer when that is a JSON object, and empty
// otherwise; nothing of the reply's earlier content may survive.
#include "common/paths.h"
#include "common/raii.h"
#include "fuzz/fuzz_support.h"
#include "tests/support/bus.h"
#include "option/option.h"
#include "session/buffer.h"
#include "session/session.h"
#include "zservice/zservice.h"

#include <jansson.h>

#include <cstdint>
#include <mutex>
#include <string>

using namespace Orvex;

namespace {

std::mutex answerMutex;
std::string answer;

void answerWithInput(const char*, zs_io* io, int fd)
{
    {
        std::lock_guard<std::mutex> lock(answerMutex);
        zs_io_realloc(io, 0);
        zs_io_write(io, answer.data(), answer.size());
    }
    Test::TestService::echo("raw", io, fd);  // replies with the bare body
}

// The per-device process the session's call reaches, on that process's bus address.
struct DeviceProcess {
    std::string mac = "fuzz-" + std::to_string(getpid());
    Test::ServedBus bus{Paths::busAddress(mac), &answerWithInput, 10, 1};
    DeviceProcess() { FUZZ_CHECK(bus.ok(), "device process stand-in created"); }
};

JsonRef staleReply()
{
    return JsonRef::adopt(json_pack("{s:s, s:i, s:[i]}", "stale", "member", "error_code", 7, "list", 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static DeviceProcess device;
    const char* text = reinterpret_cast<const char*>(data);
    JsonRef parsed = JsonRef::adopt(json_loadb(text, size, 0, nullptr));

    JsonRef reply = staleReply();
    session_detail::replaceContent(reply.get(), text, size);
    checkMerged(reply.get(), parsed.get());

    {
        std::lock_guard<std::mutex> lock(answerMutex);
        answer.assign(text, size);
    }
    JsonRef args = JsonRef::adopt(json_pack("{s:s}", "mac", device.mac.c_str()));
    JsonRef forwarded = staleReply();
    json_t* raw = forwarded.get();
    Session::call(raw, DeviceOption(args.get()), "get_device_rsyslog_config");
    FUZZ_CHECK(raw == forwarded.get(), "the reply object is filled in place");
    checkMerged(raw, parsed.get());
    return 0;
}
