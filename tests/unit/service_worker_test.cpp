#include "common/exceptions.h"
#include "common/raii.h"
#include "service/misc.h"
#include "service/service.h"
#include "service/worker.h"

#include "service_bus.h"

#include <Poco/Event.h>
#include <Poco/Thread.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>

using namespace Orvex;
using OrvexTest::CallResult;
using OrvexTest::TestBus;

namespace {

const std::string kHeader = "Content-Type: application/json; charset=utf-8\r\n\r\n";

// The worker under test: bounded like the service's mode-0 worker, run on its own thread.
PthreadWorker boundedWorker(5000);
Poco::Thread boundedThread;

Poco::Event gateEntered;
Poco::Event gateOpen(Poco::Event::EVENT_MANUALRESET);
Poco::Event lateGate;
Poco::Event lateDone;
Poco::Event dispatchReturned;
std::atomic<int> fillRuns{0};
int slowGate[2] = {-1, -1};

void throwing(zs_io*, json_t*& args, int&)
{
    std::string kind = json_string_value(json_object_get(args, "kind")) ? json_string_value(json_object_get(args, "kind")) : "";
    json_object_set_new(args, "partial", json_true());
    if (kind == "option") throw OptionException("port incorrect", 400);
    if (kind == "notfound") throw SessionNotFound("no session", 404);
    if (kind == "syslog") throw SyslogException("syslog down", 502);
    if (kind == "mysql") throw MySQL::Exception("db gone", 2006);
    if (kind == "database") throw Database::Exception("disk full", 508);
    if (kind == "onlineuser") throw OnlineUser::Exception("user busy", 12);
    if (kind == "poco3") throw Poco::Exception("three", 3);
    if (kind == "poco1644") throw Poco::Exception("signal", 1644);
    if (kind == "poco") throw Poco::IOException("io", 5);
    if (kind == "std") throw std::runtime_error("std");
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
    ++fillRuns;
}

void late(zs_io* io, json_t*& args, int& fd)
{
    lateGate.wait();
    json_object_set_new(args, "late", json_true());
    zs_reply_forward(io, fd, args);
    lateDone.set();
}

void slow(zs_io* io, json_t*& args, int& fd)
{
    char byte;
    if (::read(slowGate[0], &byte, 1) != 1)
        return;
    json_object_set_new(args, "done", json_true());
    zs_reply_forward(io, fd, args);
}

void throwSession(zs_io*, json_t*&, int&)
{
    throw SessionException("not signin", 403);
}

Poco::SharedPtr<Endpoint> endpoint(Function function)
{
    return new Endpoint{true, "", nullptr, function, TicktockQueue::TICK};
}

class Workers : public ::testing::Environment {
public:
    void SetUp() override
    {
        Service& service = Service::getInstance();
        for (auto entry : {std::make_pair("throw", &throwing), std::make_pair("gate", &gate),
                 std::make_pair("fill", &fill), std::make_pair("late", &late)})
            service.addEndpoint(&boundedWorker, TicktockQueue::TICK, entry.first, "", endpoint(entry.second));
        Service::addEndpoint(Service::WORKER_PROCESS, TicktockQueue::TICK, "slow", "", endpoint(&slow));
        boundedThread.start(boundedWorker);
    }
    void TearDown() override
    {
        gateOpen.set();
        boundedWorker.finish();
        boundedThread.join();
    }
};

const auto* const workers = ::testing::AddGlobalTestEnvironment(new Workers);

void toService(const char* method, zs_io* io, int fd)
{
    Service::getInstance().dispatch(method, io, fd);
    dispatchReturned.set();
}

class WorkerTest : public ::testing::Test {
protected:
    TestBus bus{&toService};
};

std::string reply(int code, const std::string& message)
{
    return "{\"error_code\":" + std::to_string(code) + ",\"error_message\":\"" + message + "\"}";
}

bool isOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) != -1;
}

bool noChildren()
{
    return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

// The service replies with the exception that it is told to throw.
pid_t sessionChild = -1;
void forkInvoke(const char* method, zs_io* io, int fd)
{
    pid_t pid = ::fork();
    if (pid == 0) {
        ProcessWorker worker;
        worker.invoke(&throwSession, json_object(), method, io, fd);
        ::_exit(42);  // only reached if invoke returned
    }
    sessionChild = pid;
    zs_io_free(io);
    if (fd >= 0)
        ::close(fd);
}

}  // namespace

TEST_F(WorkerTest, EveryExceptionBecomesItsErrorReply)
{
    ASSERT_TRUE(bus.ok());
    const std::pair<const char*, std::string> table[] = {
        {"option", reply(400, "port incorrect")},
        {"notfound", reply(403, "")},
        {"syslog", reply(502, "syslog down")},
        {"mysql", reply(500, "")},
        {"database", reply(508, "disk full")},
        {"onlineuser", reply(500, "user busy")},
        {"poco3", reply(507, "")},
        {"poco1644", reply(507, "")},
        {"poco", reply(500, "")},
        {"std", reply(500, "")},
        {"int", reply(500, "")},
    };
    for (const auto& row : table) {
        CallResult r = bus.call("throw", std::string("{\"kind\":\"") + row.first + "\"}");
        EXPECT_EQ(r.rc, 0) << row.first;
        EXPECT_EQ(r.body, row.second) << row.first;
    }
}

