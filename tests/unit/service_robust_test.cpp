// The service against callers that stall it: reply descriptors nobody reads, callers that
// hang up while queued, floods of large calls, a stop with calls still queued, and the
// forked help in a threaded process whose logging lock another thread holds.
#include "service/misc.h"
#include "service/service.h"
#include "service/worker.h"

#include "tests/support/bus.h"
#include "tests/support/service.h"

#include <Poco/Channel.h>
#include <Poco/Event.h>
#include <Poco/Logger.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <mutex>
#include <string>
#include <vector>

using namespace Orvex;
using namespace Orvex::Test;

namespace {

Poco::Event stallEntered;
Poco::Event stallRelease(Poco::Event::EVENT_MANUALRESET);
std::atomic<int> worked{0};
void stall(zs_io* io, json_t*& args, int& fd)
{
    stallEntered.set();
    stallRelease.wait();
    zs_reply_forward(io, fd, args);
}

void work(zs_io* io, json_t*& args, int& fd)
{
    ++worked;
    json_object_clear(args);
    zs_reply_forward(io, fd, args);
}

// Runs forked: lists what the process holds beyond the standard streams.
void descriptors(zs_io* io, json_t*&, int&)
{
    zs_io_realloc(io, 0);
    DIR* dir = opendir("/proc/self/fd");
    while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
        const int fd = atoi(entry->d_name);
        char target[256] = {};
        if (fd > 2 && fd != dirfd(dir) && readlinkat(dirfd(dir), entry->d_name, target, sizeof(target) - 1) >= 0)
            zs_io_printf(io, "%s\n", target);
    }
    if (dir != nullptr)
        closedir(dir);
    zs_reply(io);
}

// Another thread holds the log channel's lock whenever this process forks.
class LockedAtFork : public Poco::Channel {
public:
    void log(const Poco::Message&) override { std::lock_guard<std::mutex> lock(mutex); }
    static inline std::mutex mutex;
    static inline std::atomic<pid_t> owner{0};
    static void prepare()
    {
        if (getpid() == owner.load())
            mutex.lock();
    }
    static void parent()
    {
        if (getpid() == owner.load())
            mutex.unlock();
    }
};

class Robust : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        for (auto [name, function] : {std::make_pair("stall", &stall), std::make_pair("work", &work)})
            Service::addEndpoint(Service::WORKER_THREAD, TicktockQueue::TICK, name, "",
                new Endpoint{true, "", nullptr, function, TicktockQueue::TICK});
        Service::addEndpoint(Service::WORKER_PROCESS, TicktockQueue::TICK, "descriptors", "",
            new Endpoint{true, "", nullptr, &descriptors, TicktockQueue::TICK});
        // Before the service's threads exist: a channel swapped under a running thread is a
        // race (the call that orders the two goes through a socket, which no tool sees).
        Poco::Logger::root().setChannel(new LockedAtFork);
        pthread_atfork(&LockedAtFork::prepare, &LockedAtFork::parent, nullptr);
        Service::getInstance().start();
    }

    void SetUp() override
    {
        worked = 0;
        dispatchedCalls = 0;
        stallRelease.reset();
    }
    void TearDown() override { stallRelease.set(); }

    // A call in the background; the worker is stalled until stallRelease.
    std::future<BusReply> later(const std::string& method, const std::string& body = "{}", int fd = -1)
    {
        return std::async(std::launch::async, [=] { return bus_.call(method, body, fd, 60); });
    }
    void stallWorker()
    {
        stallCall_ = later("stall");
        ASSERT_TRUE(stallEntered.tryWait(10000));
    }
    bool dispatchedAtLeast(int n)
    {
        return waitFor([&] { return dispatchedCalls.load() >= n; }, 60s);  // sanitizers parse 15 MiB slowly
    }

    ServedBus bus_{uniqueAddress("robust"), &toService, 30, 0};
    std::future<BusReply> stallCall_;
};

}  // namespace

