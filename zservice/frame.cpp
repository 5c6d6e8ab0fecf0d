// Frame coding, address parsing and socket I/O shared by the server and the client.
#include "zservice/internal.h"

#include <poll.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>

namespace Orvex::Bus {

namespace {

void putU32(uint8_t* out, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<uint8_t>(value >> (8 * i));
}

uint32_t getU32(const uint8_t* in)
{
    return uint32_t(in[0]) | uint32_t(in[1]) << 8 | uint32_t(in[2]) << 16 | uint32_t(in[3]) << 24;
}

}  // namespace

void encodeHeader(const Header& header, uint8_t out[ZS_HEADER_SIZE])
{
    out[0] = ZS_MAGIC0;
    out[1] = ZS_MAGIC1;
    out[2] = ZS_VERSION;
    out[3] = header.kind;
    putU32(out + 4, header.nameLength);
    putU32(out + 8, header.bodyLength);
}

bool decodeHeader(const uint8_t in[ZS_HEADER_SIZE], Header& header)
{
    header.kind = in[3];
    header.nameLength = getU32(in + 4);
    header.bodyLength = getU32(in + 8);
    return in[0] == ZS_MAGIC0 && in[1] == ZS_MAGIC1 && in[2] == ZS_VERSION;
}

bool validCallHeader(const Header& header)
{
    return header.kind == ZS_KIND_CALL && header.nameLength >= 1 &&
           header.nameLength <= ZS_MAX_NAME && header.bodyLength <= ZS_MAX_BODY;
}

bool parseAddress(const char* text, Address& out)
{
    if (!text || !*text || (text[0] == '@' && !text[1])) {
        errno = EINVAL;
        return false;
    }
    const bool abstract = text[0] == '@';
    const size_t length = strlen(text);  // for "@name" the '@' stands for the leading zero
    // A path keeps its terminating zero inside sun_path; an abstract name needs none.
    if (length > sizeof(out.addr.sun_path) - (abstract ? 0 : 1)) {
        errno = ENAMETOOLONG;
        return false;
    }
    out = Address{};
    out.addr.sun_family = AF_UNIX;
    out.abstract = abstract;
    memcpy(out.addr.sun_path, text, length);
    if (abstract)
        out.addr.sun_path[0] = '\0';
    else
        out.path = text;
    out.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length + (abstract ? 0 : 1));
    return true;
}

int64_t nowMs()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace Orvex::Bus

namespace Orvex::Bus {

int waitFor(int fd, short events, int64_t deadlineMs)
{
    for (;;) {
        int timeout = -1;
        if (deadlineMs >= 0) {
            const int64_t left = deadlineMs - nowMs();
            if (left <= 0) {
                errno = ETIMEDOUT;
                return 0;
            }
            timeout = static_cast<int>(left > 1000000 ? 1000000 : left);
        }
        pollfd p{fd, events, 0};
        const int n = poll(&p, 1, timeout);
        if (n > 0)
            return 1;
        if (n < 0 && errno != EINTR)
            return -1;
    }
}

namespace {

// One sendmsg over what is left of iov; the descriptor goes with the first byte only.
ssize_t sendSome(int fd, iovec* iov, int count, int passFd)
{
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<size_t>(count);
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    if (passFd >= 0) {
        memset(control, 0, sizeof(control));
        msg.msg_control = control;
        msg.msg_controllen = sizeof(control);
        cmsghdr* cm = CMSG_FIRSTHDR(&msg);
        cm->cmsg_level = SOL_SOCKET;
        cm->cmsg_type = SCM_RIGHTS;
        cm->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(cm), &passFd, sizeof(int));
    }
    return sendmsg(fd, &msg, MSG_NOSIGNAL);
}

// Drops `sent` bytes from the front of iov; returns the index of the first unfinished entry.
int advance(iovec* iov, int count, int first, size_t sent)
{
    while (first < count && sent >= iov[first].iov_len) {
        sent -= iov[first].iov_len;
        ++first;
    }
    if (first < count) {
        iov[first].iov_base = static_cast<char*>(iov[first].iov_base) + sent;
        iov[first].iov_len -= sent;
    }
    return first;
}

}  // namespace

int sendFrame(int fd, const Header& header, const std::string& name, const char* body,
              int passFd, int64_t deadlineMs)
{
    uint8_t head[ZS_HEADER_SIZE];
    encodeHeader(header, head);
    iovec iov[3] = {{head, sizeof(head)},
                    {const_cast<char*>(name.data()), header.nameLength},
                    {const_cast<char*>(body), header.bodyLength}};
    int first = 0;
    while (first < 3) {
        const ssize_t n = sendSome(fd, iov + first, 3 - first, passFd);
        if (n >= 0) {
            passFd = -1;
            first = advance(iov, 3, first, static_cast<size_t>(n));
        } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (waitFor(fd, POLLOUT, deadlineMs) <= 0)
                return -1;
        } else if (errno != EINTR) {
            return -1;
        }
    }
    return 0;
}

}  // namespace Orvex::Bus
