// The service side over real sockets: framing limits, many callers at once, the receive
// time-out, passed descriptors, replies, and signals. (Channels across fork: the process
// worker's test.)
#include "tests/support/bus.h"

#include <gtest/gtest.h>

#include "zservice/channel.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

using namespace Orvex::Test;

namespace {

using Clock = std::chrono::steady_clock;

long elapsedMs(Clock::time_point since)
{
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

// Sends one raw message with the given descriptors attached to its first byte.
void sendWithFds(int sock, const std::string& bytes, const std::vector<int>& fds)
{
    std::vector<char> control(CMSG_SPACE(fds.size() * sizeof(int)));
    iovec iov{const_cast<char*>(bytes.data()), bytes.size()};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control.data();
    msg.msg_controllen = control.size();
    cmsghdr* cm = CMSG_FIRSTHDR(&msg);
    cm->cmsg_level = SOL_SOCKET;
    cm->cmsg_type = SCM_RIGHTS;
    cm->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
    memcpy(CMSG_DATA(cm), fds.data(), fds.size() * sizeof(int));
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), sendmsg(sock, &msg, MSG_NOSIGNAL));
}

}  // namespace

TEST(ZserviceFraming, LimitsAreInclusiveAndTrailingBytesAreIgnored)
{
    TestService service;
    const std::string big(ZS_MAX_BODY, 'b');
    const BusReply echoed = busCall(service.address(), "raw", big);  // a failed call keeps what was sent
    EXPECT_EQ(0, echoed.rc);
    EXPECT_TRUE(big == echoed.body);

    const int sock = rawConnect(service.address());
    ASSERT_TRUE(sendAll(sock, callFrame("m", "body") + "trailing bytes that are not a frame"));
    bool closed = false;
    const std::string reply = readUntilClosed(sock, 5000, closed);
    close(sock);
    EXPECT_TRUE(closed);
    // The wire format, byte for byte: "ZS", version 1, kind 'R', no name, 11 bytes of body.
    EXPECT_EQ(std::string("ZS\x01R\0\0\0\0\x0b\0\0\0" "echo:m:body", 23), reply);
    EXPECT_EQ(2, service.calls());
}

TEST(ZserviceLoop, SlowPartialCallersDoNotDelayAFastOne)
{
    TestService service;
    std::vector<int> slow;
    const std::string frame = callFrame("slow", std::string(1000, 's'));
    const size_t sent[] = {0, 6, 500};  // silent, half a header, or the header and half the body
    for (int i = 0; i < 100; ++i) {
        slow.push_back(rawConnect(service.address()));
        ASSERT_TRUE(sendAll(slow.back(), frame.substr(0, sent[i % 3])));
    }
    const auto start = Clock::now();
    EXPECT_EQ("echo:fast:{}", busCall(service.address(), "fast", "{}").body);
    EXPECT_LT(elapsedMs(start), 1000);
    // Once they finish, the slow ones are served too.
    for (size_t i = 0; i < slow.size(); ++i) {
        ASSERT_TRUE(sendAll(slow[i], frame.substr(sent[i % 3])));
        bool closed = false;
        EXPECT_EQ(12u + 1010u, readUntilClosed(slow[i], 5000, closed).size());
        close(slow[i]);
    }
    EXPECT_EQ(101, service.calls());
}

TEST(ZserviceLoop, CallersThatDoNotDeliverInTimeAreDisconnected)
{
    TestService service({}, 1);
    const int silent = rawConnect(service.address());
    const int partial = rawConnect(service.address());
    ASSERT_TRUE(sendAll(partial, callFrame("late", "{}").substr(0, 14)));
    const auto start = Clock::now();
    for (int sock : {silent, partial}) {
        bool closed = false;
        EXPECT_EQ("", readUntilClosed(sock, 5000, closed));
        EXPECT_TRUE(closed);
        close(sock);
    }
    EXPECT_GE(elapsedMs(start), 800);
    EXPECT_EQ(0, service.calls());
    EXPECT_EQ("echo:m:", busCall(service.address(), "m", "").body);
}

TEST(ZserviceDescriptor, ExtraDescriptorsAreClosedAndTruncatedControlDataIsABadFrame)
{
    {
        TestService warmUp;  // the process-wide signal pipe the first service creates is no leak
    }
    const int fdsBefore = openFds();
    {
        Pipe first, extra;
        TestService service([](const char*, zs_io* io, int fd) {
            EXPECT_EQ(FD_CLOEXEC, fcntl(fd, F_GETFD) & FD_CLOEXEC);
            EXPECT_EQ(1, write(fd, "1", 1));
            close(fd);
            zs_reply(io);
            zs_io_free(io);
        });
        int sock = rawConnect(service.address());
        sendWithFds(sock, callFrame("two", ""), {first.writeEnd(), extra.writeEnd()});
        bool closed = false;
        EXPECT_EQ(12u, readUntilClosed(sock, 5000, closed).size());
        close(sock);

        // Far more descriptors than any call may carry: the kernel truncates.
        sock = rawConnect(service.address());
        sendWithFds(sock, callFrame("many", ""), std::vector<int>(64, extra.writeEnd()));
        EXPECT_EQ("", readUntilClosed(sock, 5000, closed));
        EXPECT_TRUE(closed);
        close(sock);
        EXPECT_EQ(1, service.calls());
        // End of file only once the service holds no copy of either write end.
        EXPECT_EQ("1", first.readAll());
        EXPECT_EQ("", extra.readAll());
    }
    EXPECT_EQ(fdsBefore, openFds());
}

