#include <gtest/gtest.h>

#include <Poco/Net/Context.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/NameValueCollection.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/StreamCopier.h>
#include <Poco/URI.h>

#include <jansson.h>

#include <chrono>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "common/raii.h"
#include "tests/support/devsim.h"
#include "tests/support/process.h"

using Orvex::JsonRef;

namespace {

struct Answer {
    int status = 0;
    std::string body;
    std::string contentType;
};

// The TLS settings the session daemon uses against real devices.
Poco::Net::Context::Ptr clientContext()
{
    Poco::Net::Context::Ptr context = new Poco::Net::Context(Poco::Net::Context::TLSV1_CLIENT_USE, "", "", "",
                                                             Poco::Net::Context::VERIFY_NONE, 9, false,
                                                             "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH");
    context->disableProtocols(Poco::Net::Context::PROTO_SSLV2 | Poco::Net::Context::PROTO_SSLV3 |
                              Poco::Net::Context::PROTO_TLSV1);
    return context;
}

// The shared simulator, which must also end cleanly: a sanitizer report or a crash in the
// child shows up as a non-zero status.
struct Sim : Orvex::Test::Devsim {
    using Devsim::Devsim;
    ~Sim() { EXPECT_EQ(stop(), 0) << "orvex-devsim did not stop cleanly"; }
};

Answer call(const Sim& device, const std::string& method, const std::string& target, const std::string& body = "",
            const Poco::Net::NameValueCollection& headers = {}, Poco::Net::Context::Ptr context = clientContext())
{
    std::unique_ptr<Poco::Net::HTTPClientSession> session;
    if (device.tls())
        session = std::make_unique<Poco::Net::HTTPSClientSession>("127.0.0.1", device.port(), context);
    else
        session = std::make_unique<Poco::Net::HTTPClientSession>("127.0.0.1", device.port());
    session->setTimeout(Poco::Timespan(10, 0));
    Poco::Net::HTTPRequest request(method, target, Poco::Net::HTTPMessage::HTTP_1_1);
    for (const auto& h : headers)
        request.add(h.first, h.second);
    request.setContentLength(static_cast<std::streamsize>(body.size()));
    session->sendRequest(request) << body;
    Poco::Net::HTTPResponse response;
    std::istream& in = session->receiveResponse(response);
    Answer answer;
    answer.status = response.getStatus();
    answer.contentType = response.getContentType();
    Poco::StreamCopier::copyToString(in, answer.body);
    return answer;
}

Answer get(const Sim& device, const std::string& target, const Poco::Net::NameValueCollection& headers = {})
{
    return call(device, "GET", target, "", headers);
}

std::string between(const std::string& text, const std::string& open, const std::string& close)
{
    size_t start = text.find(open);
    if (start == std::string::npos)
        return "";
    start += open.size();
    size_t end = text.find(close, start);
    return end == std::string::npos ? "" : text.substr(start, end - start);
}

std::string xmlValue(const std::string& xml, const std::string& node)
{
    return between(xml, "<" + node + ">", "</" + node + ">");
}

JsonRef parse(const std::string& text)
{
    return JsonRef::adopt(json_loadb(text.data(), text.size(), 0, nullptr));
}

std::string jsonString(const JsonRef& doc, const char* path1, const char* path2 = nullptr)
{
    json_t* value = json_object_get(doc.get(), path1);
    if (path2)
        value = json_object_get(value, path2);
    return json_is_string(value) ? json_string_value(value) : "";
}

json_int_t jsonInt(const JsonRef& doc, const char* key)
{
    return json_integer_value(json_object_get(doc.get(), key));
}

std::string base64(const std::string& text)
{
    static const char table[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < text.size(); i += 3) {
        uint32_t n = static_cast<unsigned char>(text[i]) << 16;
        if (i + 1 < text.size()) n |= static_cast<unsigned char>(text[i + 1]) << 8;
        if (i + 2 < text.size()) n |= static_cast<unsigned char>(text[i + 2]);
        out += table[(n >> 18) & 63];
        out += table[(n >> 12) & 63];
        out += i + 1 < text.size() ? table[(n >> 6) & 63] : '=';
        out += i + 2 < text.size() ? table[n & 63] : '=';
    }
    return out;
}

// Its base64 holds '+', '/' and '=', which the legacy client posts raw.
const std::string kAwkwardPass = "~~>???a";

std::string legacySignin(Sim& device, const std::string& pass = kAwkwardPass)
{
    Answer a = call(device, "POST", "/cgi-bin/authLogin.cgi", "user=admin&pwd=" + base64(pass));
    return xmlValue(a.body, "authSid");
}

Poco::Net::NameValueCollection legacyCookies(const std::string& sid, bool secure)
{
    Poco::Net::NameValueCollection headers;
    headers.add("Cookie", "NAS_SID=" + sid + "; " + (secure ? "NVX_SSL_SSID=" : "NVX_SSID=") + sid);
    return headers;
}

std::string tokenTarget(const std::string& user, const std::string& pass)
{
    Poco::URI uri("/zem/oauth/token");
    uri.addQueryParameter("grant_type", "password");
    uri.addQueryParameter("username", user);
    uri.addQueryParameter("password", base64(pass));
    return uri.getPathAndQuery();
}

Poco::Net::NameValueCollection bearer(const std::string& token)
{
    Poco::Net::NameValueCollection headers;
    headers.add("Authorization", "Bearer " + token);
    return headers;
}

std::string tokenSignin(Sim& device)
{
    return jsonString(parse(get(device, tokenTarget("admin", "secret")).body), "access_token");
}

}  // namespace

