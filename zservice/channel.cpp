// Channels: a growable zero-terminated buffer plus, for a call, the caller's connection.
#include "zservice/channel.h"
#include "zservice/internal.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace Orvex::Bus {

bool reserve(zs_io* io, size_t size)
{
    if (size >= io->capacity) {
        if (size == SIZE_MAX)
            return false;
        size_t capacity = io->capacity < 64 ? 64 : io->capacity;
        while (capacity <= size)
            capacity = capacity > SIZE_MAX / 2 ? size + 1 : capacity * 2;
        char* data = static_cast<char*>(realloc(io->data, capacity));
        if (!data)
            return false;
        io->data = data;
        io->capacity = capacity;
    }
    return true;
}

std::atomic<long>& openCalls()
{
    static std::atomic<long> count{0};
    return count;
}

}  // namespace Orvex::Bus

using namespace Orvex::Bus;

namespace {

// A reply whose caller stops reading is abandoned after this long, so a worker (or the
// loop) never waits on it for ever.
constexpr int64_t kReplySendMs = 5000;
// A buffer emptied below a quarter of a large capacity gives the memory back (a parsed
// call body need not be held twice while the call waits in a queue).
constexpr size_t kShrinkAbove = 65536;

void shrink(zs_io* io, size_t size)
{
    if (io->capacity <= kShrinkAbove || size >= io->capacity / 4)
        return;
    const size_t capacity = size < 64 ? 64 : size + 1;
    if (char* data = static_cast<char*>(realloc(io->data, capacity))) {
        io->data = data;
        io->capacity = capacity;
    }
}

}  // namespace

int Orvex::channelSocket(zs_io* io)
{
    return io ? io->fd : -1;
}

zs_io* zs_io_create(void)
{
    return new (std::nothrow) zs_io;
}

const char* zs_io_read(zs_io* io, size_t offset)
{
    if (!io || !io->data || offset >= io->size)
        return "";
    return io->data + offset;
}

size_t zs_io_size(zs_io* io)
{
    return io ? io->size : 0;
}

int zs_io_realloc(zs_io* io, size_t size)
{
    if (!io || !reserve(io, size))
        return -1;
    if (size > io->size)
        memset(io->data + io->size, 0, size - io->size);
    io->size = size;
    shrink(io, size);
    io->data[size] = '\0';
    return 0;
}

ssize_t zs_io_write(zs_io* io, const void* data, size_t size)
{
    if (!io || (!data && size) || size > SSIZE_MAX || io->size + size < io->size)
        return -1;
    if (!reserve(io, io->size + size))
        return -1;
    if (size)
        memcpy(io->data + io->size, data, size);
    io->size += size;
    io->data[io->size] = '\0';
    return static_cast<ssize_t>(size);
}

int zs_io_printf(zs_io* io, const char* format, ...)
{
    if (!io || !format)
        return -1;
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, args);
    va_end(args);
    int result = -1;
    if (length >= 0 && reserve(io, io->size + size_t(length))) {
        vsnprintf(io->data + io->size, size_t(length) + 1, format, again);
        io->size += size_t(length);
        result = length;
    }
    va_end(again);
    return result;
}

int zs_io_alive(zs_io* io)
{
    if (!io || io->fd < 0)
        return 0;
    // A hang-up in either direction means the caller is gone.
    pollfd p{io->fd, POLLRDHUP, 0};
    while (poll(&p, 1, 0) < 0) {
        if (errno != EINTR)
            return 0;
    }
    return (p.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) ? 0 : 1;
}

int zs_reply(zs_io* io)
{
    if (!io || io->fd < 0 || io->replied)
        return -1;
    io->replied = true;
    if (io->size > ZS_MAX_BODY) {
        errno = EMSGSIZE;
        return -1;
    }
    Header header;
    header.kind = ZS_KIND_REPLY;
    header.bodyLength = static_cast<uint32_t>(io->size);
    return sendFrame(io->fd, header, std::string(), io->data, -1, nowMs() + kReplySendMs);
}

void zs_io_free(zs_io* io)
{
    if (!io)
        return;
    // close, never shutdown: a forked copy of this channel may still reply.
    if (io->fd >= 0)
        close(io->fd);
    if (io->counted)
        openCalls().fetch_sub(1, std::memory_order_relaxed);
    free(io->data);
    delete io;
}
