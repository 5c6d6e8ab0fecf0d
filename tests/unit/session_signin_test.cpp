// Sign-in and the two firmware families on the wire, against the device simulator, over
// plain HTTP and over HTTPS (the simulator's self-signed certificate).
#include "common/misc.h"
#include "tests/support/session.h"

#include <Poco/Net/HTTPRequest.h>

using namespace Orvex;
using namespace Orvex::Test;

namespace {

std::string query(const std::string& target, const std::string& key)
{
    size_t start = target.find(key + "=");
    if (start == std::string::npos)
        return "";
    start += key.size() + 1;
    return target.substr(start, target.find('&', start) - start);
}

void expectNoCredentials(const Logged& r)
{
    EXPECT_FALSE(r.hasHeader("Cookie")) << r.target;
    EXPECT_FALSE(r.hasHeader("Authorization")) << r.target;
}

void expectCookies(const Logged& r, const std::string& sid, bool tls)
{
    std::string second = tls ? "NVX_SSL_SSID=" : "NVX_SSID=";
    EXPECT_EQ(r.header("Cookie"), "NAS_SID=" + sid + "; " + second + sid) << r.target;
    EXPECT_FALSE(r.hasHeader("Authorization"));
}

class SessionSignin : public ::testing::TestWithParam<bool> {
protected:
    bool tls() const { return GetParam(); }
};

}  // namespace

TEST_P(SessionSignin, LegacyExchangesCarryFormBodyQueriesAndBothCookies)
{
    Devsim device("legacy", tls());
    JsonRef out = signin(device);
    EXPECT_EQ(dump(out.get()),
              R"({"firmware":"4.3.6.912","hostname":"nas-legacy","model":"NVX-4200","serial":"LGC0001234"})");
    EXPECT_EQ(Session::getInstance().getFamily(), Nvx);

    std::vector<Logged> log = device.requests();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].method, "POST");
    EXPECT_EQ(log[0].target, "/cgi-bin/authLogin.cgi");
    EXPECT_EQ(log[0].body, "user=admin&pwd=" + btoa("secret"));
    EXPECT_FALSE(log[0].hasHeader("Content-Type"));
    EXPECT_EQ(log[0].header("Content-Length"), std::to_string(log[0].body.size()));
    expectNoCredentials(log[0]);

    std::string sid = query(log[1].target, "sid");
    ASSERT_FALSE(sid.empty());
    EXPECT_EQ(log[1].method, "GET");
    EXPECT_EQ(log[1].target, "/cgi-bin/authLogin.cgi?sid=" + sid);
    EXPECT_EQ(log[1].body, "");
    EXPECT_EQ(log[1].header("Content-Length"), "0");
    expectCookies(log[1], sid, tls());
    EXPECT_EQ(log[2].method, "GET");
    EXPECT_EQ(log[2].target, "/cgi-bin/management/manaRequest.cgi?sid=" + sid + "&subfunc=sysinfo");
    expectCookies(log[2], sid, tls());
}

// The identity's JSON values are shared between replies: a new device's identity must
// replace them, and a reply already made must keep the one it was made with.
TEST_P(SessionSignin, IdentityFollowsTheDeviceSignedInWhileEarlierRepliesKeepTheirs)
{
    const std::string legacy =
        R"({"firmware":"4.3.6.912","hostname":"nas-legacy","model":"NVX-4200","serial":"LGC0001234"})";
    Devsim first("legacy", tls());
    JsonRef before = signin(first);
    Devsim second("token", tls());
    JsonRef after = signin(second);
    EXPECT_EQ(dump(after.get()), R"({"firmware":"5.1.2","hostname":"nas-token","model":"ZEM-880","serial":"ZEM000987"})");
    EXPECT_EQ(dump(before.get()), legacy);
    JsonRef again = JsonRef::adopt(json_object());
    json_t* out = again.get();
    Session::getInstance().getSystemInfo(out);
    EXPECT_EQ(dump(again.get()), dump(after.get()));
}