TEST(DevsimStartup, PrintsTheReadyLineAndEndsCleanlyWhenStdinCloses)
{
    for (bool tls : {false, true}) {
        Sim device("legacy", tls);
        ASSERT_NE(device.port(), 0) << "ready line: " << device.readyLine();
        EXPECT_EQ(device.readyLine().rfind(tls ? "orvex-devsim listening on https://" : "orvex-devsim listening on http://", 0), 0u);
        EXPECT_EQ(device.stop(), 0);
    }
}

TEST(DevsimStartup, RefusesABadCommandLineWithStatus2)
{
    Orvex::Test::RunResult noFamily = Orvex::Test::run({ORVEX_DEVSIM, "--port", "0"});
    EXPECT_EQ(noFamily.out, "");
    EXPECT_EQ(noFamily.status, 2);
    EXPECT_EQ(Orvex::Test::run({ORVEX_DEVSIM, "--family", "token", "--port", "70000"}).status, 2);
}

TEST(DevsimLegacy, AnswersTheWholeSessionOverHttpsWithRawBase64Password)
{
    Sim device("legacy", true, {"--pass", kAwkwardPass});
    std::string sid = legacySignin(device);
    ASSERT_FALSE(sid.empty());

    Answer info = get(device, "/cgi-bin/authLogin.cgi?sid=" + sid);
    EXPECT_EQ(xmlValue(info.body, "displayModelName"), "NVX-4200");
    EXPECT_EQ(xmlValue(info.body, "version"), "4.3.6");
    EXPECT_EQ(xmlValue(info.body, "number"), "912");
    EXPECT_EQ(xmlValue(info.body, "hostname"), "nas-legacy");
    EXPECT_EQ(info.body.find("<VDocRoot>") != std::string::npos, true);

    Answer serial = get(device, "/cgi-bin/management/manaRequest.cgi?sid=" + sid + "&subfunc=sysinfo");
    EXPECT_EQ(xmlValue(serial.body, "serial_number"), "LGC0001234");

    EXPECT_EQ(xmlValue(call(device, "POST", "/cgi-bin/authLogin.cgi", "sid=" + sid).body, "authPassed"), "1");
    call(device, "POST", "/cgi-bin/authLogout.cgi", "sid=" + sid + "&logout=1");
    EXPECT_EQ(xmlValue(call(device, "POST", "/cgi-bin/authLogin.cgi", "sid=" + sid).body, "authPassed"), "0");
}

TEST(DevsimLegacy, RefusesWrongCredentialsAndDeadSessions)
{
    Sim device("legacy", false);
    Answer refused = call(device, "POST", "/cgi-bin/authLogin.cgi", "user=admin&pwd=" + base64("wrong"));
    EXPECT_EQ(xmlValue(refused.body, "authPassed"), "0");
    EXPECT_EQ(refused.body.find("authSid"), std::string::npos);
    EXPECT_EQ(legacySignin(device, "secret").empty(), false);

    Answer info = get(device, "/cgi-bin/authLogin.cgi?sid=deadbeef");
    EXPECT_EQ(xmlValue(info.body, "authPassed"), "0");
    EXPECT_EQ(info.body.find("displayModelName"), std::string::npos);
    EXPECT_EQ(get(device, "/orvex/v1/rsyslog/config", legacyCookies("deadbeef", false)).status, 401);
}

