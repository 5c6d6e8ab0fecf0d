#include "service/misc.h"

#include <poll.h>

#include <cerrno>
#include <climits>
#include <ctime>

namespace Orvex {

namespace {

int64_t monotonicMs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits until fd takes at least PIPE_BUF bytes (poll's POLLOUT on pipes and sockets).
bool roomWithin(int fd, int64_t deadline)
{
    for (;;) {
        const int64_t left = deadline - monotonicMs();
        if (left <= 0)
            return false;
        pollfd p{fd, POLLOUT, 0};
        const int n = ::poll(&p, 1, static_cast<int>(left));
        if (n > 0)
            return (p.revents & (POLLERR | POLLNVAL)) == 0;
        if (n < 0 && errno != EINTR)
            return false;
    }
}

}  // namespace

bool writeWithin(int fd, const char* data, size_t size, int timeoutMs) noexcept
{
    const int64_t deadline = monotonicMs() + timeoutMs;
    while (size > 0) {
        if (!roomWithin(fd, deadline))
            return false;
        const ssize_t n = ::write(fd, data, size < PIPE_BUF ? size : PIPE_BUF);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace Orvex
