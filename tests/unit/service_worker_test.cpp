#include "common/exceptions.h"
#include "service/misc.h"
#include "service/service.h"
#include "service/worker.h"

#include "tests/support/bus.h"
#include "tests/support/service.h"

#include <Poco/Event.h>
#include <Poco/Thread.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace Orvex;
using Orvex::Test::BusReply;
using Orvex::Test::ServedBus;
using Orvex::Test::Pipe;
using Orvex::Test::toService;
using Orvex::Test::errorReply;

namespace {

// The worker under test: bounded like the service's mode-0 worker, on its own thread.
PthreadWorker bounded(5000);
Poco::Thread boundedThread;

Poco::Event gateEntered, fillsDone;
Poco::Event gateOpen(Poco::Event::EVENT_MANUALRESET);
std::atomic<int> fills{0};
int slowGate[2] = {-1, -1};

void throwing(zs_io*, json_t*& args, int&)
{
    const char* kind = json_string_value(json_object_get(args, "kind"));
    std::string k = kind != nullptr ? kind : "";
    json_object_set_new(args, "partial", json_true());  // never part of an error reply
    if (k == "option") throw OptionException("port incorrect", 400);
    if (k == "notfound") throw SessionNotFound("no session", 404);
    if (k == "syslog") throw SyslogException("syslog down", 502);
    if (k == "mysql") throw MySQL::Exception("db gone", 2006);
    if (k == "database") throw Database::Exception("disk full", 508);
    if (k == "onlineuser") throw OnlineUser::Exception("user busy", 12);
    if (k == "poco3") throw Poco::Exception("three", 3);
    if (k == "poco1644") throw Poco::Exception("signal", 1644);
    if (k == "poco") throw Poco::IOException("io", 5);
    throw 42;
}

void gate(zs_io* io, json_t*& args, int& fd)
{
    gateEntered.set();
    gateOpen.wait();
    zs_reply_forward(io, fd, args);
}

void fill(zs_io*, json_t*&, int&)
{
    if (++fills == 5000)
        fillsDone.set();
}

void slow(zs_io* io, json_t*& args, int& fd)
{
    char byte;
    if (::read(slowGate[0], &byte, 1) == 1)
        zs_reply_forward(io, fd, args);
}

class Workers : public ::testing::Environment {
public:
    void SetUp() override
    {
        for (auto [name, function] : {std::make_pair("throw", &throwing), std::make_pair("gate", &gate),
                 std::make_pair("fill", &fill)})
            Service::getInstance().addEndpoint(&bounded, TicktockQueue::TICK, name, "",
                new Endpoint{true, "", nullptr, function, TicktockQueue::TICK});
        Service::addEndpoint(Service::WORKER_PROCESS, TicktockQueue::TICK, "slow", "",
            new Endpoint{true, "", nullptr, &slow, TicktockQueue::TICK});
        boundedThread.start(bounded);
    }
    void TearDown() override
    {
        gateOpen.set();
        bounded.finish();
        boundedThread.join();
    }
};
const auto* const workers = ::testing::AddGlobalTestEnvironment(new Workers);

bool noChildren() { return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

class Worker : public ::testing::Test {
protected:
    ServedBus bus{&toService};
};

}  // namespace

TEST_F(Worker, EveryExceptionBecomesItsErrorReply)
{
    ASSERT_TRUE(bus.ok());
    const std::pair<const char*, std::string> table[] = {
        {"option", errorReply(400, "port incorrect")}, {"notfound", errorReply(403, "")},
        {"syslog", errorReply(502, "syslog down")}, {"mysql", errorReply(500, "")},
        {"database", errorReply(508, "disk full")}, {"onlineuser", errorReply(500, "user busy")},
        {"poco3", errorReply(507, "")}, {"poco1644", errorReply(507, "")}, {"poco", errorReply(500, "")},
        {"int", errorReply(500, "")},
    };
    for (const auto& [kind, expected] : table)
        EXPECT_EQ(bus.call("throw", std::string("{\"kind\":\"") + kind + "\"}").body, expected) << kind;
}

TEST_F(Worker, FullQueueRefusesWith429AndReleasesTheCall)
{
    BusReply held;
    std::thread holder([&] { held = bus.call("gate", "{\"held\":1}"); });
    ASSERT_TRUE(gateEntered.tryWait(10000));  // the thread is busy: every call now waits
    Endpoint* fillEndpoint = Service::getInstance().findEndpoint("fill");
    for (int i = 0; i < 5000; ++i)
        bounded.dispatch(fillEndpoint, json_object(), "fill", nullptr, -1);

    EXPECT_EQ(bus.call("fill").body, errorReply(429, ""));
    Pipe pipe;
    EXPECT_EQ(bus.call("fill", "{}", pipe.writeEnd()).body, "");
    EXPECT_EQ(pipe.readAll(), "Content-Type: application/json; charset=utf-8\r\n\r\n" + errorReply(429, ""));

    gateOpen.set();
    holder.join();
    EXPECT_EQ(held.body, "{\"held\":1}");
    ASSERT_TRUE(fillsDone.tryWait(30000));
    EXPECT_EQ(bus.call("gate").body, "{}");  // behind anything still queued
    EXPECT_EQ(fills.load(), 5000) << "a refused call ran";
}

TEST_F(Worker, ProcessWorkerNeverWaitsForTheHandlerAndLeavesNoZombie)
{
    ASSERT_EQ(::pipe(slowGate), 0);
    Orvex::Test::dispatchedCalls = 0;
    BusReply r;
    std::thread caller([&] { r = bus.call("slow", "{\"n\":1}"); });
    ASSERT_TRUE(Orvex::Test::waitFor([] { return Orvex::Test::dispatchedCalls > 0; }));  // the handler still waits
    EXPECT_TRUE(noChildren());
    ASSERT_EQ(::write(slowGate[1], "x", 1), 1);
    caller.join();
    EXPECT_EQ(r.body, "{\"n\":1}");
    EXPECT_TRUE(noChildren());
    ::close(slowGate[0]);
    ::close(slowGate[1]);
}

namespace {
json_t* keptArgs = nullptr;
int keptFd = -1;
void leavesEverything(zs_io*, json_t*&, int&) {}
void takesOver(zs_io*, json_t*& args, int& fd)
{
    keptFd = std::exchange(fd, -1);
    keptArgs = std::exchange(args, json_object());  // invoke releases the new one only
}
}  // namespace

TEST(Invoke, ReleasesWhatTheHandlerLeftAndNothingItTookOver)
{
    int fd = ::open("/dev/null", O_RDONLY);
    ProcessWorker().invoke(&leavesEverything, json_object(), "m", nullptr, fd);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);