TEST(DevsimLegacy, ServesOnlyItsOwnFamilyPaths)
{
    Sim device("legacy", false);
    Answer foreign = get(device, tokenTarget("admin", "secret"));
    EXPECT_EQ(foreign.status, 404);
    EXPECT_EQ(foreign.contentType, "text/html");
}

TEST(DevsimToken, AnswersTheWholeSessionOverHttps)
{
    Sim device("token", true, {"--user", "ad m&n+"});
    JsonRef grant = parse(get(device, tokenTarget("ad m&n+", "secret")).body);
    std::string access = jsonString(grant, "access_token");
    std::string refresh = jsonString(grant, "refresh_token");
    ASSERT_FALSE(access.empty());
    ASSERT_FALSE(refresh.empty());
    EXPECT_EQ(jsonString(grant, "token_type"), "bearer");

    JsonRef info = parse(get(device, "/system/firmware/info", bearer(access)).body);
    EXPECT_EQ(jsonString(info, "model", "display_name"), "ZEM-880");
    EXPECT_EQ(jsonString(info, "model", "server_name"), "nas-token");
    EXPECT_EQ(jsonString(info, "firmware", "version"), "5.1.2");
    JsonRef system = parse(get(device, "/zem/system?sid=" + access, bearer(access)).body);
    EXPECT_EQ(jsonString(system, "model", "serial_no"), "ZEM000987");

    EXPECT_EQ(jsonString(parse(get(device, "/zem/oauth/tokeninfo?access_token=" + access).body), "access_token"), access);
    get(device, "/zem/oauth/logout?access_token=" + access + "&refresh_token=" + refresh);
    Answer after = get(device, "/zem/oauth/tokeninfo?access_token=" + access);
    EXPECT_EQ(after.status, 401);
    EXPECT_TRUE(jsonString(parse(after.body), "access_token").empty());
}

TEST(DevsimToken, RequiresAValidBearerToken)
{
    Sim device("token", false);
    EXPECT_EQ(get(device, tokenTarget("admin", "nope")).status, 401);
    EXPECT_EQ(get(device, "/system/firmware/info").status, 401);
    EXPECT_EQ(get(device, "/system/firmware/info", bearer("forged")).status, 401);
    std::string access = tokenSignin(device);
    EXPECT_EQ(get(device, "/orvex/v1/rsyslog/config", legacyCookies(access, false)).status, 401);
    EXPECT_EQ(get(device, "/orvex/v1/rsyslog/config", bearer(access)).status, 200);
    EXPECT_EQ(get(device, "/cgi-bin/authLogin.cgi").status, 404);
}

TEST(DevsimRsyslog, KeepsTheClientListAndSettings)
{
    Sim device("legacy", false);
    std::string sid = legacySignin(device, "secret");
    auto cookies = legacyCookies(sid, false);
    const std::string client = "/orvex/v1/rsyslog/client";
    const std::string body = R"({"address":"10.0.0.5","mode":3,"port":514,"bsd":false,"event":true,"access":false,"enable":true})";

    JsonRef added = parse(call(device, "POST", client + "?sid=" + sid, body, cookies).body);
    json_int_t id = jsonInt(added, "id");
    ASSERT_GT(id, 0);
    std::string one = client + "/" + std::to_string(id);
    EXPECT_EQ(call(device, "PUT", one, R"({"address":"10.0.0.6","mode":1,"port":601})", cookies).status, 200);
    EXPECT_EQ(call(device, "PUT", one + "/disable", "", cookies).status, 200);
    EXPECT_EQ(call(device, "PUT", "/orvex/v1/rsyslog/client/config", R"({"bsd":true,"orvex":false})", cookies).status, 200);

    JsonRef config = parse(get(device, "/orvex/v1/rsyslog/config", cookies).body);
    json_t* stored = json_array_get(json_object_get(config.get(), "clients"), 0);
    EXPECT_STREQ(json_string_value(json_object_get(stored, "address")), "10.0.0.6");
    EXPECT_EQ(json_integer_value(json_object_get(stored, "mode")), 1);
    EXPECT_TRUE(json_is_false(json_object_get(stored, "enable")));
    EXPECT_TRUE(json_is_true(json_object_get(json_object_get(config.get(), "client"), "bsd")));

    EXPECT_EQ(call(device, "DELETE", one, "", cookies).status, 200);
    EXPECT_EQ(call(device, "DELETE", one, "", cookies).status, 404);
    EXPECT_EQ(call(device, "PUT", one + "/enable", "", cookies).status, 404);
    JsonRef list = parse(call(device, "GET", client, "{}", cookies).body);
    EXPECT_EQ(json_array_size(json_object_get(list.get(), "clients")), 0u);
}

