// The ten remote-syslog operations against the device simulator: method, target, body,
// content type and credentials on the wire, and the device's answer as the reply.
#include "tests/support/session.h"

#include <functional>

using namespace Orvex;
using Orvex::Test::Devsim;
using Orvex::Test::Logged;

namespace {

using Operation = std::function<void(Session&, json_t*&)>;

struct Step {
    const char* name;
    Operation run;
    const char* method;
    std::string target;  // "{sid}" stands for the session id
    std::string body;
    bool json;           // content type application/json expected
};

JsonRef args(const char* text)
{
    return Orvex::Test::parseJson(text);
}

const char* kClient = R"({"address":"127.0.0.1","mode":3,"port":5514,"bsd":false,"event":true,"access":false,"enable":true})";
const char* kClientChanged = R"({"address":"127.0.0.1","mode":1,"port":5515,"bsd":true,"event":false,"access":true,"enable":false})";

Operation withClient(const std::string& text, bool idRequired, void (Session::*op)(json_t*&, SyslogClientOption&))
{
    return [=](Session& s, json_t*& json) {
        JsonRef a = args(text.c_str());
        SyslogClientOption option(a.get(), idRequired);
        (s.*op)(json, option);
    };
}

Operation withIds(void (Session::*op)(json_t*&, IdOption&))
{
    return [=](Session& s, json_t*& json) {
        JsonRef a = args(R"({"id":[1,9]})");
        IdOption option(a.get(), true);
        (s.*op)(json, option);
    };
}

Operation serverOff()
{
    return [](Session& s, json_t*& json) {
        JsonRef a = args(R"({"enable":false,"tcp_enable":true,"udp_enable":true})");
        SyslogServerOption option(a.get());
        s.setRsyslogServerConfig(json, option);
    };
}

Operation manager()
{
    return [](Session& s, json_t*& json) {
        JsonRef a = args(R"({"bsd":true,"orvex":false})");
        SyslogClientManagerOption option(a.get());
        s.setRsyslogClientConfig(json, option);
    };
}

// In the order a caller would use them: add, change, list, switch, test, settings, delete.
std::vector<Step> allSteps()
{
    std::string client = "/orvex/v1/rsyslog/client";
    return {
        {"add", withClient(kClient, false, &Session::addRsyslogClient), "POST", client + "?sid={sid}", kClient, true},
        {"set", withClient(std::string(kClientChanged).insert(1, "\"id\":1,"), true, &Session::setRsyslogClient),
         "PUT", client + "/1", kClientChanged, true},
        {"list", [](Session& s, json_t*& j) { s.getRsyslogClient(j); }, "GET", client, "{}", true},
        {"disable", withIds(&Session::setRsyslogClientDisable), "PUT", client + "/1/disable", "", false},
        {"enable", withIds(&Session::setRsyslogClientEnable), "PUT", client + "/1/enable", "", false},
        {"test", withClient(kClient, false, &Session::addRsyslogClientTest), "POST", client + "/test",
         R"({"mode":3,"address":"127.0.0.1","port":5514,"bsd":false})", true},
        {"manager", manager(), "PUT", client + "/config", R"({"bsd":true,"orvex":false})", true},
        {"server", serverOff(), "PUT", "/orvex/v1/rsyslog/server/config?sid={sid}", "", true},
        {"config", [](Session& s, json_t*& j) { s.getRsyslogConfig(j); }, "GET", "/orvex/v1/rsyslog/config", "", false},
        {"delete", withIds(&Session::delRsyslogClient), "DELETE", client + "/1", "", false},
    };
}

std::string replaceSid(std::string text, const std::string& sid)
{
    size_t at = text.find("{sid}");
    return at == std::string::npos ? text : text.replace(at, 5, sid);
}

// The session id as the device saw it in the sign-in's identity queries.
std::string sidOf(const Devsim& device)
{
    for (const Logged& r : device.requests()) {
        size_t at = r.target.find("?sid=");
        if (at != std::string::npos)
            return r.target.substr(at + 5, r.target.find('&', at) - at - 5);
    }
    return "";
}

struct Variant {
    const char* family;
    bool tls;
};

class SessionRsyslog : public ::testing::TestWithParam<Variant> {};

void expectOnWire(const Logged& r, const Step& step, const std::string& sid, const Variant& v)
{
    EXPECT_EQ(r.method, step.method);
    EXPECT_EQ(r.target, replaceSid(step.target, sid));
    EXPECT_EQ(r.body, step.body);
    EXPECT_EQ(r.header("Content-Length"), std::to_string(step.body.size()));
    EXPECT_EQ(r.hasHeader("Content-Type"), step.json);
    if (step.json) {
        EXPECT_EQ(r.header("Content-Type"), "application/json");
    }
    if (std::string(v.family) == "legacy") {
        EXPECT_EQ(r.header("Cookie"), "NAS_SID=" + sid + "; " + (v.tls ? "NVX_SSL_SSID=" : "NVX_SSID=") + sid);
    } else {
        EXPECT_EQ(r.header("Authorization"), "Bearer " + sid);
    }
}

json_t* member(json_t* object, const char* path1, const char* path2 = nullptr)
{
    json_t* value = json_object_get(object, path1);
    return path2 ? json_object_get(value, path2) : value;
}

}  // namespace

