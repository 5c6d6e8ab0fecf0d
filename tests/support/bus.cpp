#include "tests/support/bus.h"

#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <functional>

#include <gtest/gtest.h>

#include "zservice/channel.h"
#include "zservice/internal.h"

namespace Orvex::Test {

BusReply busCall(const std::string& address, const std::string& method, const std::string& body, int fd,
    int timeoutSeconds)
{
    ZsIoPtr io = makeZsIo();
    zs_io_write(io.get(), body.data(), body.size());
    BusReply reply;
    errno = 0;
    reply.rc = zs_call(address.c_str(), method.c_str(), io.get(), timeoutSeconds, fd);
    reply.error = errno;
    reply.body.assign(zs_io_read(io.get(), 0), zs_io_size(io.get()));
    return reply;
}

ServedBus::ServedBus(const std::string& address, zs_handler handler, int recvTimeout, int policy, int threads)
    : address_(address)
{
    bus_ = zs_create(address_.c_str(), recvTimeout, policy, handler);
    if (bus_)
        loop_ = std::thread([this, threads] { result_ = zs_start_threads(bus_, threads); });
}

ServedBus::~ServedBus()
{
    stop();
    if (bus_)
        zs_free(bus_);
}

int ServedBus::stop()
{
    if (loop_.joinable()) {
        zs_stop(bus_);
        loop_.join();
    }
    return result_;
}

std::string uniqueAddress(const char* tag)
{
    static std::atomic<int> counter{0};
    return "@orvex-test-" + std::to_string(getpid()) + "-" + std::to_string(counter++) + "-" + tag;
}

std::string frame(uint8_t kind, const std::string& name, const std::string& body)
{
    uint8_t header[ZS_HEADER_SIZE];
    Bus::encodeHeader({kind, static_cast<uint32_t>(name.size()), static_cast<uint32_t>(body.size())}, header);
    return std::string(reinterpret_cast<char*>(header), sizeof header) + name + body;
}

std::string callFrame(const std::string& method, const std::string& body)
{
    return frame(ZS_KIND_CALL, method, body);
}

namespace {

int rawSocket(const std::string& address, bool listening)
{
    Bus::Address parsed;
    if (!Bus::parseAddress(address.c_str(), parsed))
        return -1;
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    auto* sa = reinterpret_cast<sockaddr*>(&parsed.addr);
    bool ok = listening ? bind(fd.get(), sa, parsed.length) == 0 && listen(fd.get(), 16) == 0
                        : connect(fd.get(), sa, parsed.length) == 0;
    return ok ? fd.release() : -1;
}

}  // namespace

int rawConnect(const std::string& address)
{
    return rawSocket(address, false);
}

int rawListen(const std::string& address)
{
    return rawSocket(address, true);
}

bool sendAll(int fd, const std::string& bytes)
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

SentCall::SentCall(const std::string& address, const std::string& method, const std::string& body)
    : fd_(rawConnect(address))
{
    if (fd_.get() < 0 || !sendAll(fd_.get(), callFrame(method, body)))
        return;
    // A stream socket's sent bytes count against it until the reader has taken them.
    read_ = waitFor([this] {
        int unread = -1;
        return ::ioctl(fd_.get(), SIOCOUTQ, &unread) == 0 && unread == 0;
    });
}

BusReply SentCall::reply(int timeoutMs)
{
    BusReply reply;
    bool closed = false;
    const std::string bytes = fd_.get() < 0 ? "" : readUntilClosed(fd_.get(), timeoutMs, closed);
    Bus::Header header{};
    if (!closed || bytes.size() < ZS_HEADER_SIZE ||
        !Bus::decodeHeader(reinterpret_cast<const uint8_t*>(bytes.data()), header) ||
        bytes.size() != ZS_HEADER_SIZE + header.bodyLength)
        return reply;
    reply.rc = 0;
    reply.body = bytes.substr(ZS_HEADER_SIZE);
    return reply;
}

bool callAndHangUp(const std::string& address, const std::string& method, const std::string& body, int passFd)
{
    UniqueFd fd(rawConnect(address));
    if (fd.get() < 0)
        return false;
    const Bus::Header header{ZS_KIND_CALL, static_cast<uint32_t>(method.size()), static_cast<uint32_t>(body.size())};
    return Bus::sendFrame(fd.get(), header, method, body.data(), passFd, Bus::nowMs() + 5000) == 0;
}

std::string readUntilClosed(int fd, int timeoutMs, bool& closed)
{
    std::string out;
    closed = false;
    pollfd p{fd, POLLIN, 0};
    char buffer[4096];
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        // A signal (libFuzzer's timer, for one) interrupts the wait; it is not a time-out.
        const int ready = poll(&p, 1, std::max<int>(0, static_cast<int>(left.count())));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            break;
        ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            closed = true;
            break;
        }
        out.append(buffer, static_cast<size_t>(n));
    }
    return out;
}

Pipe::Pipe()
{
    EXPECT_EQ(::pipe(fds_), 0);
}

Pipe::~Pipe()
{
    closeWriteEnd();
    ::close(fds_[0]);
}

void Pipe::closeWriteEnd()
{
    if (fds_[1] >= 0)
        ::close(fds_[1]);
    fds_[1] = -1;
}

std::string Pipe::readAll()
{
    closeWriteEnd();
    std::string out;
    char buffer[4096];
    for (;;) {
        pollfd p{fds_[0], POLLIN, 0};
        if (::poll(&p, 1, 5000) <= 0) {
            ADD_FAILURE() << "a copy of the reply descriptor was left open";
            return out;
        }
        ssize_t n = ::read(fds_[0], buffer, sizeof buffer);
        if (n <= 0)
            return out;
        out.append(buffer, static_cast<size_t>(n));
    }
}

namespace {

std::atomic<int> callCount{0};
// The handler of the one TestService alive at a time (set before its loop starts).
TestService::Handler currentHandler;

}  // namespace

TestService::TestService(Handler onCall, int recvTimeout, int policy, std::string address)
{
    callCount = 0;
    currentHandler = onCall ? std::move(onCall) : Handler(&TestService::echo);
    served_ = std::make_unique<ServedBus>(address, &TestService::dispatch, recvTimeout, policy);
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
