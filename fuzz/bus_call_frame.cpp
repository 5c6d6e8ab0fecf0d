// The bus service reading call frames: each input goes, as raw bytes, down a fresh
// connection to a live service (loop on a background thread), then the write side is shut.
// The service must answer exactly the well-formed calls, with the name and body it was
// sent, and close every other connection without a reply; it must never hang or stop
// serving. The handler echoes "<name up to its first zero byte>\0<body>".
#include "fuzz/fuzz_support.h"
#include "tests/support/bus.h"
#include "zservice/internal.h"
#include "zservice/zservice.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <string>

using namespace Orvex;

namespace {

constexpr int kAnswerMs = 10000;

void echo(const char* method, zs_io* io, int fd)
{
    std::string reply = method;
    reply.push_back('\0');
    reply.append(zs_io_read(io, 0), zs_io_size(io));
    zs_io_realloc(io, 0);
    zs_io_write(io, reply.data(), reply.size());
    Test::TestService::echo("raw", io, fd);  // replies with the bare body
}

// The reply a well-formed call must get, or "" when the frame is refused or incomplete.
std::string expectedReply(const uint8_t* data, size_t size)
{
    Bus::Header header;
    if (size < ZS_HEADER_SIZE || !Bus::decodeHeader(data, header) || header.kind != ZS_KIND_CALL)
        return "";
    if (header.nameLength < 1 || header.nameLength > ZS_MAX_NAME || header.bodyLength > ZS_MAX_BODY ||
        size - ZS_HEADER_SIZE < uint64_t(header.nameLength) + header.bodyLength)
        return "";
    std::string name(reinterpret_cast<const char*>(data) + ZS_HEADER_SIZE, header.nameLength);
    std::string body = name.substr(0, name.find('\0'));
    body.push_back('\0');
    body.append(reinterpret_cast<const char*>(data) + ZS_HEADER_SIZE + header.nameLength, header.bodyLength);
    return Test::frame(ZS_KIND_REPLY, "", body);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Test::ServedBus bus(Test::uniqueAddress("call"), &echo, 10);
    FUZZ_CHECK(bus.ok(), "bus service created");
    UniqueFd fd(Test::rawConnect(bus.address()));
    FUZZ_CHECK(fd, "the service still accepts callers");
    Test::sendAll(fd.get(), std::string(reinterpret_cast<const char*>(data), size));
    shutdown(fd.get(), SHUT_WR);
    bool closed = false;
    std::string reply = Test::readUntilClosed(fd.get(), kAnswerMs, closed);
    FUZZ_CHECK(closed, "the service answers or hangs up in time");
    FUZZ_CHECK(reply == expectedReply(data, size), "reply matches the frame sent");
    return 0;
}