TEST(ZserviceChannel, RepliesAtMostOnceAndNotAtAllOnceTheCallerHungUp)
{
    zs_io* io[2] = {};  // the channels the handler kept, in call order
    std::atomic<int> taken{0};
    TestService service{[&](const char*, zs_io* channel, int) {
        io[taken.load()] = channel;
        ++taken;
    }};
    int socks[2] = {rawConnect(service.address()), rawConnect(service.address())};
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(sendAll(socks[i], callFrame("m", "")));
        ASSERT_TRUE(waitFor([&] { return taken == i + 1; }, 5s));
    }
    zs_io_printf(io[0], "%d", 1);
    EXPECT_EQ(0, zs_reply(io[0]));
    EXPECT_EQ(-1, zs_reply(io[0]));
    zs_io_free(io[0]);
    bool closed = false;
    EXPECT_EQ(frame(ZS_KIND_REPLY, "", "1"), readUntilClosed(socks[0], 5000, closed));
    EXPECT_TRUE(closed);

    EXPECT_EQ(1, zs_io_alive(io[1]));
    close(socks[1]);
    EXPECT_EQ(0, zs_io_alive(io[1]));
    EXPECT_EQ(-1, zs_reply(io[1]));
    zs_io_free(io[1]);
    close(socks[0]);
}

namespace {

std::atomic<zs*> signalledBus{nullptr};
std::atomic<long> callbackThread{0};
std::atomic<int> callbackSignal{0};

void stopOnSignal(int signo)
{
    callbackThread = syscall(SYS_gettid);
    callbackSignal = signo;
    zs_stop(signalledBus.load());
}

}  // namespace

// A signal that came before the loop started is handled once it runs, by its callback on
// the loop's thread, and the callback may stop the loop.
TEST(ZserviceSignal, CallbackRunsOnTheLoopThreadOnceTheLoopRunsAndMayStopIt)
{
    const std::string address = uniqueAddress("signal");
    zs* bus = zs_create(address.c_str(), 4, 1, TestService::echo);
    ASSERT_NE(nullptr, bus);
    signalledBus = bus;
    ASSERT_EQ(0, zs_signal(SIGUSR1, stopOnSignal));
    ASSERT_EQ(0, raise(SIGUSR1));
    EXPECT_EQ(0, callbackSignal.load()) << "handled before the loop ran";
    long loopThread = 0;
    int result = -1;
    std::thread loop([&] {
        loopThread = syscall(SYS_gettid);
        result = zs_start(bus);
    });
    loop.join();
    EXPECT_EQ(0, result);
    EXPECT_EQ(SIGUSR1, callbackSignal.load());
    EXPECT_EQ(loopThread, callbackThread.load());
    zs_free(bus);
}

namespace {

std::atomic<bool> waitReleased{false};
std::atomic<bool> waitEntered{false};

void waitOrEcho(const char* method, zs_io* io, int fd)
{
    if (strcmp(method, "wait") == 0) {
        waitEntered = true;
        while (!waitReleased)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    TestService::echo(method, io, fd);
}

struct Ticks {
    std::atomic<int> count{0};
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
};

void slowTick(void* arg)
{
    auto* ticks = static_cast<Ticks*>(arg);
    if (++ticks->inside > 1)
        ++ticks->overlaps;
    ++ticks->count;
    std::this_thread::sleep_for(std::chrono::milliseconds(30));  // longer than the period
    --ticks->inside;
}

}  // namespace

TEST(ZserviceThreads, AHandlerThatWaitsHoldsUpNeitherOtherCallersNorTheStop)
{
    ServedBus served(uniqueAddress("threads"), waitOrEcho, 4, 0, 2);
    ASSERT_TRUE(served.ok());
    std::thread waiting([&] { EXPECT_EQ("echo:wait:", served.call("wait").body); });
    EXPECT_TRUE(waitFor([] { return waitEntered.load(); }));
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ("echo:quick:{}", served.call("quick", "{}").body);
    waitReleased = true;
    waiting.join();
    EXPECT_EQ(0, served.stop());
}

TEST(ZserviceThreads, TheTimerKeepsItsPeriodAndNeverRunsTwiceAtOnce)
{
    const std::string address = uniqueAddress("timer");
    zs* bus = zs_create(address.c_str(), 4, 0, TestService::echo);
    ASSERT_NE(nullptr, bus);
    Ticks ticks;
    ASSERT_EQ(0, zs_timer(bus, 0, 10, slowTick, &ticks));
    std::thread loop([bus] { EXPECT_EQ(0, zs_start_threads(bus, 2)); });
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ("echo:m:", busCall(address, "m", "").body);  // served beside the timer
    zs_stop(bus);
    loop.join();
    zs_free(bus);
    EXPECT_GE(ticks.count.load(), 5);
    EXPECT_EQ(0, ticks.overlaps.load());
}
