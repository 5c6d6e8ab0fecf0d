#include "common/exceptions.h"
#include "service/misc.h"
#include "service/service.h"

#include "service_bus.h"

#include <Poco/Event.h>

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <string>

using namespace Orvex;
using OrvexTest::TestBus;

namespace {

const char* kName = "orvex-session@00:11:22:33:44:55";

void echo(zs_io* io, json_t*& args, int& fd)
{
    zs_reply_forward(io, fd, args);
}

void replyWith(zs_io* io, json_t*& args, int& fd, const char* text)
{
    json_object_clear(args);
    JsonRef value = JsonRef::adopt(json_loads(text, 0, nullptr));
    json_object_update(args, value.get());
    zs_reply_forward(io, fd, args);
}

void literal(zs_io* io, json_t*& args, int& fd) { replyWith(io, args, fd, "{\"literal\":true}"); }
void twiceA(zs_io* io, json_t*& args, int& fd) { replyWith(io, args, fd, "{\"v\":1}"); }
void twiceB(zs_io* io, json_t*& args, int& fd) { replyWith(io, args, fd, "{\"v\":2}"); }
void empty(zs_io* io, json_t*& args, int& fd) { replyWith(io, args, fd, "{}"); }

std::atomic<bool> asyncSawChannel{true};
Poco::Event asyncRan;
void async(zs_io* io, json_t*& args, int& fd)
{
    (void)args;
    asyncSawChannel = io != nullptr || fd != -1;
    asyncRan.set();
}

Poco::SharedPtr<Endpoint> endpoint(Function function, const char* help = "", bool sync = true)
{
    return new Endpoint{sync, help, nullptr, function, TicktockQueue::TICK};
}

class Registry : public ::testing::Environment {
public:
    void SetUp() override
    {
        Service::setServiceName(kName);
        using S = Service;
        S::addEndpoint(S::WORKER_THREAD, TicktockQueue::TICK, "echo", "", endpoint(&echo));
        S::addEndpoint(S::WORKER_THREAD_LIMITED, TicktockQueue::TICK, "", "rsyslog/client/{id}", endpoint(&echo));
        S::addEndpoint(S::WORKER_THREAD_LIMITED, TicktockQueue::TOCK, "", "rsyslog/client/all", endpoint(&literal));
        S::addEndpoint(S::WORKER_THREAD, TicktockQueue::TICK, "", "device/{{mac}}/info", endpoint(&echo));
        S::addEndpoint(S::WORKER_THREAD, TicktockQueue::TICK, "", "bad/{}/x", endpoint(&echo));
        S::addEndpoint(S::WORKER_THREAD, TicktockQueue::TICK, "twice", "", endpoint(&twiceA));
        S::addEndpoint(S::WORKER_THREAD_LIMITED, TicktockQueue::TOCK, "twice", "", endpoint(&twiceB));
        S::addEndpoint(S::WORKER_THREAD, TicktockQueue::TOCK, "async", "", endpoint(&async, "", false));
        S::addEndpoint(S::WORKER_THREAD, TicktockQueue::TICK, "signin", "", endpoint(&empty, "usage: %SERVICE% %GENERAL% [%RESTFUL%]\n"));
        for (const char* name : {"set_device_rsyslog_client", "signout", "get_device_rsyslog_client", "get_device_system_info",
                 "del_device_rsyslog_client", "add_device_rsyslog_client"})
            S::addEndpoint(S::WORKER_THREAD_LIMITED, TicktockQueue::TICK, name, "", endpoint(&empty));
        S::getInstance().start();
    }
};

const auto* const registry = ::testing::AddGlobalTestEnvironment(new Registry);

void toService(const char* method, zs_io* io, int fd)
{
    Service::getInstance().dispatch(method, io, fd);
}

class DispatchTest : public ::testing::Test {
protected:
    std::string body(const std::string& method, const std::string& request = "")
    {
        auto r = bus.call(method, request);
        EXPECT_EQ(r.rc, 0) << method << ": errno " << r.error;
        return r.body;
    }
    // Compares as JSON where the order of keys is not the point.
    void expectJson(const std::string& method, const std::string& request, const char* expected)
    {
        std::string got = body(method, request);
        JsonRef a = JsonRef::adopt(json_loads(got.c_str(), 0, nullptr));
        JsonRef b = JsonRef::adopt(json_loads(expected, 0, nullptr));
        EXPECT_TRUE(a && json_equal(a.get(), b.get())) << method << " replied " << got;
    }
    TestBus bus{&toService};
};

// The 404 reply as written: the method is the message, its slashes escaped.
std::string notFound(std::string method)
{
    for (size_t at = method.find('/'); at != std::string::npos; at = method.find('/', at + 2))
        method.replace(at, 1, "\\/");
    return "{\"error_code\":404,\"error_message\":\"" + method + "\"}";
}

const std::string kListing =
    "\n[Method|Resource]:\n   Resource also be defined in method, all avaiable method are:\n\n"
    "   echo\n   async\n"
    "   add_device_rsyslog_client\n   del_device_rsyslog_client\n"
    "   get_device_rsyslog_client\n   set_device_rsyslog_client\n"
    "   get_device_system_info\n"
    "   twice\n   signin\n   signout\n\n";

}  // namespace

