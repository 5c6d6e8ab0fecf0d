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
    zs_reply(io);
    if (fd >= 0)
        close(fd);
    zs_io_free(io);
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

void checkMerged(json_t* reply, json_t* parsed)
{
    FUZZ_CHECK(json_is_object(reply), "the reply stays an object");
    if (json_is_object(parsed))
        FUZZ_CHECK(json_equal(reply, parsed), "object answer becomes the reply");
    else
        FUZZ_CHECK(json_object_size(reply) == 0, "other answers leave the reply empty");
}

void forwardedCall(const DeviceProcess& device, json_t* parsed)
{
    JsonRef args = JsonRef::adopt(json_pack("{s:s}", "mac", device.mac.c_str()));
    DeviceOption option(args.get());
    JsonRef reply = staleReply();
    json_t* raw = reply.get();
    Session::call(raw, option, "get_device_rsyslog_config");
    FUZZ_CHECK(raw == reply.get(), "the reply object is filled in place");
    checkMerged(raw, parsed);
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
    forwardedCall(device, parsed.get());
    return 0;
}
