// zs_call: one whole exchange (connect, call frame, reply frame) within one time-out.
#include "zservice/internal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

using namespace Orvex::Bus;

namespace {

constexpr size_t kReadChunk = 65536;

struct Socket {
    int fd;
    ~Socket()
    {
        if (fd >= 0)
            close(fd);
    }
};

struct IoFree {
    void operator()(zs_io* io) const { zs_io_free(io); }
};

// A full listen queue is the only case where connect must wait; AF_UNIX cannot be polled
// for that, so only then does the socket turn blocking with SO_SNDTIMEO as the bound.
int connectWithin(int fd, const Address& address, int64_t deadline)
{
    const auto* sa = reinterpret_cast<const sockaddr*>(&address.addr);
    if (connect(fd, sa, address.length) == 0)
        return 0;
    if (errno != EAGAIN && errno != EINTR)
        return -1;
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
    for (;;) {
        if (deadline >= 0) {
            const int64_t left = std::max<int64_t>(deadline - nowMs(), 1);
            timeval tv{static_cast<time_t>(left / 1000), static_cast<suseconds_t>(left % 1000 * 1000)};
            setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
        }
        if (connect(fd, sa, address.length) == 0 || errno == EISCONN)
            break;
        if (errno != EINTR && errno != EAGAIN && errno != EINPROGRESS)
            return -1;
        if (deadline >= 0 && nowMs() >= deadline) {
            errno = ETIMEDOUT;
            return -1;
        }
    }
    return fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

// Reads up to `size` bytes, at least one; 0 at end of stream, -1 on error or time-out.
ssize_t readSome(int fd, void* data, size_t size, int64_t deadline, bool waitFirst = false)
{
    if (waitFirst && waitFor(fd, POLLIN, deadline) <= 0)
        return -1;
    for (;;) {
        const ssize_t n = recv(fd, data, size, 0);
        if (n >= 0)
            return n;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (waitFor(fd, POLLIN, deadline) <= 0)
                return -1;
        } else if (errno != EINTR) {
            return -1;
        }
    }
}

// A server that hangs up before the whole reply is a protocol failure, not a transport one.
int fail(int error)
{
    errno = (error == ECONNRESET || error == EPIPE) ? EPROTO : error;
    return -1;
}

// Reads the header, and with it what has already come of the body (a small reply whole),
// into `first`; `got` counts the bytes read.
int readHeader(int fd, Header& header, char* first, size_t size, size_t& got, int64_t deadline)
{
    for (got = 0; got < ZS_HEADER_SIZE;) {
        // The reply is hardly ever there yet when the call has just gone out.
        const ssize_t n = readSome(fd, first + got, size - got, deadline, got == 0);
        if (n <= 0)
            return fail(n == 0 ? EPROTO : errno);
        got += static_cast<size_t>(n);
    }
    if (!decodeHeader(reinterpret_cast<const uint8_t*>(first), header) || header.kind != ZS_KIND_REPLY ||
        header.nameLength != 0)
        return fail(EPROTO);
    if (header.bodyLength > ZS_MAX_BODY)
        return fail(EMSGSIZE);
    got = std::min<size_t>(got, ZS_HEADER_SIZE + header.bodyLength);  // what follows the frame is ignored
    return 0;
}

// The body grows with what arrives, not with what the header announces.
int readBody(int fd, zs_io* reply, size_t length, int64_t deadline)
{
    while (reply->size < length) {
        const size_t want = std::min(length - reply->size, kReadChunk);
        if (!reserve(reply, reply->size + want))
            return fail(ENOMEM);
        const ssize_t n = readSome(fd, reply->data + reply->size, want, deadline);
        if (n <= 0)
            return fail(n == 0 ? EPROTO : errno);
        reply->size += static_cast<size_t>(n);
        reply->data[reply->size] = '\0';
    }
    return 0;
}

void takeContent(zs_io* io, zs_io* reply)
{
    std::swap(io->data, reply->data);
    std::swap(io->size, reply->size);
    std::swap(io->capacity, reply->capacity);
}

int exchange(const Address& address, const std::string& method, zs_io* io, int64_t deadline, int passFd)
{
    Socket sock{socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    if (sock.fd < 0 || connectWithin(sock.fd, address, deadline) != 0)
        return -1;
    // Abstract names carry no permissions: whoever bound the name first would otherwise
    // receive our call (and any password in it).
    uid_t uid = 0;
    if (!peerUid(sock.fd, uid) || !trustedUid(uid)) {
        errno = EACCES;
        return -1;
    }
    Header call;
    call.kind = ZS_KIND_CALL;
    call.nameLength = static_cast<uint32_t>(method.size());
    call.bodyLength = static_cast<uint32_t>(zs_io_size(io));
    if (sendFrame(sock.fd, call, method, io ? io->data : nullptr, passFd, deadline) != 0)
        return fail(errno);
    Header header;
    char first[4096];
    size_t got = 0;
    if (readHeader(sock.fd, header, first, sizeof first, got, deadline) != 0)
        return -1;
    std::unique_ptr<zs_io, IoFree> reply(zs_io_create());
    if (!reply || zs_io_realloc(reply.get(), 0) != 0 ||
        zs_io_write(reply.get(), first + ZS_HEADER_SIZE, got - ZS_HEADER_SIZE) < 0)
        return fail(ENOMEM);
    if (readBody(sock.fd, reply.get(), header.bodyLength, deadline) != 0)
        return -1;
    if (io)
        takeContent(io, reply.get());
    return 0;
}

}  // namespace

namespace Orvex::Bus {

bool peerCredentials(int fd, ucred& cred)
{
    socklen_t length = sizeof(cred);
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &length) == 0;
}

bool peerUid(int fd, uid_t& uid)
{
    ucred cred{};
    if (!peerCredentials(fd, cred))
        return false;
    uid = cred.uid;
    return true;
}

bool trustedUid(uid_t uid)
{
    return uid == 0 || uid == geteuid();
}

}  // namespace Orvex::Bus

int zs_listener(const char* address, pid_t* pid, uid_t* uid)
{
    Address parsed;
    if (!address || !pid || !uid || !parseAddress(address, parsed))
        return -1;
    Socket sock{socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    if (sock.fd < 0 || connectWithin(sock.fd, parsed, nowMs() + 1000) != 0)
        return -1;
    ucred cred{};
    if (!Orvex::Bus::peerCredentials(sock.fd, cred))
        return -1;
    *pid = cred.pid;
    *uid = cred.uid;
    return 0;
}

int zs_call(const char* address, const char* method, zs_io* io, int timeout_s, int fd)
{
    Address parsed;
    if (!parseAddress(address, parsed))
        return -1;
    if (!method || !*method || strlen(method) > ZS_MAX_NAME) {
        errno = EINVAL;
        return -1;
    }
    if (zs_io_size(io) > ZS_MAX_BODY) {
        errno = EMSGSIZE;
        return -1;
    }
    const int64_t deadline = timeout_s > 0 ? nowMs() + int64_t(timeout_s) * 1000 : -1;
    try {
        return exchange(parsed, method, io, deadline, fd);
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return -1;
    }
}