TEST_F(DispatchTest, UnknownMethodIs404WithTheMethodAsMessage)
{
    ASSERT_TRUE(bus.ok());
    EXPECT_EQ(body("no_such_method"), notFound("no_such_method"));

    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    auto r = bus.call("no_such_method", "{}", fds[1]);
    ::close(fds[1]);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.body, "");
    bool eof = false;
    EXPECT_EQ(OrvexTest::readToEof(fds[0], 5000, &eof),
        "Content-Type: application/json; charset=utf-8\r\n\r\n" + notFound("no_such_method"));
    EXPECT_TRUE(eof) << "the reply descriptor was not closed";
    ::close(fds[0]);
}

TEST_F(DispatchTest, BodiesThatAreNotObjectsArriveAsEmptyObjects)
{
    for (const char* request : {"[1,2]", "not json", "", "\"text\"", "{\"a\":", "42"})
        EXPECT_EQ(body("echo", request), "{}") << request;
    EXPECT_EQ(body("echo", "{\"a\":[1,\"x/y\"]}"), "{\"a\":[1,\"x\\/y\"]}");
}

TEST_F(DispatchTest, AsyncEndpointRepliesAtOnceAndRunsWithoutChannel)
{
    asyncSawChannel = true;
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    auto r = bus.call("async", "{}", fds[1]);
    ::close(fds[1]);
    EXPECT_EQ(r.rc, 0);
    bool eof = false;
    EXPECT_EQ(OrvexTest::readToEof(fds[0], 5000, &eof),
        "Content-Type: application/json; charset=utf-8\r\n\r\n{\"error_code\":0,\"error_message\":\"\"}");
    EXPECT_TRUE(eof);
    ::close(fds[0]);
    ASSERT_TRUE(asyncRan.tryWait(10000));
    EXPECT_FALSE(asyncSawChannel);
    EXPECT_EQ(body("async"), "{\"error_code\":0,\"error_message\":\"\"}");
    ASSERT_TRUE(asyncRan.tryWait(10000));
}

TEST_F(DispatchTest, ResourceParameterIsCapturedAndDecoded)
{
    EXPECT_EQ(body("rsyslog/client/7"), "{\"id\":\"7\"}");
    EXPECT_EQ(body("rsyslog/client/a%20b%2Fc"), "{\"id\":\"a b\\/c\"}");
    EXPECT_EQ(body("rsyslog/client/a+b"), "{\"id\":\"a+b\"}");
    EXPECT_EQ(body("rsyslog//client/7/"), "{\"id\":\"7\"}");
    EXPECT_EQ(body(" rsyslog / client / 7 "), "{\"id\":\"7\"}");
    expectJson("rsyslog/client/8", "{\"id\":9,\"x\":1}", "{\"id\":\"8\",\"x\":1}");
    EXPECT_EQ(body("device/00:11/info"), "{\"{mac}\":\"00:11\"}");
}

