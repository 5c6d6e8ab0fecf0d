#include "common/exceptions.h"
#include "service/misc.h"
#include "service/service.h"

#include "tests/support/bus.h"
#include "tests/support/service.h"

#include <Poco/Event.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <string>

using namespace Orvex;
using Orvex::Test::ServedBus;
using Orvex::Test::Pipe;
using Orvex::Test::toService;

namespace {

const std::string kName = "orvex-session@00:11:22:33:44:55";

void echo(zs_io* io, json_t*& args, int& fd) { zs_reply_forward(io, fd, args); }
void mark(json_t* args, const char* key, int value) { json_object_set_new(args, key, json_integer(value)); }
void literal(zs_io* io, json_t*& args, int& fd) { mark(args, "literal", 1); echo(io, args, fd); }
void first(zs_io* io, json_t*& args, int& fd) { mark(args, "v", 1); echo(io, args, fd); }
void second(zs_io* io, json_t*& args, int& fd) { mark(args, "v", 2); echo(io, args, fd); }

std::atomic<bool> asyncHadChannel{true};
Poco::Event asyncRan;
void async(zs_io* io, json_t*&, int& fd)
{
    asyncHadChannel = io != nullptr || fd != -1;
    asyncRan.set();
}

Poco::SharedPtr<Endpoint> endpoint(Function function, const char* help = "", bool sync = true)
{
    return new Endpoint{sync, help, nullptr, function, TicktockQueue::TICK};
}

// Registration happens once, before start(), as in the daemon.
class Registry : public ::testing::Environment {
public:
    void SetUp() override
    {
        using S = Service;
        const auto tick = TicktockQueue::TICK;
        S::setServiceName(kName);
        S::addEndpoint(S::WORKER_THREAD, tick, "echo", "", endpoint(&echo));
        S::addEndpoint(S::WORKER_THREAD_LIMITED, tick, "", "rsyslog/client/{id}", endpoint(&echo));
        S::addEndpoint(S::WORKER_THREAD_LIMITED, tick, "", "rsyslog/client/all", endpoint(&literal));
        S::addEndpoint(S::WORKER_THREAD, tick, "", "device/{{mac}}/info", endpoint(&echo));
        S::addEndpoint(S::WORKER_THREAD, tick, "", "bad/{}/x", endpoint(&echo));
        S::addEndpoint(S::WORKER_THREAD, tick, "twice", "", endpoint(&first));
        S::addEndpoint(S::WORKER_THREAD_LIMITED, TicktockQueue::TOCK, "twice", "", endpoint(&second));
        S::addEndpoint(S::WORKER_THREAD, tick, "async", "", endpoint(&async, "", false));
        S::addEndpoint(S::WORKER_THREAD, tick, "signin", "", endpoint(&echo, "usage: %SERVICE% %GENERAL% [%RESTFUL%]\n"));
        for (const char* name : {"set_device_rsyslog_client", "signout", "get_device_rsyslog_client",
                 "get_device_system_info", "del_device_rsyslog_client", "add_device_rsyslog_client"})
            S::addEndpoint(S::WORKER_THREAD_LIMITED, tick, name, "", endpoint(&echo));
        S::addEndpoint(static_cast<S::WORKER_MODE>(7), tick, "ghost", "", endpoint(&echo));
        S::addEndpoint(S::WORKER_THREAD, tick, "ghost", "", nullptr);  // logged, not thrown
        S::getInstance().start();
    }
};
const auto* const registry = ::testing::AddGlobalTestEnvironment(new Registry);

class Dispatch : public ::testing::Test {
protected:
    std::string body(const std::string& method, const std::string& request = "{}")
    {
        auto r = bus.call(method, request);
        EXPECT_EQ(r.rc, 0) << method << ": errno " << r.error;
        return r.body;
    }
    ServedBus bus{&toService};
};

// The 404 reply as written: the method is the message, its slashes escaped.
std::string notFound(std::string method)
{
    for (size_t at = method.find('/'); at != std::string::npos; at = method.find('/', at + 2))
        method.replace(at, 1, "\\/");
    return "{\"error_code\":404,\"error_message\":\"" + method + "\"}";
}

const std::string kHeader = "Content-Type: application/json; charset=utf-8\r\n\r\n";
const std::string kListing =
    "\n[Method|Resource]:\n   Resource also be defined in method, all avaiable method are:\n\n"
    "   echo\n   async\n"
    "   add_device_rsyslog_client\n   del_device_rsyslog_client\n   get_device_rsyslog_client\n   set_device_rsyslog_client\n"
    "   get_device_system_info\n   twice\n   signin\n   signout\n\n";

}  // namespace