TEST_F(Robust, AReplyDescriptorNobodyReadsHoldsNeitherTheLoopNorAWorkerForLong)
{
    Pipe full;  // its buffer filled, and nobody reads it
    const int fd = full.writeEnd();
    fcntl(fd, F_SETFL, O_NONBLOCK);
    const std::string chunk(65536, 'x');
    while (write(fd, chunk.data(), chunk.size()) > 0) {
    }
    fcntl(fd, F_SETFL, 0);  // the service sees it as callers hand it: blocking
    const auto start = std::chrono::steady_clock::now();
    auto onWorker = later("work", "{}", fd);
    ASSERT_TRUE(dispatchedAtLeast(1));
    auto onLoop = later("unknown_method", "{}", fd);  // its 404 is written by the loop
    EXPECT_EQ(0, onWorker.get().rc);
    EXPECT_EQ(0, onLoop.get().rc);
    EXPECT_EQ("{}", bus_.call("work", "{}", -1, 5).body);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 15s);
}

TEST_F(Robust, CallsWhoseCallersHungUpWhileQueuedStillRunAndBodiesOverTheByteCapAreRefused)
{
    stallWorker();
    for (int i = 0; i < 3; ++i) {
        const int fd = rawConnect(bus_.address());
        ASSERT_TRUE(sendAll(fd, callFrame("work", "{}")));
        ASSERT_TRUE(dispatchedAtLeast(2 + i));
        close(fd);
    }
    // Four bodies of 15 MiB fit the worker's 64 MiB; the fifth is refused at once.
    const std::string big = "{\"x\":\"" + std::string(15u << 20, 'a') + "\"}";
    std::vector<std::future<BusReply>> calls;
    for (int i = 0; i < 5; ++i)
        calls.push_back(later("work", big));
    ASSERT_TRUE(dispatchedAtLeast(9));
    stallRelease.set();
    int refused = 0;
    for (auto& call : calls) {
        const std::string body = call.get().body;
        refused += body == "{\"error_code\":429,\"error_message\":\"\"}";
        EXPECT_TRUE(body == "{}" || body == "{\"error_code\":429,\"error_message\":\"\"}") << body.substr(0, 80);
    }
    EXPECT_EQ(1, refused);
    EXPECT_EQ(7, worked.load()) << "a call the bus accepted was lost";
}

TEST_F(Robust, CallsStillQueuedWhenTheServiceStopsGetAClearErrorReply)
{
    stallWorker();
    auto first = later("work");
    auto second = later("work");
    ASSERT_TRUE(dispatchedAtLeast(3));
    Service::getInstance().stop();
    const std::string stopped = "{\"error_code\":503,\"error_message\":\"service stopped\"}";
    EXPECT_EQ(stopped, first.get().body);
    EXPECT_EQ(stopped, second.get().body);
    EXPECT_EQ(stopped, bus_.call("work", "{}", -1, 5).body);
    stallRelease.set();
    EXPECT_EQ("{}", stallCall_.get().body);
    EXPECT_EQ(0, worked.load());
}

TEST_F(Robust, ForkedHelpAnswersWhileAnotherThreadHoldsTheLogLockAndKeepsOnlyItsOwnCall)
{
    LockedAtFork::owner = getpid();
    Poco::Logger::root().setLevel(Poco::Message::PRIO_TRACE);
    for (int i = 0; i < 20; ++i) {
        const BusReply reply = bus_.call("help", "{}", -1, 5);
        ASSERT_EQ(0, reply.rc) << "help call " << i << ": errno " << reply.error;
        EXPECT_NE(std::string::npos, reply.body.find("   descriptors\n"));
    }
    const int otherCaller = rawConnect(bus_.address());  // connected, still sending
    const BusReply held = bus_.call("descriptors", "{}", -1, 5);
    close(otherCaller);
    Poco::Logger::root().setLevel(Poco::Message::PRIO_INFORMATION);
    LockedAtFork::owner = 0;
    ASSERT_EQ(0, held.rc);
    EXPECT_EQ(0u, held.body.rfind("socket:[", 0)) << held.body;
    EXPECT_EQ(1, std::count(held.body.begin(), held.body.end(), '\n')) << held.body;
}
