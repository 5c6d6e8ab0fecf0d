// Failures through the methods: bad arguments keep the daemon serving, session errors end
// it with status 0 after the error reply.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "tests/e2e/support.h"

namespace e2e {
namespace {

const std::string kMac = "00:11:22:33:44:55";

std::string errorReply(int code, const std::string& message)
{
    return "{\"error_code\":" + std::to_string(code) + ",\"error_message\":\"" + message + "\"}";
}

void expectReply(const BusReply& reply, const std::string& expected, const std::string& what)
{
    ASSERT_EQ(reply.rc, 0) << what;
    JsonRef got = reply.json(), want = parseJson(expected);
    EXPECT_TRUE(json_equal(got.get(), want.get())) << what << ": got " << reply.body << ", want " << expected;
}

// A TCP listener of this test process on a free loopback port.
int listeningPort(Orvex::UniqueFd& fd)
{
    fd.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(fd.get(), 1) != 0 ||
        getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &size) != 0)
        return 0;
    return ntohs(address.sin_port);
}

TEST(MethodErrors, BadArgumentsAnswer400AndTheDaemonKeepsServing)
{
    E2E_REQUIRE_ISOLATION();
    SignedIn s("legacy", false);
    Orvex::UniqueFd listener;
    int busy = listeningPort(listener);
    ASSERT_GT(busy, 0);
    struct Case {
        const char* method;
        std::string args;
        const char* message;
    };
    const Case cases[] = {
        {"set_device_rsyslog_client", R"({"address":"a","mode":3,"port":514})", "id missed"},
        {"add_device_rsyslog_client", R"({"address":"a","mode":4,"port":514})", "mode incorrect"},
        {"add_device_rsyslog_client", R"({"address":"","mode":3,"port":514})", "address incorrect"},
        {"add_device_rsyslog_client", R"({"id":0,"address":"a","mode":3,"port":514})", "id incorrect"},
        {"add_device_rsyslog_client_test", R"({"address":"a","mode":3,"port":70000})", "port incorrect"},
        {"del_device_rsyslog_client", R"({"id":[]})", "id missed"},
        {"set_device_rsyslog_client_enable", R"({"id":[1.5]})", "id incorrect"},
        {"set_device_rsyslog_client_disable", "{}", "id missed"},
        {"set_device_rsyslog_server_config", R"({"enable":true})", "syslog cannot enable while both tcp/udp disabled"},
        {"set_device_rsyslog_server_config", R"({"tcp_enable":false,"tls_enable":true})",
            "tls cannot enable while tcp disabled"},
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

TEST(MethodErrors, UnknownMethodAnswers404)
{
    E2E_REQUIRE_ISOLATION();
    Daemon daemon(kMac);
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    expectReply(daemon.call("get_device_everything"), errorReply(404, "get_device_everything"), "unknown");
    EXPECT_TRUE(daemon.process().running());
}

TEST(MethodErrors, CallsBeforeSigninEndTheProcessWithStatusZero)
{
    E2E_REQUIRE_ISOLATION();
    for (const char* method : {"get_device_system_info", "get_device_rsyslog_config", "del_device_rsyslog_client"}) {
        Daemon daemon(kMac);
        ASSERT_TRUE(daemon.ready()) << daemon.log();
        expectReply(daemon.call(method, R"({"id":3})"), errorReply(403, "not signin"), method);
        EXPECT_EQ(daemon.process().wait(), 0) << method;
    }
}

TEST(MethodErrors, FailedSigninEndsTheProcessWithStatusZero)
{
    E2E_REQUIRE_ISOLATION();
    Devsim device("legacy", false);
    Daemon daemon(kMac);
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    expectReply(daemon.call("signin", device.signinArgs("wrong")), errorReply(403, "signin fail"), "signin");
    EXPECT_EQ(daemon.process().wait(), 0);
    // Both families were tried: the legacy login, then the token request (a 404 here).
    EXPECT_FALSE(device.requestsTo("POST", "/cgi-bin/authLogin.cgi").empty());
    EXPECT_FALSE(device.requestsTo("GET", "/zem/oauth/token").empty());
}

}  // namespace
}  // namespace e2e