TEST_F(Dispatch, UnknownMethodIs404ThroughBufferOrDescriptor)
{
    ASSERT_TRUE(bus.ok());
    EXPECT_EQ(body("no_such_method"), notFound("no_such_method"));
    EXPECT_EQ(body("ghost"), notFound("ghost"));  // unknown worker mode, null endpoint
    Pipe pipe;
    EXPECT_EQ(bus.call("no_such_method", "{}", pipe.writeEnd()).body, "");
    EXPECT_EQ(pipe.readAll(), kHeader + notFound("no_such_method"));
}

TEST_F(Dispatch, BodiesThatAreNotObjectsArriveAsEmptyObjects)
{
    for (const char* request : {"[1,2]", "not json", "", "\"text\"", "{\"a\":", "42"})
        EXPECT_EQ(body("echo", request), "{}") << request;
    EXPECT_EQ(body("echo", "{\"a\":[1,\"x/y\"]}"), "{\"a\":[1,\"x\\/y\"]}");
}

TEST_F(Dispatch, NotSyncRepliesAtOnceAndRunsWithoutChannel)
{
    Pipe pipe;
    EXPECT_EQ(bus.call("async", "{}", pipe.writeEnd()).rc, 0);
    EXPECT_EQ(pipe.readAll(), kHeader + "{\"error_code\":0,\"error_message\":\"\"}");
    ASSERT_TRUE(asyncRan.tryWait(10000));
    EXPECT_FALSE(asyncHadChannel);
}

TEST_F(Dispatch, ResourcePathsCaptureDecodedParameters)
{
    EXPECT_EQ(body("rsyslog/client/7"), "{\"id\":\"7\"}");
    EXPECT_EQ(body("rsyslog/client/a%20b%2Fc+d"), "{\"id\":\"a b\\/c+d\"}");
    EXPECT_EQ(body("rsyslog//client/7/"), "{\"id\":\"7\"}");
    EXPECT_EQ(body(" rsyslog / client / 7 "), "{\"id\":\"7\"}");
    EXPECT_EQ(body("rsyslog/client/8", "{\"x\":1,\"id\":9}"), "{\"x\":1,\"id\":\"8\"}");
    EXPECT_EQ(body("device/00:11/info"), "{\"{mac}\":\"00:11\"}");
    EXPECT_EQ(body("rsyslog/client/all"), "{\"literal\":1}");  // literal beats parameter
    for (const char* inner : {"rsyslog/client", "rsyslog", "rsyslog/client/7/extra", "/", "bad/x/x", "bad"})
        EXPECT_EQ(body(inner), notFound(inner));
    EXPECT_EQ(body("rsyslog/client/%zz"), "{\"error_code\":400,\"error_message\":\"rsyslog\\/client\\/%zz\"}");
}

TEST_F(Dispatch, SameNameTwiceKeepsTheLaterEndpoint)
{
    EXPECT_EQ(body("twice"), "{\"v\":2}");
    int kept = 0;
    for (const auto& e : Service::getInstance().getEndpoints())
        kept += e->function == &first || e->function == &second;
    EXPECT_EQ(kept, 2);
}

TEST_F(Dispatch, HelpListsEveryOtherMethodGroupedByObjectOrPrintsTheFilledInTextOfOne)
{
    for (const char* request : {"{}", "[]", "{\"method\":\"no_such\"}", "{\"method\":\"rsyslog/client/{id}\"}", "{\"method\":3}"})
        EXPECT_EQ(body("help", request), kListing) << request;
    EXPECT_EQ(body("help", "{\"method\":\"signin\"}"), "\nusage: " + kName + " signin []\n\n");
    EXPECT_EQ(body("help", "{\"method\":\"help\"}"), std::string("\n") + Service::__help__ + "\n");
    Pipe pipe;  // the descriptor is closed, never written
    EXPECT_EQ(bus.call("help", "{\"method\":\"signin\"}", pipe.writeEnd()).body, "\nusage: " + kName + " signin []\n\n");
    EXPECT_EQ(pipe.readAll(), "");
}

TEST(Registry, NameShorterThanFourCharactersMakesSortThrow)
{
    // The registry is process-wide: spoil a copy of it.
    EXPECT_EQ(Orvex::Test::inChild([] {
        Service::addEndpoint(Service::WORKER_THREAD, TicktockQueue::TICK, "abc", "", endpoint(&echo));
        try {
            Service::getInstance().sort();
        } catch (const std::out_of_range&) {
            ::_exit(0);
        }
        ::_exit(1);
    }), 0);
}
