#include "session/buffer.h"

#include "common/raii.h"
#include "service/misc.h"

namespace Orvex {
namespace session_detail {

namespace {

// jansson hands the callback a void*; the buffer writer takes the channel itself.
int writeToBuffer(const char* text, size_t size, void* data)
{
    return json_write_io(text, size, static_cast<zs_io*>(data));
}

}  // namespace

void dumpInto(json_t* value, zs_io* buffer)
{
    if (value != nullptr)
        json_dump_callback(value, &writeToBuffer, buffer, ORVEX_JSON_FLAGS);
}

std::string bufferText(zs_io* buffer)
{
    const char* text = zs_io_read(buffer, 0);
    return text != nullptr ? std::string(text) : std::string();
}

void replaceContent(json_t* target, const char* text, size_t size)
{
    JsonRef parsed = JsonRef::adopt(json_loadb(text != nullptr ? text : "", text != nullptr ? size : 0, 0, nullptr));
    json_object_clear(target);
    json_object_update(target, parsed.get());
}

}  // namespace session_detail
}  // namespace Orvex