TEST_F(DispatchTest, LiteralBeatsParameterAndInnerNodesAre404)
{
    EXPECT_EQ(body("rsyslog/client/all"), "{\"literal\":true}");
    EXPECT_EQ(body("rsyslog/client"), notFound("rsyslog/client"));
    EXPECT_EQ(body("rsyslog"), notFound("rsyslog"));
    EXPECT_EQ(body("rsyslog/client/7/extra"), notFound("rsyslog/client/7/extra"));
    EXPECT_EQ(body("/"), notFound("/"));
    // Registered by path only: the plain-name lookup of help does not see it.
    EXPECT_EQ(body("client"), notFound("client"));
}

TEST_F(DispatchTest, RefusedPathsAndBrokenEscapes)
{
    EXPECT_EQ(body("bad/x/x"), notFound("bad/x/x"));
    EXPECT_EQ(body("bad"), notFound("bad"));
    EXPECT_EQ(body("rsyslog/client/%zz"), "{\"error_code\":400,\"error_message\":\"rsyslog\\/client\\/%zz\"}");
}

TEST_F(DispatchTest, SameNameTwiceKeepsTheLaterEndpoint)
{
    EXPECT_EQ(body("twice"), "{\"v\":2}");
    const auto& all = Service::getInstance().getEndpoints();
    auto registered = [&](Function f) {
        return std::count_if(all.begin(), all.end(), [&](const Poco::SharedPtr<Endpoint>& e) { return e->function == f; });
    };
    EXPECT_EQ(registered(&twiceA), 1);
    EXPECT_EQ(registered(&twiceB), 1);
}

TEST(Registry, UnknownModeAndNullEndpointRegisterNothing)
{
    Service& service = Service::getInstance();
    size_t before = service.getEndpoints().size();
    Service::addEndpoint(static_cast<Service::WORKER_MODE>(7), TicktockQueue::TICK, "ghost", "", endpoint(&echo));
    EXPECT_NO_THROW(Service::addEndpoint(Service::WORKER_THREAD, TicktockQueue::TICK, "ghost", "", nullptr));
    EXPECT_EQ(service.getEndpoints().size(), before);
    EXPECT_THROW(service.findEndpoint("ghost"), ResourceException);
    EXPECT_THROW(service.findEndpoint(nullptr), ResourceException);
}

TEST(Registry, HelpTextPlaceholdersAreFilledAtAddTime)
{
    EXPECT_EQ(Service::getInstance().findEndpoint("signin")->help, std::string("usage: ") + kName + " signin []\n");
    EXPECT_EQ(Service::getInstance().getServiceName(), kName);
}

TEST(Registry, NameShorterThanFourCharactersMakesSortThrow)
{
    // In a child: the registry is process-wide and must stay intact for the other tests.
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        Service::addEndpoint(Service::WORKER_THREAD, TicktockQueue::TICK, "abc", "", endpoint(&echo));
        try {
            Service::getInstance().sort();
        } catch (const std::out_of_range&) {
            ::_exit(0);
        } catch (...) {
            ::_exit(2);
        }
        ::_exit(1);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "1: sort did not throw, 2: threw something else";
}

TEST_F(DispatchTest, HelpListsEveryMethodButItselfInGroupedOrder)
{
    EXPECT_EQ(body("help"), kListing);
    EXPECT_EQ(body("help", "{\"method\":\"no_such_method\"}"), kListing);
    EXPECT_EQ(body("help", "{\"method\":\"rsyslog/client/{id}\"}"), kListing);
    EXPECT_EQ(body("help", "{\"method\":\"\"}"), kListing);
    EXPECT_EQ(body("help", "[]"), kListing);
}

TEST_F(DispatchTest, HelpOfOneMethodPrintsOnlyItsText)
{
    EXPECT_EQ(body("help", "{\"method\":\"signin\"}"),
        std::string("\nusage: ") + kName + " signin []\n\n");
    EXPECT_EQ(body("help", "{\"method\":\"help\"}"), std::string("\n") + Service::__help__ + "\n");
}

TEST_F(DispatchTest, HelpAnswersInTheChannelAndClosesTheDescriptor)
{
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    auto r = bus.call("help", "{\"method\":\"signin\"}", fds[1]);
    ::close(fds[1]);
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.body, std::string("\nusage: ") + kName + " signin []\n\n");
    bool eof = false;
    EXPECT_EQ(OrvexTest::readToEof(fds[0], 5000, &eof), "");
    EXPECT_TRUE(eof);
    ::close(fds[0]);
}
