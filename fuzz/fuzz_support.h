// Helpers shared by the fuzz targets: a check that aborts (libFuzzer and the replay runner
// both treat that as a finding) and blocking socket I/O with a deadline for the targets
// that drive the bus over real AF_UNIX connections. Abstract socket names keep every run
// off the filesystem; the process id keeps parallel runs apart.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#define FUZZ_CHECK(condition, what)                                                          \
    do {                                                                                     \
        if (!(condition)) {                                                                  \
            std::fprintf(stderr, "%s:%d: check failed: %s (%s)\n", __FILE__, __LINE__,       \
                         #condition, what);                                                  \
            std::abort();                                                                    \
        }                                                                                    \
    } while (0)

namespace OrvexFuzz {

// "@name" for the bus functions, and the matching sockaddr for raw sockets.
inline std::string uniqueAddress(const char* purpose)
{
    return "@orvex-fuzz-" + std::string(purpose) + "-" + std::to_string(getpid());
}

inline socklen_t abstractAddress(const std::string& address, sockaddr_un& out)
{
    out = sockaddr_un{};
    out.sun_family = AF_UNIX;
    // address starts with '@', which stands for the leading zero byte.
    std::memcpy(out.sun_path + 1, address.data() + 1, address.size() - 1);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
}

inline int connectTo(const std::string& address)
{
    sockaddr_un addr;
    socklen_t length = abstractAddress(address, addr);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), length) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

inline int listenOn(const std::string& address)
{
    sockaddr_un addr;
    socklen_t length = abstractAddress(address, addr);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && (bind(fd, reinterpret_cast<sockaddr*>(&addr), length) != 0 || listen(fd, 16) != 0)) {
        close(fd);
        return -1;
    }
    return fd;
}

// Writes what the peer accepts; a peer that hangs up early simply gets less.
inline void writeAll(int fd, const void* data, size_t size)
{
    const char* p = static_cast<const char*>(data);
    while (size > 0) {
        ssize_t n = send(fd, p, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        p += n;
        size -= static_cast<size_t>(n);
    }
}

// Exactly size bytes, false at end of stream or error.
inline bool readExactly(int fd, void* data, size_t size)
{
    char* p = static_cast<char*>(data);
    while (size > 0) {
        ssize_t n = recv(fd, p, size, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Everything until the peer closes (a reset after its data counts as closing). False when
// the peer neither closes nor sends for timeoutMs: a hang.
inline bool readUntilClosed(int fd, std::string& out, int timeoutMs)
{
    char buffer[4096];
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        int ready = poll(&p, 1, timeoutMs);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            return false;
        ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return true;
        out.append(buffer, static_cast<size_t>(n));
    }
}

inline uint32_t u32le(const uint8_t* p)
{
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

}  // namespace OrvexFuzz
