// The system's JSON reply on the service bus, written into the call's channel buffer or
// onto its reply descriptor behind one Content-Type line, then completed with zs_reply.
// Neither helper frees the caller's object, closes the descriptor or frees the channel;
// a channel whose caller has gone (zs_io_alive false) gets nothing, not even on the
// descriptor. Write failures are not checked: the caller has no one left to tell. A reply
// descriptor nobody reads is given up after kReplyFdMs, so no thread waits on it for ever.
#pragma once

#include "common/misc.h"
#include "common/raii.h"
#include "common/trace.h"
#include "zservice/zservice.h"

#include <jansson.h>
#include <unistd.h>

#include <cstddef>
#include <string>

namespace Orvex {

// Compact, "/" escaped, reals with 2 significant digits (0x1420).
constexpr size_t ORVEX_JSON_FLAGS = JSON_COMPACT | JSON_ESCAPE_SLASH | JSON_REAL_PRECISION(2);

// Header of a reply on a descriptor: one header line, then the empty line.
constexpr const char* ORVEX_REPLY_HEADER = "Content-Type: application/json; charset=utf-8\r\n\r\n";

// json_dump_callback_t body with the channel as data: 0 when every byte was appended,
// negative otherwise (which stops jansson).
inline int json_write_io(const char* buffer, size_t size, zs_io* io)
{
    return static_cast<int>(zs_io_write(io, buffer, size) - static_cast<ssize_t>(size));
}

// How long a reply may take to go onto a caller's descriptor.
constexpr int kReplyFdMs = 5000;

// Writes all of data to fd within timeoutMs without touching the descriptor's flags (they
// belong to the caller's open file too): each write waits for room first and stays within
// PIPE_BUF, so it cannot block on a pipe or socket. False on time-out or error.
bool writeWithin(int fd, const char* data, size_t size, int timeoutMs) noexcept;

namespace detail {

inline int jsonWriteIoCallback(const char* buffer, size_t size, void* data)
{
    return json_write_io(buffer, size, static_cast<zs_io*>(data));
}

// Writes the document (buffer or descriptor path) without completing the call.
// json_string refuses text that is not UTF-8 (an exception message may quote raw bytes
// from a caller); such bytes become '?' so the key is never silently dropped.
inline json_t* jsonMessage(const char* text)
{
    if (json_t* value = json_string(text))
        return value;
    std::string safe(text);
    for (char& c : safe)
        if (static_cast<unsigned char>(c) >= 0x80)
            c = '?';
    return json_string(safe.c_str());
}

inline void writeReplyDocument(zs_io* io, int fd, json_t* document)
{
    if (fd < 0) {
        zs_io_realloc(io, 0);
        // Most replies fit the stack buffer: one copy into the channel instead of one
        // callback per token; a larger one is dumped again, straight into the channel.
        char text[4096];
        const size_t size = json_dumpb(document, text, sizeof text, ORVEX_JSON_FLAGS);
        if (size <= sizeof text)
            zs_io_write(io, text, size);
        else
            json_dump_callback(document, &jsonWriteIoCallback, io, ORVEX_JSON_FLAGS);
        return;
    }
    std::string text = ORVEX_REPLY_HEADER;
    if (char* dumped = json_dumps(document, ORVEX_JSON_FLAGS)) {
        text += dumped;
        free(dumped);
    }
    if (writeWithin(fd, text.data(), text.size(), kReplyFdMs))
        ::fsync(fd);
}

}  // namespace detail

// Adds "error_code" and "error_message" (left out when errorMessage is null) to data, or
// to a fresh object when data is null, and replies. An error (code != 0) first empties
// data: an error reply never carries partial results.
inline void zs_reply_json(zs_io* io, int fd, json_t* data, int errorCode, const char* errorMessage)
{
    ORVEX_TRACE();
    if (io == nullptr || !zs_io_alive(io))
        return;
    if (errorCode != 0)
        json_object_clear(data);
    JsonRef fresh = JsonRef::adopt(json_object());
    json_t* target = data != nullptr ? data : fresh.get();
    json_object_set_new(target, "error_code", json_integer(errorCode));
    if (errorMessage != nullptr)
        json_object_set_new(target, "error_message", detail::jsonMessage(errorMessage));
    detail::writeReplyDocument(io, fd, target);
    zs_reply(io);
}

// A handler's success reply: the object exactly as it stands (no status keys added; null
// replies "{}").
inline void zs_reply_forward(zs_io* io, int fd, json_t* json)
{
    ORVEX_TRACE_POINT(":enter");
    if (io == nullptr || !zs_io_alive(io)) {
        ORVEX_TRACE_POINT(":leave");
        return;
    }
    JsonRef fresh = JsonRef::adopt(json != nullptr ? nullptr : json_object());
    detail::writeReplyDocument(io, fd, json != nullptr ? json : fresh.get());
    ORVEX_TRACE_POINT(":leave");
    zs_reply(io);
}

}  // namespace Orvex
