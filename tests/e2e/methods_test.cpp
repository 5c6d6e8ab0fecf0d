// Every method against the simulator of each firmware family, over HTTP and HTTPS: the
// reply the caller gets and the request the device saw.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/e2e/support.h"

namespace e2e {
namespace {

struct Kind {
    const char* family;
    bool tls;
};

void PrintTo(const Kind& kind, std::ostream* out)
{
    *out << kind.family << (kind.tls ? " over HTTPS" : " over HTTP");
}

std::string kindName(const ::testing::TestParamInfo<Kind>& info)
{
    return std::string(info.param.family) + (info.param.tls ? "Https" : "Http");
}

class Methods : public ::testing::TestWithParam<Kind> {
protected:
    void SetUp() override
    {
        E2E_REQUIRE_ISOLATION();
        session_ = std::make_unique<SignedIn>(GetParam().family, GetParam().tls);
    }

    // Calls a method and returns its reply, which must be a JSON object.
    JsonRef call(const std::string& method, const std::string& args = "{}")
    {
        BusReply reply = session_->daemon.call(method, args);
        EXPECT_EQ(reply.rc, 0) << method;
        JsonRef json = reply.json();
        EXPECT_TRUE(json_is_object(json.get())) << method << ": " << reply.body;
        return json;
    }

    // The body of the one request the device saw for this method and target.
    std::string seen(const std::string& method, const std::string& target)
    {
        std::vector<Logged> exact;
        for (Logged& r : session_->device.requestsTo(method, target))
            if (r.target == target)
                exact.push_back(std::move(r));
        EXPECT_EQ(exact.size(), 1u) << method << " " << target;
        return exact.empty() ? "(none)" : exact.back().body;
    }

    std::unique_ptr<SignedIn> session_;
};

void expectJson(json_t* actual, const std::string& expected)
{
    JsonRef want = parseJson(expected);
    ASSERT_TRUE(want) << expected;
    EXPECT_TRUE(json_equal(actual, want.get())) << "got " << dump(actual) << "\nwant " << dump(want.get());
}

TEST_P(Methods, SigninAndSystemInfoReportTheDeviceIdentity)
{
    bool legacy = std::string(GetParam().family) == "legacy";
    json_t* signin = session_->signin.get();
    EXPECT_STREQ(json_string_value(json_object_get(signin, "model")), legacy ? "NVX-4200" : "ZEM-880");
    EXPECT_STREQ(json_string_value(json_object_get(signin, "serial")), legacy ? "LGC0001234" : "ZEM000987");
    EXPECT_STREQ(json_string_value(json_object_get(signin, "hostname")), legacy ? "nas-legacy" : "nas-token");
    const char* firmwareText = json_string_value(json_object_get(signin, "firmware"));
    std::string firmware = firmwareText ? firmwareText : "";
    EXPECT_EQ(firmware.rfind(legacy ? "4.3.6" : "5.1.2", 0), 0u) << firmware;
    EXPECT_EQ(json_integer_value(json_object_get(signin, "error_code")), 0);

    JsonRef info = call("get_device_system_info", R"({"model":"caller's"})");
    for (const char* key : {"model", "serial", "firmware", "hostname"})
        EXPECT_TRUE(json_equal(json_object_get(info.get(), key), json_object_get(signin, key))) << key;
    if (legacy)
        EXPECT_EQ(session_->device.requestsTo("POST", "/cgi-bin/authLogin.cgi").size(), 1u);
    else
        EXPECT_EQ(session_->device.requestsTo("GET", "/zem/oauth/token?grant_type=password").size(), 1u);
}

TEST_P(Methods, SyslogConfigurationIsReadAndSwitched)
{
    JsonRef config = call("get_device_rsyslog_config", R"({"discarded":1})");
    expectJson(config.get(),
        R"({"success":true,"server":{"enable":false,"tcp_enable":true,"tls_enable":false,"udp_enable":true,
            "tcp_port":514,"udp_port":514},"client":{"bsd":false,"orvex":true},"clients":[]})");
    seen("GET", "/orvex/v1/rsyslog/config");

    JsonRef manager = call("set_device_rsyslog_client_config", R"({"bsd":true,"orvex":false})");
    expectJson(manager.get(), R"({"success":true,"client":{"bsd":true,"orvex":false}})");
    EXPECT_EQ(seen("PUT", "/orvex/v1/rsyslog/client/config"), R"({"bsd":true,"orvex":false})");

    // Switching the server off goes out as an empty body with the session id in the query.
    JsonRef server = call("set_device_rsyslog_server_config", R"({"tcp_port":1601,"udp_enable":true})");
    expectJson(json_object_get(server.get(), "server"),
        R"({"enable":false,"tcp_enable":true,"tls_enable":false,"udp_enable":true,"tcp_port":514,"udp_port":514})");
    std::vector<Logged> puts = session_->device.requestsTo("PUT", "/orvex/v1/rsyslog/server/config?sid=");
    ASSERT_EQ(puts.size(), 1u);
    EXPECT_EQ(puts[0].body, "");