TEST(DevsimRsyslog, RejectsBadBodiesButTakesTheEmptyServerConfig)
{
    Sim device("token", false);
    auto auth = bearer(tokenSignin(device));
    const std::string client = "/orvex/v1/rsyslog/client";
    EXPECT_EQ(call(device, "POST", client, "not json", auth).status, 400);
    EXPECT_EQ(call(device, "POST", client, R"({"address":"h","mode":4,"port":514})", auth).status, 400);
    EXPECT_EQ(call(device, "POST", client, R"({"address":"h","mode":3})", auth).status, 400);
    EXPECT_EQ(call(device, "PUT", "/orvex/v1/rsyslog/server/config", R"({"tcp_port":0})", auth).status, 400);

    EXPECT_EQ(call(device, "PUT", "/orvex/v1/rsyslog/server/config", R"({"enable":true})", auth).status, 200);
    Answer off = call(device, "PUT", "/orvex/v1/rsyslog/server/config?sid=x", "", auth);
    EXPECT_EQ(off.status, 200);
    JsonRef config = parse(get(device, "/orvex/v1/rsyslog/config", auth).body);
    EXPECT_TRUE(json_is_false(json_object_get(json_object_get(config.get(), "server"), "enable")));
    EXPECT_EQ(call(device, "DELETE", "/orvex/v1/rsyslog/config", "", auth).status, 405);
    EXPECT_EQ(get(device, "/orvex/v1/rsyslog/nothing", auth).status, 404);
}

TEST(DevsimRsyslog, TestSendsOneSyslogLineToTheDestination)
{
    Sim device("legacy", false);
    auto cookies = legacyCookies(legacySignin(device, "secret"), false);
    Poco::Net::DatagramSocket receiver(Poco::Net::SocketAddress("127.0.0.1", 0));
    receiver.setReceiveTimeout(Poco::Timespan(5, 0));
    std::string body = R"({"mode":3,"address":"127.0.0.1","port":)" + std::to_string(receiver.address().port()) +
                       R"(,"bsd":true})";

    Answer sent = call(device, "POST", "/orvex/v1/rsyslog/client/test", body, cookies);
    EXPECT_EQ(sent.status, 200);
    EXPECT_TRUE(json_is_true(json_object_get(parse(sent.body).get(), "sent")));
    char line[1024] = {};
    int n = receiver.receiveBytes(line, sizeof line - 1);
    ASSERT_GT(n, 0);
    EXPECT_TRUE(std::regex_search(line, std::regex("^<14>[A-Z][a-z]{2} .* nas-legacy orvex: "))) << line;

    // Nothing listens on TCP port 1: the answer says the line did not go out.
    Answer refused = call(device, "POST", "/orvex/v1/rsyslog/client/test",
                                 R"({"mode":1,"address":"127.0.0.1","port":1,"bsd":false})", cookies);
    EXPECT_EQ(refused.status, 502);
    EXPECT_TRUE(json_is_false(json_object_get(parse(refused.body).get(), "sent")));
}

TEST(DevsimFaults, OmitDropsNodesAndKeysAtAnyDepth)
{
    Sim legacy("legacy", false, {"--omit", "hostname", "--omit", "serial_number"});
    std::string sid = legacySignin(legacy, "secret");
    EXPECT_EQ(get(legacy, "/cgi-bin/authLogin.cgi?sid=" + sid).body.find("hostname"), std::string::npos);
    Answer serial = get(legacy, "/cgi-bin/management/manaRequest.cgi?sid=" + sid + "&subfunc=sysinfo");
    EXPECT_EQ(serial.body.find("serial_number"), std::string::npos);
    EXPECT_NE(serial.body.find("<root>"), std::string::npos);

    Sim token("token", false, {"--omit", "refresh_token"});
    JsonRef grant = parse(get(token, tokenTarget("admin", "secret")).body);
    EXPECT_FALSE(jsonString(grant, "access_token").empty());
    EXPECT_EQ(json_object_get(grant.get(), "refresh_token"), nullptr);
}