TEST_F(WorkerTest, SessionExceptionRepliesThenEndsTheProcessWithZero)
{
    TestBus forking(&forkInvoke);
    CallResult r = forking.call("signin");
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.body, reply(403, "not signin"));
    ASSERT_GT(sessionChild, 0);
    int status = -1;
    ASSERT_EQ(::waitpid(sessionChild, &status, 0), sessionChild);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(WorkerTest, FullQueueRefusesWith429AndReleasesTheCall)
{
    Endpoint* fillEndpoint = Service::getInstance().findEndpoint("fill");
    CallResult held;
    std::thread holder([&] { held = bus.call("gate", "{\"held\":1}"); });
    ASSERT_TRUE(gateEntered.tryWait(10000));  // the worker is busy: nothing more is taken
    for (int i = 0; i < 5000; ++i)
        boundedWorker.dispatch(fillEndpoint, json_object(), "fill", nullptr, -1);

    EXPECT_EQ(bus.call("fill").body, reply(429, ""));
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    CallResult r = bus.call("fill", "{}", fds[1]);
    ::close(fds[1]);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.body, "");
    bool eof = false;
    EXPECT_EQ(OrvexTest::readToEof(fds[0], 5000, &eof), kHeader + reply(429, ""));
    EXPECT_TRUE(eof) << "the refused call's descriptor stayed open";
    ::close(fds[0]);

    gateOpen.set();
    holder.join();
    EXPECT_EQ(held.body, "{\"held\":1}");
    // Same class, so this runs after every queued fill: exactly the 5000 accepted ones ran.
    EXPECT_EQ(bus.call("gate", "{}").body, "{}");
    EXPECT_EQ(fillRuns.load(), 5000);
}

TEST_F(WorkerTest, CallerThatHungUpGetsNothingWritten)
{
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    CallResult r = bus.call("late", "{}", fds[1], 1);
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.error, ETIMEDOUT);
    ::close(fds[1]);
    lateGate.set();
    ASSERT_TRUE(lateDone.tryWait(10000));
    bool eof = false;
    EXPECT_EQ(OrvexTest::readToEof(fds[0], 5000, &eof), "");
    EXPECT_TRUE(eof);
    ::close(fds[0]);
}

TEST_F(WorkerTest, ProcessWorkerNeverWaitsForTheHandlerAndLeavesNoZombie)
{
    ASSERT_EQ(::pipe(slowGate), 0);
    dispatchReturned.reset();
    CallResult r;
    std::thread caller([&] { r = bus.call("slow", "{\"n\":1}"); });
    // dispatch has returned while the handler is still blocked on the gate.
    ASSERT_TRUE(dispatchReturned.tryWait(10000));
    EXPECT_TRUE(noChildren()) << "the first child was not reaped";
    ASSERT_EQ(::write(slowGate[1], "x", 1), 1);
    caller.join();
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.body, "{\"n\":1,\"done\":true}");
    EXPECT_TRUE(noChildren());
    ::close(slowGate[0]);
    ::close(slowGate[1]);
}

namespace {

int reopenedFd = -1;
json_t* keptArgs = nullptr;

void closesItself(zs_io*, json_t*&, int& fd)
{
    int number = fd;
    ::close(fd);
    reopenedFd = ::open("/dev/null", O_RDONLY);  // the lowest free number: the same one
    EXPECT_EQ(reopenedFd, number);
}

void takesOver(zs_io*, json_t*& args, int& fd)
{
    reopenedFd = fd;
    fd = -1;
    keptArgs = args;  // taken over as well: invoke must not release it
    args = nullptr;
}

void swapsArgs(zs_io*, json_t*& args, int&)
{
    json_decref(args);
    args = json_object();
    keptArgs = json_incref(args);
}

void leavesEverything(zs_io*, json_t*&, int&) {}

}  // namespace

TEST(Invoke, ClosesWhatTheHandlerLeftExactlyOnce)
{
    ProcessWorker worker;
    int fd = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);
    worker.invoke(&leavesEverything, json_object(), "m", nullptr, fd);
    EXPECT_FALSE(isOpen(fd));

    fd = ::open("/dev/null", O_RDONLY);
    worker.invoke(&closesItself, json_object(), "m", nullptr, fd);
    EXPECT_TRUE(isOpen(reopenedFd)) << "a descriptor closed by the handler was closed again";
    ::close(reopenedFd);

    fd = ::open("/dev/null", O_RDONLY);
    worker.invoke(&takesOver, json_object(), "m", nullptr, fd);
    EXPECT_TRUE(isOpen(fd)) << "a descriptor taken over by the handler was closed";
    ::close(fd);
    ASSERT_NE(keptArgs, nullptr);
    EXPECT_EQ(keptArgs->refcount, 1u);
    json_decref(keptArgs);
}

TEST(Invoke, ReleasesTheObjectTheHandlerLeftInArgs)
{
    ProcessWorker worker;
    worker.invoke(&swapsArgs, json_object(), "m", nullptr, -1);
    ASSERT_NE(keptArgs, nullptr);
    EXPECT_EQ(keptArgs->refcount, 1u);
    json_decref(keptArgs);
}

TEST(PthreadWorkerLife, WakeUpAllMakesAnIdleRunReturn)
{
    PthreadWorker worker;
    Poco::Thread thread;
    thread.start(worker);
    // run blocks in the queue at some point after start; wake until it has returned.
    do
        worker.wakeUpAll();
    while (!thread.tryJoin(10));
    SUCCEED();
}