    JsonRef after = call("get_device_rsyslog_config");
    expectJson(json_object_get(after.get(), "client"), R"({"bsd":true,"orvex":false})");
}

// A UDP socket on loopback that the device's test line is sent to.
class UdpSink {
public:
    UdpSink()
    {
        fd_.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        if (bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), size) == 0 &&
            getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &size) == 0)
            port_ = ntohs(address.sin_port);
    }
    int port() const { return port_; }
    std::string receive()
    {
        pollfd p{fd_.get(), POLLIN, 0};
        if (poll(&p, 1, 5000) <= 0)
            return "";
        char buffer[2048];
        ssize_t n = recv(fd_.get(), buffer, sizeof buffer, 0);
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
    }

private:
    Orvex::UniqueFd fd_;
    int port_ = 0;
};

TEST_P(Methods, DestinationsAreAddedChangedSwitchedTestedAndDeleted)
{
    JsonRef added = call("add_device_rsyslog_client", R"({"address":"192.0.2.10","mode":3,"port":514,"event":true})");
    expectJson(added.get(), R"({"success":true,"id":1})");
    // Adding carries the session id in the query; changing the same client does not.
    std::vector<Logged> posts = session_->device.requestsTo("POST", "/orvex/v1/rsyslog/client?sid=");
    ASSERT_EQ(posts.size(), 1u);
    EXPECT_EQ(posts[0].body,
        R"({"address":"192.0.2.10","mode":3,"port":514,"bsd":false,"event":true,"access":false,"enable":false})");

    JsonRef changed = call("set_device_rsyslog_client",
        R"({"id":1,"address":"192.0.2.11","mode":1,"port":1514,"access":true,"enable":true})");
    expectJson(changed.get(), R"({"success":true,"id":1})");
    EXPECT_EQ(seen("PUT", "/orvex/v1/rsyslog/client/1"),
        R"({"address":"192.0.2.11","mode":1,"port":1514,"bsd":false,"event":false,"access":true,"enable":true})");

    // Only the first of several ids is acted on.
    expectJson(call("set_device_rsyslog_client_disable", R"({"id":[1,9]})").get(),
        R"({"success":true,"id":1,"enable":false})");
    EXPECT_EQ(seen("PUT", "/orvex/v1/rsyslog/client/1/disable"), "");
    expectJson(call("set_device_rsyslog_client_enable", R"({"id":"1"})").get(), R"({"success":true,"id":1,"enable":true})");
    seen("PUT", "/orvex/v1/rsyslog/client/1/enable");

    JsonRef list = call("get_device_rsyslog_client", R"({"ignored":true})");
    expectJson(list.get(), R"({"success":true,"clients":[{"id":1,"address":"192.0.2.11","mode":1,"port":1514,
        "bsd":false,"event":false,"access":true,"enable":true}]})");
    EXPECT_EQ(seen("GET", "/orvex/v1/rsyslog/client"), "{}");

    UdpSink sink;
    ASSERT_GT(sink.port(), 0);
    std::string test = R"({"mode":3,"address":"127.0.0.1","port":)" + std::to_string(sink.port()) + "}";
    expectJson(call("add_device_rsyslog_client_test", test).get(), R"({"success":true,"sent":true})");
    EXPECT_EQ(seen("POST", "/orvex/v1/rsyslog/client/test"),
        R"({"mode":3,"address":"127.0.0.1","port":)" + std::to_string(sink.port()) + R"(,"bsd":false})");
    EXPECT_FALSE(sink.receive().empty());

    expectJson(call("del_device_rsyslog_client", R"({"id":1})").get(), R"({"success":true,"id":1})");
    EXPECT_EQ(seen("DELETE", "/orvex/v1/rsyslog/client/1"), "");
    expectJson(json_object_get(call("get_device_rsyslog_client").get(), "clients"), "[]");
}

TEST_P(Methods, SignoutRepliesThenEndsTheProcess)
{
    pid_t pid = session_->daemon.process().pid();
    BusReply reply = session_->daemon.call("signout", R"({"anything":1})");
    ASSERT_EQ(reply.rc, 0);
    expectJson(reply.json().get(), "{}");
    EXPECT_EQ(session_->daemon.process().wait(), 0);
    bool legacy = std::string(GetParam().family) == "legacy";
    EXPECT_EQ(session_->device.requestsTo(legacy ? "POST" : "GET", legacy ? "/cgi-bin/authLogout.cgi" : "/zem/oauth/logout")
                  .size(),
        1u);
    // No orderly shutdown ran: nothing was logged about stopping, and the file keeps the pid.
    EXPECT_EQ(session_->daemon.log().find("stop."), std::string::npos);
    EXPECT_EQ(readFile(lockPath(session_->daemon.mac())), std::to_string(pid));
}

INSTANTIATE_TEST_SUITE_P(Families, Methods,
    ::testing::Values(Kind{"legacy", false}, Kind{"legacy", true}, Kind{"token", false}, Kind{"token", true}),
    kindName);

}  // namespace
}  // namespace e2e
