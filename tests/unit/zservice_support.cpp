#include "tests/unit/zservice_support.h"

#include <dirent.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

namespace Orvex::Test {

namespace {

std::atomic<int> addressCounter{0};
std::atomic<int> callCount{0};
// The handler of the one TestService alive at a time (set before its loop starts).
TestService::Handler currentHandler;

}  // namespace

std::string uniqueAddress(const char* tag)
{
    return "@orvex-bus-test-" + std::to_string(getpid()) + "-" + std::to_string(addressCounter++) + "-" + tag;
}

int openFdCount()
{
    DIR* dir = opendir("/proc/self/fd");
    int count = 0;
    while (readdir(dir))
        ++count;
    closedir(dir);
    return count;
}

int settledFdCount()
{
    {
        TestService warmUp;
    }
    return openFdCount();
}

void putU32(std::string& frame, size_t offset, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        frame[offset + i] = static_cast<char>(value >> (8 * i));
}

std::string callFrame(const std::string& method, const std::string& body)
{
    std::string frame("ZS\x01" "C", 4);
    frame.resize(12);
    putU32(frame, 4, static_cast<uint32_t>(method.size()));
    putU32(frame, 8, static_cast<uint32_t>(body.size()));
    return frame + method + body;
}

int rawConnect(const std::string& address)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    memcpy(sa.sun_path, address.data(), address.size());
    sa.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address.size());
    EXPECT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&sa), length)) << strerror(errno);
    return fd;
}

void sendAll(int fd, const std::string& bytes)
{
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
}

std::string readUntilClosed(int fd, int timeoutMs, bool& closed)
{
    std::string out;
    closed = false;
    pollfd p{fd, POLLIN, 0};
    char buffer[4096];
    while (poll(&p, 1, timeoutMs) > 0) {
        const ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n <= 0) {
            closed = true;
            break;
        }
        out.append(buffer, static_cast<size_t>(n));
    }
    return out;
}

TestService::TestService(Handler onCall, int recvTimeout, int policy, std::string address)
    : address_(std::move(address))
{
    callCount = 0;
    currentHandler = onCall ? std::move(onCall) : Handler(&TestService::echo);
    bus_ = zs_create(address_.c_str(), recvTimeout, policy, &TestService::dispatch);
    if (bus_)
        loop_ = std::thread([this] { result_ = zs_start(bus_); });
}

TestService::~TestService()
{
    stop();
    zs_free(bus_);
}

int TestService::stop()
{
    if (loop_.joinable()) {
        zs_stop(bus_);
        loop_.join();
    }
    return result_;
}

int TestService::calls() const
{
    return callCount.load();
}

void TestService::dispatch(const char* method, zs_io* io, int fd)
{
    ++callCount;
    currentHandler(method, io, fd);
}

void TestService::echo(const char* method, zs_io* io, int fd)
{
    if (strcmp(method, "raw") != 0) {
        std::string reply = std::string("echo:") + method + ":" + zs_io_read(io, 0);
        zs_io_realloc(io, 0);
        zs_io_write(io, reply.data(), reply.size());
    }
    zs_reply(io);
    zs_io_free(io);
    if (fd >= 0)
        close(fd);
}

}  // namespace Orvex::Test