TEST(DevsimFaults, GarbageArrayAndHangupActOnTheirPrefixesOnly)
{
    Sim device("token", false, {"--garbage", "/system/", "--json-array", "/zem/oauth/token", "--hangup", "/zem/system"});
    Answer grant = get(device, tokenTarget("admin", "secret"));
    JsonRef array = parse(grant.body);
    ASSERT_TRUE(json_is_array(array.get()));
    std::string access = jsonString(JsonRef::borrow(json_array_get(array.get(), 0)), "access_token");
    ASSERT_FALSE(access.empty());

    Answer garbage = get(device, "/system/firmware/info", bearer(access));
    EXPECT_EQ(parse(garbage.body).get(), nullptr);
    EXPECT_EQ(garbage.body.find('<'), std::string::npos);
    EXPECT_THROW(get(device, "/zem/system?sid=" + access, bearer(access)), Poco::Exception);
    EXPECT_EQ(get(device, "/zem/oauth/tokeninfo?access_token=" + access).status, 200);
}

TEST(DevsimFaults, ExpiredSessionsFailAliveChecksAndSyslogCalls)
{
    Sim device("legacy", false, {"--expire-after", "2"});
    std::string sid = legacySignin(device, "secret");
    EXPECT_EQ(xmlValue(call(device, "POST", "/cgi-bin/authLogin.cgi", "sid=" + sid).body, "authPassed"), "1");
    // Poll rather than guess how far into its first second the session was made.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (xmlValue(call(device, "POST", "/cgi-bin/authLogin.cgi", "sid=" + sid).body, "authPassed") == "1" &&
           std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(xmlValue(call(device, "POST", "/cgi-bin/authLogin.cgi", "sid=" + sid).body, "authPassed"), "0");
    EXPECT_EQ(get(device, "/orvex/v1/rsyslog/config", legacyCookies(sid, false)).status, 401);
}

TEST(DevsimTls, RefusesClientWhenOnlyTls10IsOfferedAndResumesSessions)
{
    Sim old("legacy", true, {"--tls10-only"});
    EXPECT_THROW(get(old, "/cgi-bin/authLogin.cgi"), Poco::Exception);

    Sim device("legacy", true);
    // Poco 1.11 keeps the session it sees right after the handshake; under TLS 1.3 the
    // ticket only comes later, so resumption is checked over TLS 1.2.
    Poco::Net::Context::Ptr context = clientContext();
    context->disableProtocols(Poco::Net::Context::PROTO_SSLV2 | Poco::Net::Context::PROTO_SSLV3 |
                              Poco::Net::Context::PROTO_TLSV1 | Poco::Net::Context::PROTO_TLSV1_3);
    context->enableSessionCache(true);
    Poco::Net::HTTPSClientSession first("127.0.0.1", device.port(), context);
    Poco::Net::HTTPRequest request("GET", "/cgi-bin/authLogin.cgi", Poco::Net::HTTPMessage::HTTP_1_1);
    Poco::Net::HTTPResponse response;
    first.sendRequest(request);
    Poco::StreamCopier::copyToString(first.receiveResponse(response), *std::make_unique<std::string>());
    Poco::Net::Session::Ptr saved = first.sslSession();
    ASSERT_FALSE(saved.isNull());

    Poco::Net::HTTPSClientSession second("127.0.0.1", device.port(), context, saved);
    second.sendRequest(request);
    Poco::StreamCopier::copyToString(second.receiveResponse(response), *std::make_unique<std::string>());
    Poco::Net::SecureStreamSocket socket(second.socket());
    EXPECT_TRUE(socket.sessionWasReused());
}

TEST(DevsimRequestLog, RecordsEveryRequestWithHeadersAndRawBody)
{
    Sim device("legacy", false);
    std::string sid = legacySignin(device);  // refused: wrong password, still logged
    call(device, "POST", "/cgi-bin/authLogin.cgi", "user=admin&pwd=" + base64("secret"), legacyCookies("s1", false));
    get(device, "/orvex/v1/rsyslog/config");
    get(device, "/no/such/page?x=1");
    EXPECT_EQ(device.stop(), 0);

    std::vector<Orvex::Test::Logged> lines = device.requests();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(jsonString(lines[0].record, "body"), "user=admin&pwd=" + base64(kAwkwardPass));
    EXPECT_EQ(jsonString(lines[1].record, "method"), "POST");
    EXPECT_EQ(jsonString(lines[1].record, "headers", "Cookie"), "NAS_SID=s1; NVX_SSID=s1");
    EXPECT_EQ(jsonString(lines[3].record, "target"), "/no/such/page?x=1");
    EXPECT_TRUE(json_is_real(json_object_get(lines[3].record.get(), "time")));
    EXPECT_FALSE(jsonString(lines[3].record, "headers", "Host").empty());
}