TEST_P(SessionSignin, TokenExchangesCarryQueryAndBearer)
{
    Devsim device("token", tls());
    JsonRef out = signin(device);
    EXPECT_EQ(dump(out.get()),
              R"({"firmware":"5.1.2","hostname":"nas-token","model":"ZEM-880","serial":"ZEM000987"})");
    EXPECT_EQ(Session::getInstance().getFamily(), Zem);

    // The legacy login is tried first and meets the token device's 404 page.
    std::vector<Logged> log = device.requests();
    ASSERT_EQ(log.size(), 4u);
    EXPECT_EQ(log[0].target, "/cgi-bin/authLogin.cgi");
    EXPECT_EQ(log[1].method, "GET");
    EXPECT_EQ(log[1].target, "/zem/oauth/token?grant_type=password&username=admin&password=" + btoa("secret"));
    expectNoCredentials(log[1]);
    std::string token = query(log[3].target, "sid");
    ASSERT_FALSE(token.empty());
    EXPECT_EQ(log[2].method, "GET");
    EXPECT_EQ(log[2].target, "/system/firmware/info");
    EXPECT_EQ(log[2].header("Authorization"), "Bearer " + token);
    EXPECT_FALSE(log[2].hasHeader("Cookie"));
    EXPECT_EQ(log[3].target, "/zem/system?sid=" + token);
    EXPECT_EQ(log[3].header("Authorization"), "Bearer " + token);
}

// The form post carries the decoded query text, the token grant the encoded one.
TEST_P(SessionSignin, SpecialCharactersUnescapedInFormBodyEncodedInQuery)
{
    const std::string user = "a&b c+d";
    const std::string pass = "p>?~~";  // base64 "cD4/fn4=" holds '/' and '='
    Devsim device("token", tls(), {"--user", user, "--pass", pass});
    signin(device, user, pass);
    std::vector<Logged> log = device.requests();
    ASSERT_GE(log.size(), 2u);
    EXPECT_EQ(log[0].body, "user=" + user + "&pwd=" + btoa(pass));
    EXPECT_EQ(log[1].target, "/zem/oauth/token?grant_type=password&username=a%26b%20c%2Bd&password=cD4%2Ffn4%3D");
}

// A missing identity node fails the family; what the family had already stored stays.
// Only the legacy serial number may be missing.
TEST_P(SessionSignin, MissingIdentityNodeFailsFamilyAndKeepsPartialState)
{
    struct Case {
        const char* family;
        const char* omit;
        FirmwareFamily left;
    } cases[] = {
        {"legacy", "displayModelName", Nvx},
        {"legacy", "hostname", Nvx},
        {"token", "server_name", Zem},
        {"token", "serial_no", Zem},
        {"token", "refresh_token", None},
    };
    {
        Devsim device("legacy", tls(), {"--omit", "serial_number"});
        JsonRef out = signin(device);
        EXPECT_STREQ(json_string_value(json_object_get(out.get(), "serial")), "");
        EXPECT_STREQ(json_string_value(json_object_get(out.get(), "model")), "NVX-4200");
    }
    for (const Case& c : cases) {
        Devsim device(c.family, tls(), {"--omit", c.omit});
        EXPECT_THROW(signin(device), SessionException) << c.omit;
        Session& session = Session::getInstance();
        EXPECT_EQ(session.getFamily(), c.left) << c.omit;
        // With an id or token kept, the session counts as signed in and sends it.
        size_t before = device.requests().size();
        json_t* out = json_object();
        JsonRef owner = JsonRef::adopt(out);
        if (c.left == None) {
            EXPECT_THROW(session.getRsyslogConfig(out), SessionException);
            EXPECT_EQ(device.requests().size(), before);
            continue;
        }
        session.getRsyslogConfig(out);
        std::vector<Logged> log = device.requestsFrom(before);
        ASSERT_EQ(log.size(), 1u);
        EXPECT_TRUE(log[0].hasHeader(c.left == Nvx ? "Cookie" : "Authorization")) << c.omit;
    }
}

