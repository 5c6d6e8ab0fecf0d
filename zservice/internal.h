// Pieces shared by the bus's server, client and channel code; not part of the interface.
#pragma once

#include "zservice/zservice.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cstdint>
#include <string>

// One call's channel: the buffer (always zero-terminated after `size` bytes once
// allocated), the connection to the caller (owned; -1 for a scratch buffer) and the
// method name, kept here so the handler's `method` lives as long as the channel.
struct zs_io {
    char* data = nullptr;
    size_t size = 0;
    size_t capacity = 0;  // bytes allocated, terminator included
    int fd = -1;
    bool replied = false;
    bool counted = false;  // one of the server's open calls (see openCalls)
    std::string method;
};

namespace Orvex::Bus {

// The 12-byte frame header: "ZS", version, kind, u32le name length, u32le body length.
struct Header {
    uint8_t kind = 0;
    uint32_t nameLength = 0;
    uint32_t bodyLength = 0;
};

void encodeHeader(const Header& header, uint8_t out[ZS_HEADER_SIZE]);
// False for a wrong magic or version; kind and lengths are the caller's to check.
bool decodeHeader(const uint8_t in[ZS_HEADER_SIZE], Header& header);
// The server's rule for a call frame header.
bool validCallHeader(const Header& header);

// A parsed bus address. Fails with errno EINVAL (empty, NULL, "@" alone) or ENAMETOOLONG.
struct Address {
    sockaddr_un addr{};
    socklen_t length = 0;
    bool abstract = false;
    std::string path;  // the filesystem path, empty for an abstract name
};
bool parseAddress(const char* text, Address& out);

// Grows the channel so it can hold `size` content bytes plus the terminator.
bool reserve(zs_io* io, size_t size);

// Calls this process holds a caller's connection for, from accept until the call's channel
// (or the pending caller) is freed; the server stops accepting at its cap so a flood of
// callers cannot take the descriptors the process needs for its own work.
std::atomic<long>& openCalls();

// Milliseconds on the monotonic clock.
int64_t nowMs();

// Waits for `events` on fd until deadlineMs (nowMs() scale; negative = no limit).
// 1 when ready (or hung up: the next I/O tells), 0 on time-out (errno ETIMEDOUT), -1 on error.
int waitFor(int fd, short events, int64_t deadlineMs);

// Sends one whole frame on a non-blocking socket; passFd >= 0 rides along as SCM_RIGHTS
// with the header's first byte. 0, or -1 with errno (ETIMEDOUT, EPIPE, ...).
int sendFrame(int fd, const Header& header, const std::string& name, const char* body,
              int passFd, int64_t deadlineMs);

// The process, user and group of a connected socket's other end (SO_PEERCRED).
bool peerCredentials(int fd, ucred& cred);
// Its user id alone.
bool peerUid(int fd, uid_t& uid);
// The trust rule both ways: root, or our own effective user id.
bool trustedUid(uid_t uid);

// The process-wide signal self-pipe: read end for the loop (created on first use and
// again in a forked child), and the drain that runs the registered callbacks.
int signalPipeForLoop();
void runPendingSignals(int readFd);

}  // namespace Orvex::Bus