TEST_P(SessionRsyslog, EveryOperationOnTheWireWithTheDeviceAnswerAsReply)
{
    const Variant v = GetParam();
    Devsim device(v.family, v.tls);
    Orvex::Test::signin(device);
    std::string sid = sidOf(device);
    ASSERT_FALSE(sid.empty());
    Session& session = Session::getInstance();
    for (const Step& step : allSteps()) {
        SCOPED_TRACE(step.name);
        size_t before = device.requests().size();
        // The listing sends the object itself, which its handler has emptied.
        bool list = std::string(step.name) == "list";
        JsonRef owner = args(list ? "{}" : R"({"stale":1})");
        json_t* json = owner.get();
        step.run(session, json);
        std::vector<Logged> log = device.requestsFrom(before);
        ASSERT_EQ(log.size(), 1u);
        expectOnWire(log[0], step, sid, v);
        EXPECT_TRUE(json_is_true(member(json, "success"))) << Orvex::Test::dump(json);
        EXPECT_EQ(member(json, "stale"), nullptr);
        if (list) {
            json_t* first = json_array_get(member(json, "clients"), 0);
            EXPECT_EQ(json_integer_value(json_object_get(first, "port")), 5515);
        }
        if (std::string(step.name) == "config") {
            EXPECT_TRUE(json_is_true(member(json, "client", "bsd"))) << Orvex::Test::dump(json);
            EXPECT_TRUE(json_is_false(member(json, "server", "enable"))) << Orvex::Test::dump(json);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Families, SessionRsyslog,
                         ::testing::Values(Variant{"legacy", false}, Variant{"legacy", true}, Variant{"token", false},
                                           Variant{"token", true}),
                         [](const ::testing::TestParamInfo<Variant>& info) {
                             return std::string(info.param.family) + (info.param.tls ? "Https" : "Http");
                         });

TEST(SessionRsyslogState, EveryOperationRefusesBeforeSigninAndSendsNothing)
{
    Devsim device("token", false);
    Session& session = Session::getInstance();
    session.reset();
    for (const Step& step : allSteps()) {
        JsonRef owner = JsonRef::adopt(json_object());
        json_t* json = owner.get();
        EXPECT_EQ(Orvex::Test::sessionFailure([&] { step.run(session, json); }), "not signin 403") << step.name;
    }
    EXPECT_TRUE(device.requests().empty());
}

// The server switch has no key of its own in the body's pack format: switching the server
// on faults inside the packing, before anything is sent.
TEST(SessionRsyslogState, EnabledServerConfigFaultsBeforeSending)
{
    Devsim device("token", false);
    Orvex::Test::signin(device);
    size_t before = device.requests().size();
    int status = Orvex::Test::inChild(
        [] {
            try {
                JsonRef a = args(R"({"enable":true,"tcp_enable":true,"udp_enable":false})");
                SyslogServerOption option(a.get());
                json_t* json = json_object();
                Session::getInstance().setRsyslogServerConfig(json, option);
            } catch (...) {
                _exit(3);  // an exception is not the fault looked for
            }
        },
        true);
    // A signal, or the exit status a sanitizer gives after reporting the fault.
    EXPECT_TRUE(status != 0 && status != 3) << "exit status " << status;
    EXPECT_TRUE(device.requestsFrom(before).empty());
}
