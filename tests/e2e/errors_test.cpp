// Failures through the methods: bad arguments keep the daemon serving, session errors end
// it with status 0 after the error reply, a device name nobody resolves fails in time.
#include <sys/mount.h>
#include <sys/socket.h>

#include <chrono>
#include <fstream>

#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

const std::string kMac = "00:11:22:33:44:55";

void expectReply(const BusReply& reply, const std::string& expected, const std::string& what)
{
    ASSERT_EQ(reply.rc, 0) << what;
    JsonRef got = reply.json(), want = parseJson(expected);
    EXPECT_TRUE(json_equal(got.get(), want.get())) << what << ": got " << reply.body << ", want " << expected;
}

TEST(MethodErrors, BadArgumentsAnswer400AndTheDaemonKeepsServing)
{
    ORVEX_REQUIRE_ISOLATION();
    SignedIn s("legacy", false);
    int busy = 0;
    Orvex::UniqueFd listener = loopbackSocket(SOCK_STREAM, busy);
    ASSERT_TRUE(listener);
    struct Case {
        const char* method;
        std::string args;
        const char* message;
    };
    // The records' rules have their own tests; these show the reply and the port probe.
    const Case cases[] = {
        {"set_device_rsyslog_client", R"({"address":"a","mode":3,"port":514})", "id missed"},
        {"add_device_rsyslog_client_test", R"({"address":"a","mode":3,"port":70000})", "port incorrect"},
        {"set_device_rsyslog_server_config", R"({"enable":true})", "syslog cannot enable while both tcp/udp disabled"},
        {"set_device_rsyslog_server_config", "{\"tcp_port\":" + std::to_string(busy) + "}", "tcp_port occupied"},
        {"signin", R"({"ip":"127.0.0.1","port":1,"user":"admin","pass":"x"})", "secure missed"},
    };
    for (const Case& c : cases)
        expectReply(s.daemon.call(c.method, c.args), errorReply(400, c.message), c.method);
    for (const char* method : {"GET", "PUT", "POST", "DELETE"})
        EXPECT_TRUE(s.device.requestsTo(method, "/orvex/").empty()) << method;
    // Still signed in to the same device.
    JsonRef info = s.daemon.call("get_device_system_info").json();
    EXPECT_STREQ(json_string_value(json_object_get(info.get(), "model")), "NVX-4200");
    EXPECT_TRUE(s.daemon.process().running());
}

TEST(MethodErrors, SessionErrorsAreRepliedThenTheProcessEndsWithStatusZero)
{
    ORVEX_REQUIRE_ISOLATION();
    Devsim device("legacy", false);
    for (const char* method : {"get_device_rsyslog_config", "signin"}) {
        Daemon daemon(kMac);
        ASSERT_TRUE(daemon.ready()) << daemon.log();
        bool signin = std::string(method) == "signin";
        // The handler empties the caller's object in place to make it the reply.
        expectReply(daemon.call(method, signin ? device.signinArgs("wrong") : R"({"stale":1})"),
            errorReply(403, signin ? "signin fail" : "not signin"), method);
        EXPECT_EQ(daemon.process().wait(), 0) << method;
    }
    // Both families were tried: the legacy login, then the token request (a 404 here).
    EXPECT_FALSE(device.requestsTo("POST", "/cgi-bin/authLogin.cgi").empty());
    EXPECT_FALSE(device.requestsTo("GET", "/zem/oauth/token").empty());
}

// Resolving a host name is part of the exchange: a name that no name server answers for
// fails each family's sign-in at its 10 s bound, not after the resolver's own time-outs
// (here two tries of 15 s).
TEST(MethodErrors, SigninToAHostNameNoServerAnswersForEndsWithinTheExchangeBounds)
{
    ORVEX_REQUIRE_ISOLATION();
    TempDir dir;
    std::ofstream(dir.file("resolv.conf")) << "nameserver 127.0.0.1\noptions timeout:15 attempts:2\n";
    ASSERT_EQ(mount(dir.file("resolv.conf").c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr), 0);
    int dns = 53;
    Orvex::UniqueFd silent = loopbackSocket(SOCK_DGRAM, dns);  // takes the questions, answers none
    ASSERT_TRUE(silent);
    Daemon daemon(kMac);
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    auto begin = std::chrono::steady_clock::now();
    BusReply reply = daemon.call("signin", R"({"ip":"nas-07.example.org","port":443,"user":"admin","pass":"x","secure":false})");
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    umount("/etc/resolv.conf");
    expectReply(reply, errorReply(403, "signin fail"), "signin");
    EXPECT_GE(seconds, 19.5);
    EXPECT_LT(seconds, 23.0);
    EXPECT_NE(daemon.log().find("nas-07.example.org:443: cannot resolve the address within 10 s"), std::string::npos)
        << daemon.log();
}

}  // namespace
}  // namespace Orvex::Test
