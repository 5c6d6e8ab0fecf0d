// Helpers shared by the session's bus and REST operations: JSON into a zs_io buffer with
// the system's dump flags, the buffer's text back out, and an answer merged into a reply.
#pragma once

#include "zservice/zservice.h"

#include <jansson.h>

#include <cstddef>
#include <string>

namespace Orvex {
namespace session_detail {

// Appends the compact dump of value (nothing for a null value).
void dumpInto(json_t* value, zs_io* buffer);
// The buffer's content from offset 0 ("" for an untouched buffer).
std::string bufferText(zs_io* buffer);
// Empties target, then copies in the members of the parsed text when it is a JSON object.
void replaceContent(json_t* target, const char* text, size_t size);

}  // namespace session_detail
}  // namespace Orvex