    fd = ::open("/dev/null", O_RDONLY);
    json_t* args = json_object();
    ProcessWorker().invoke(&takesOver, args, "m", nullptr, fd);
    EXPECT_NE(::fcntl(keptFd, F_GETFD), -1) << "a descriptor taken over by the handler was closed";
    EXPECT_EQ(keptArgs, args);
    EXPECT_EQ(keptArgs->refcount, 1u);
    ::close(keptFd);
    json_decref(keptArgs);
}

namespace {

std::mutex inlineMutex;
std::vector<std::string> inlineOrder;
std::vector<std::thread::id> inlineThreads;
std::atomic<int> inlineRunning{0};
Poco::Event inlineEntered;
Poco::Event inlineReleased(Poco::Event::EVENT_MANUALRESET);

void record(const std::string& what)
{
    std::lock_guard<std::mutex> lock(inlineMutex);
    inlineOrder.push_back(what);
    inlineThreads.push_back(std::this_thread::get_id());
}

void inlineCall(zs_io*, json_t*& args, int&)
{
    EXPECT_EQ(1, ++inlineRunning) << "two calls ran at once";
    const std::string name = json_string_value(json_object_get(args, "name"));
    if (name == "first") {
        inlineEntered.set();
        inlineReleased.wait();
    }
    record(name);
    --inlineRunning;
}

}  // namespace

TEST(InlineWorker, CallsRunOnTheThreadThatFoundItWaitingOneAtATimeInTickTockOrderWithTheTickBetween)
{
    PthreadWorker worker;
    worker.setInline(true);
    worker.setTick([] { record("tick"); });
    Endpoint reading{true, "", &worker, &inlineCall, TicktockQueue::TICK};
    Endpoint changing{true, "", &worker, &inlineCall, TicktockQueue::TOCK};
    auto call = [&worker](Endpoint& endpoint, const char* name) {
        worker.dispatch(&endpoint, json_pack("{ss}", "name", name), name, zs_io_create(), -1);
    };
    std::thread leader([&] { call(changing, "first"); });
    inlineEntered.wait();
    // Queued behind "first": these dispatches return at once, the leader runs them.
    call(reading, "r1");
    call(reading, "r2");
    call(changing, "w1");
    call(changing, "w2");
    worker.requestTick();
    inlineReleased.set();
    leader.join();
    EXPECT_EQ((std::vector<std::string>{"first", "tick", "w1", "r1", "w2", "r2"}), inlineOrder);
    for (const std::thread::id& id : inlineThreads)
        EXPECT_EQ(inlineThreads.front(), id);
    worker.stop();
    worker.requestTick();
    EXPECT_EQ(6u, inlineOrder.size()) << "a tick ran after stop";
}
