// The bus service reading call frames: each input goes, as raw bytes, down a fresh
// connection to a live service (loop on a background thread), then the write side is shut.
// The service must answer exactly the well-formed calls, with the name and body it was
// sent, and close every other connection without a reply; it must never hang or stop
// serving. The handler echoes "<name up to its first zero byte>\0<body>".
#include "fuzz/fuzz_support.h"
#include "zservice/zservice.h"

#include <cstdint>
#include <string>
#include <thread>

using namespace OrvexFuzz;

namespace {

constexpr int kAnswerMs = 10000;

void echo(const char* method, zs_io* io, int fd)
{
    std::string reply = method;
    reply.push_back('\0');
    reply.append(zs_io_read(io, 0), zs_io_size(io));
    zs_io_realloc(io, 0);
    zs_io_write(io, reply.data(), reply.size());
    zs_reply(io);
    if (fd >= 0)
        close(fd);
    zs_io_free(io);
}

// One service for the whole run; stopped and joined at exit.
struct Bus {
    std::string address = uniqueAddress("call");
    zs* bus = zs_create(address.c_str(), 10, 0, &echo);
    std::thread loop;
    Bus()
    {
        FUZZ_CHECK(bus != nullptr, "bus service created");
        loop = std::thread([this] { zs_start(bus); });
    }
    ~Bus()
    {
        zs_stop(bus);
        loop.join();
        zs_free(bus);
    }
};

// The reply a well-formed call must get, or "" when the frame is refused or incomplete.
std::string expectedReply(const uint8_t* data, size_t size)
{
    if (size < ZS_HEADER_SIZE || data[0] != ZS_MAGIC0 || data[1] != ZS_MAGIC1 || data[2] != ZS_VERSION ||
        data[3] != ZS_KIND_CALL)
        return "";
    uint32_t nameLength = u32le(data + 4);
    uint32_t bodyLength = u32le(data + 8);
    if (nameLength < 1 || nameLength > ZS_MAX_NAME || bodyLength > ZS_MAX_BODY ||
        size - ZS_HEADER_SIZE < uint64_t(nameLength) + bodyLength)
        return "";
    std::string name(reinterpret_cast<const char*>(data) + ZS_HEADER_SIZE, nameLength);
    std::string body = name.substr(0, name.find('\0'));
    body.push_back('\0');
    body.append(reinterpret_cast<const char*>(data) + ZS_HEADER_SIZE + nameLength, bodyLength);
    std::string header = {char(ZS_MAGIC0), char(ZS_MAGIC1), char(ZS_VERSION), char(ZS_KIND_REPLY), 0, 0, 0, 0};
    for (int i = 0; i < 4; ++i)
        header.push_back(char(body.size() >> (8 * i)));
    return header + body;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Bus bus;
    int fd = connectTo(bus.address);
    FUZZ_CHECK(fd >= 0, "the service still accepts callers");
    writeAll(fd, data, size);
    shutdown(fd, SHUT_WR);
    std::string reply;
    bool closed = readUntilClosed(fd, reply, kAnswerMs);
    close(fd);
    FUZZ_CHECK(closed, "the service answers or hangs up in time");
    FUZZ_CHECK(reply == expectedReply(data, size), "reply matches the frame sent");
    return 0;
}