TEST_P(SessionSignin, LegacySignoutClearsNothingAndTheNextLoginSendsTheOldId)
{
    Devsim device("legacy", tls());
    signin(device);
    Session& session = Session::getInstance();
    std::string sid = query(device.requests()[1].target, "sid");

    EXPECT_TRUE(session.signout());
    std::vector<Logged> log = device.requestsFrom(3);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].method, "POST");
    EXPECT_EQ(log[0].target, "/cgi-bin/authLogout.cgi");
    EXPECT_EQ(log[0].body, "sid=" + sid + "&logout=1");
    expectCookies(log[0], sid, tls());
    EXPECT_EQ(session.getFamily(), Nvx);

    // Signing in again signs out once more, then logs in with the old id as cookies.
    SigninOption option = signinOption(device);
    json_t* out = json_object();
    JsonRef owner = JsonRef::adopt(out);
    session.signin(out, option);
    log = device.requestsFrom(4);
    ASSERT_EQ(log.size(), 4u);
    EXPECT_EQ(log[0].target, "/cgi-bin/authLogout.cgi");
    EXPECT_EQ(log[1].target, "/cgi-bin/authLogin.cgi");
    EXPECT_EQ(log[1].body, "user=admin&pwd=" + btoa("secret"));
    expectCookies(log[1], sid, tls());
}

TEST_P(SessionSignin, TokenSignoutClearsTokensAndKeepsFamily)
{
    Devsim device("token", tls());
    signin(device);
    Session& session = Session::getInstance();
    std::vector<Logged> log = device.requests();
    std::string access = query(log[3].target, "sid");

    EXPECT_TRUE(session.signout());
    log = device.requestsFrom(4);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].method, "GET");
    EXPECT_EQ(log[0].target.rfind("/zem/oauth/logout?access_token=" + access + "&refresh_token=", 0), 0u);
    EXPECT_FALSE(query(log[0].target, "refresh_token").empty());
    EXPECT_EQ(log[0].header("Authorization"), "Bearer " + access);
    EXPECT_EQ(session.getFamily(), Zem);

    json_t* out = json_object();
    JsonRef owner = JsonRef::adopt(out);
    EXPECT_THROW(session.getSystemInfo(out), SessionException);
    // Nothing is signed in any more: a bare request goes out without credentials.
    session.request(Poco::Net::HTTPRequest::HTTP_GET, "/zem/oauth/tokeninfo");
    log = device.requestsFrom(5);
    ASSERT_EQ(log.size(), 1u);
    expectNoCredentials(log[0]);
}

TEST_P(SessionSignin, UnreachableDeviceFailsSigninAndLaterRequests)
{
    Devsim device("token", tls());
    signin(device);
    Session& session = Session::getInstance();
    device.stop();
    JsonRef owner = JsonRef::adopt(json_object());
    json_t* out = owner.get();
    EXPECT_EQ(sessionFailure([&] { session.getRsyslogConfig(out); }), "connection fail 400");
    // The sign-out that starts a sign-in cannot reach the old device either.
    SigninOption option = signinOption(device);
    EXPECT_NE(sessionFailure([&] { session.signin(out, option); }), "");
    session.reset();
    EXPECT_EQ(sessionFailure([&] { session.signin(out, option); }), "signin fail 403");
}

// Both transports' ends of an exchange the device hangs up on.
TEST_P(SessionSignin, HungUpExchangeIsAConnectionFailure)
{
    Devsim device("token", tls(), {"--hangup", "/orvex/v1/rsyslog"});
    signin(device);
    JsonRef owner = JsonRef::adopt(json_object());
    json_t* out = owner.get();
    EXPECT_EQ(sessionFailure([&] { Session::getInstance().getRsyslogConfig(out); }), "connection fail 400");
}

INSTANTIATE_TEST_SUITE_P(Transport, SessionSignin, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "Https" : "Http"; });

TEST(SessionTls, Tls10OnlyDeviceIsRefusedAndLoggedWithoutThePassword)
{
    Poco::AutoPtr<LogCapture> capture = captureLog();
    Devsim device("token", true, {"--tls10-only"});
    EXPECT_EQ(sessionFailure([&] { signin(device, "admin", "hunter2-secret"); }), "signin fail 403");
    EXPECT_TRUE(device.requests().empty());
    bool errorLogged = false;
    for (const std::string& line : capture->lines()) {
        errorLogged = errorLogged || line.rfind("[Session] ", 0) == 0;
        EXPECT_EQ(line.find("hunter2-secret"), std::string::npos) << line;
        EXPECT_EQ(line.find(btoa("hunter2-secret")), std::string::npos) << line;
    }
    EXPECT_TRUE(errorLogged);
    Poco::Logger::root().setLevel(Poco::Message::PRIO_INFORMATION);
}

