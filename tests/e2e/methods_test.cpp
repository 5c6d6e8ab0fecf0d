// Every method through the daemon against the simulator of each firmware family (one over
// HTTPS, one over HTTP; the sign-in tests cover the credentials of every pairing): the reply
// the caller gets and the request the device saw. Each test ends with a termination signal.
#include <signal.h>

#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

struct Kind {
    const char* family;
    bool tls;
};

std::string kindName(const ::testing::TestParamInfo<Kind>& info)
{
    return std::string(info.param.family) + (info.param.tls ? "Https" : "Http");
}

class Methods : public ::testing::TestWithParam<Kind> {
protected:
    void SetUp() override
    {
        ORVEX_REQUIRE_ISOLATION();
        session_ = std::make_unique<SignedIn>(GetParam().family, GetParam().tls);
    }
    // A termination signal signs out and exits 0, keeping the lock file with its pid.
    void TearDown() override
    {
        if (!session_ || !session_->daemon.process().running())
            return;
        bool legacy = std::string(GetParam().family) == "legacy";
        Child& process = session_->daemon.process();
        process.signal(legacy ? SIGTERM : SIGINT);
        EXPECT_EQ(process.wait(), 0) << session_->daemon.log();
        EXPECT_EQ(session_->device.requestsTo("", legacy ? "/cgi-bin/authLogout.cgi" : "/zem/oauth/logout").size(), 1u);
        EXPECT_EQ(readFile(lockPath(session_->daemon.mac())), std::to_string(process.pid()));
        EXPECT_EQ(lockHolder(session_->daemon.mac()), 0);
        EXPECT_FALSE(answers(session_->daemon.mac()));
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

// In the order a caller would use them. The device keeps state, so each reply shows the
// earlier steps took effect; "{sid}" in a target is any session id.
struct Step {
    const char* method;
    const char* args;
    const char* reply;
    const char* http;    // the request the device saw
    const char* target;
    const char* body;
    bool json;           // sent as application/json
};

const Step kSteps[] = {
    {"get_device_rsyslog_config", R"({"discarded":1})", R"({"success":true,"server":{"enable":false,"tcp_enable":true,
        "tls_enable":false,"udp_enable":true,"tcp_port":514,"udp_port":514},"client":{"bsd":false,"orvex":true},
        "clients":[]})", "GET", "/orvex/v1/rsyslog/config", "", false},
    {"set_device_rsyslog_client_config", R"({"bsd":true,"orvex":false})",
        R"({"success":true,"client":{"bsd":true,"orvex":false}})", "PUT", "/orvex/v1/rsyslog/client/config",
        R"({"bsd":true,"orvex":false})", true},
    // Switching the server off goes out as an empty body with the session id in the query.
    {"set_device_rsyslog_server_config", R"({"tcp_port":1601,"udp_enable":true})", R"({"success":true,"server":{
        "enable":false,"tcp_enable":true,"tls_enable":false,"udp_enable":true,"tcp_port":514,"udp_port":514}})",
        "PUT", "/orvex/v1/rsyslog/server/config?sid={sid}", "", true},
    // Adding carries the session id in the query; changing the same client does not.
    {"add_device_rsyslog_client", R"({"address":"192.0.2.10","mode":3,"port":514,"event":true})",
        R"({"success":true,"id":1})", "POST", "/orvex/v1/rsyslog/client?sid={sid}",
        R"({"address":"192.0.2.10","mode":3,"port":514,"bsd":false,"event":true,"access":false,"enable":false})", true},
    {"set_device_rsyslog_client", R"({"id":1,"address":"192.0.2.11","mode":1,"port":1514,"access":true,"enable":true})",
        R"({"success":true,"id":1})", "PUT", "/orvex/v1/rsyslog/client/1",
        R"({"address":"192.0.2.11","mode":1,"port":1514,"bsd":false,"event":false,"access":true,"enable":true})", true},
    // Only the first of several ids is acted on.
    {"set_device_rsyslog_client_disable", R"({"id":[1,9]})", R"({"success":true,"id":1,"enable":false})", "PUT",
        "/orvex/v1/rsyslog/client/1/disable", "", false},
    {"set_device_rsyslog_client_enable", R"({"id":"1"})", R"({"success":true,"id":1,"enable":true})", "PUT",
        "/orvex/v1/rsyslog/client/1/enable", "", false},
    {"get_device_rsyslog_client", R"({"ignored":true})", R"({"success":true,"clients":[{"id":1,"address":"192.0.2.11",
        "mode":1,"port":1514,"bsd":false,"event":false,"access":true,"enable":true}]})", "GET",
        "/orvex/v1/rsyslog/client", "{}", true},
    // The device sends the test line itself and says whether it left.
    {"add_device_rsyslog_client_test", R"({"mode":3,"address":"127.0.0.1","port":5514})",
        R"({"success":true,"sent":true})", "POST", "/orvex/v1/rsyslog/client/test",
        R"({"mode":3,"address":"127.0.0.1","port":5514,"bsd":false})", true},
    {"del_device_rsyslog_client", R"({"id":1})", R"({"success":true,"id":1})", "DELETE", "/orvex/v1/rsyslog/client/1",
        "", false},
    {"get_device_rsyslog_client", "{}", R"({"success":true,"clients":[]})", "GET", "/orvex/v1/rsyslog/client", "{}", true},
};

TEST_P(Methods, EverySyslogMethodAnswersWithTheDeviceStateAndSendsItsRequest)
{
    // Every call carries the credentials of the sign-in (cookies or bearer token).
    const char* credential = std::string(GetParam().family) == "legacy" ? "Cookie" : "Authorization";
    const std::string signedIn = session_->device.requests().back().header(credential);
    ASSERT_FALSE(signedIn.empty());
    for (const Step& step : kSteps) {
        SCOPED_TRACE(step.method);
        size_t before = session_->device.requests().size();
        expectJson(call(step.method, step.args).get(), step.reply);
        std::vector<Logged> seen = session_->device.requestsFrom(before);
        ASSERT_EQ(seen.size(), 1u);
        std::string target = step.target;
        size_t sid = target.find("{sid}");
        if (sid != std::string::npos)
            target = target.substr(0, sid) + seen[0].target.substr(sid);
        EXPECT_EQ(seen[0].method + " " + seen[0].target + " " + seen[0].body,
            std::string(step.http) + " " + target + " " + step.body);
        EXPECT_EQ(seen[0].header("Content-Length"), std::to_string(seen[0].body.size()));
        EXPECT_EQ(seen[0].header("Content-Type"), step.json ? "application/json" : "");
        EXPECT_EQ(seen[0].header(credential), signedIn);
    }
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
    ::testing::Values(Kind{"legacy", true}, Kind{"token", false}),
    kindName);

}  // namespace
}  // namespace Orvex::Test
