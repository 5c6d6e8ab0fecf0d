// The device simulator as a program: its start, a syslog test line that really leaves, and
// TLS. What it answers for each family, its fault knobs and its request log are exercised
// by the session tests, which compare its answers and the requests it logged byte for byte.
#include "tests/support/devsim.h"

#include <gtest/gtest.h>

#include <Poco/Base64Encoder.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/StreamCopier.h>
#include <openssl/ssl.h>

#include <memory>
#include <regex>
#include <sstream>

using namespace Orvex::Test;
using Orvex::JsonRef;

namespace {

struct Answer {
    int status = 0;
    std::string body;
};

// The TLS settings the session daemon uses against real devices.
Poco::Net::Context::Ptr clientContext(int disabled = 0)
{
    Poco::Net::Context::Ptr context = new Poco::Net::Context(Poco::Net::Context::TLSV1_CLIENT_USE, "", "", "",
        Poco::Net::Context::VERIFY_NONE, 9, false, "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH");
    context->disableProtocols(Poco::Net::Context::PROTO_SSLV2 | Poco::Net::Context::PROTO_SSLV3 |
                              Poco::Net::Context::PROTO_TLSV1 | disabled);
    return context;
}

std::unique_ptr<Poco::Net::HTTPClientSession> connection(const Devsim& device)
{
    if (device.tls())
        return std::make_unique<Poco::Net::HTTPSClientSession>("127.0.0.1", device.port(), clientContext());
    return std::make_unique<Poco::Net::HTTPClientSession>("127.0.0.1", device.port());
}

// One request; header is "Name: value" or empty.
Answer call(const Devsim& device, const std::string& method, const std::string& target, const std::string& body = "",
    const std::string& header = "")
{
    auto session = connection(device);
    session->setTimeout(Poco::Timespan(10, 0));
    Poco::Net::HTTPRequest request(method, target, Poco::Net::HTTPMessage::HTTP_1_1);
    if (!header.empty())
        request.add(header.substr(0, header.find(':')), header.substr(header.find(':') + 2));
    request.setContentLength(static_cast<std::streamsize>(body.size()));
    session->sendRequest(request) << body;
    Poco::Net::HTTPResponse response;
    Answer answer{0, ""};
    Poco::StreamCopier::copyToString(session->receiveResponse(response), answer.body);
    answer.status = response.getStatus();
    return answer;
}

std::string xml(const std::string& text, const std::string& node)
{
    std::smatch m;
    return std::regex_search(text, m, std::regex("<" + node + ">(?:<!\\[CDATA\\[)?([^<\\]]*)")) ? m[1].str() : "";
}

std::string base64(const std::string& text)
{
    std::ostringstream out;
    Poco::Base64Encoder encoder(out);
    encoder.rdbuf()->setLineLength(0);
    encoder << text;
    encoder.close();
    return out.str();
}

std::string legacySid(const Devsim& device, const std::string& pass = "secret")
{
    return xml(call(device, "POST", "/cgi-bin/authLogin.cgi", "user=admin&pwd=" + base64(pass)).body, "authSid");
}

}  // namespace

TEST(Devsim, PrintsItsReadyLineEndsWithItsInputAndRefusesBadCommandLines)
{
    for (bool tls : {false, true}) {
        Devsim device("legacy", tls);
        EXPECT_EQ(device.readyLine().rfind(tls ? "orvex-devsim listening on https://" : "orvex-devsim listening on http://", 0), 0u);
        EXPECT_EQ(device.stop(), 0);
    }
    RunResult noFamily = run({ORVEX_DEVSIM, "--port", "0"});
    EXPECT_EQ(noFamily.status, 2);
    EXPECT_EQ(noFamily.out, "");
    EXPECT_EQ(run({ORVEX_DEVSIM, "--family", "token", "--port", "70000"}).status, 2);
}

TEST(Devsim, SyslogTestSendsOneLineToTheDestinationOrSaysItDidNot)
{
    Devsim device("legacy", false);
    std::string sid = legacySid(device);
    const std::string cookie = "Cookie: NAS_SID=" + sid + "; NVX_SSID=" + sid;
    Poco::Net::DatagramSocket receiver(Poco::Net::SocketAddress("127.0.0.1", 0));
    receiver.setReceiveTimeout(Poco::Timespan(5, 0));
    std::string body = R"({"mode":3,"address":"127.0.0.1","port":)" + std::to_string(receiver.address().port()) +
                       R"(,"bsd":true})";
    EXPECT_EQ(call(device, "POST", "/orvex/v1/rsyslog/client/test", body, cookie).status, 200);
    char line[1024] = {};
    ASSERT_GT(receiver.receiveBytes(line, sizeof line - 1), 0);
    EXPECT_TRUE(std::regex_search(line, std::regex("^<14>[A-Z][a-z]{2} .* nas-legacy orvex: "))) << line;
    // Nothing listens on TCP port 1.
    Answer refused = call(device, "POST", "/orvex/v1/rsyslog/client/test",
        R"({"mode":1,"address":"127.0.0.1","port":1,"bsd":false})", cookie);
    EXPECT_EQ(refused.status, 502);
    EXPECT_NE(refused.body.find(R"("sent":false)"), std::string::npos) << refused.body;
}

TEST(Devsim, OldDeviceRefusesModernClientsAndTlsSessionsAreResumed)
{
    Devsim old("legacy", true, {"--tls10-only"});
    EXPECT_THROW(call(old, "GET", "/cgi-bin/authLogin.cgi"), Poco::Exception);

    // Poco 1.11 keeps the session it sees right after the handshake; under TLS 1.3 the
    // ticket only comes later, so resumption is checked over TLS 1.2.
    Devsim device("legacy", true);
    Poco::Net::Context::Ptr context = clientContext(Poco::Net::Context::PROTO_TLSV1_3);
    context->enableSessionCache(true);
    Poco::Net::HTTPRequest request("GET", "/cgi-bin/authLogin.cgi", Poco::Net::HTTPMessage::HTTP_1_1);
    Poco::Net::HTTPResponse response;
    std::string ignored;
    Poco::Net::HTTPSClientSession first("127.0.0.1", device.port(), context);
    first.sendRequest(request);
    Poco::StreamCopier::copyToString(first.receiveResponse(response), ignored);
    ASSERT_FALSE(first.sslSession().isNull());
    Poco::Net::HTTPSClientSession second("127.0.0.1", device.port(), context, first.sslSession());
    second.sendRequest(request);
    Poco::StreamCopier::copyToString(second.receiveResponse(response), ignored);
    EXPECT_TRUE(Poco::Net::SecureStreamSocket(second.socket()).sessionWasReused());
}

TEST(Devsim, ManyDevicesInOneProcessEachOnItsOwnPortWithItsOwnState)
{
    TempDir dir;
    Spawn spawn;
    spawn.argv = {ORVEX_DEVSIM, "--family", "mixed", "--devices", "3", "--port", "0", "--stdin-watch"};
    spawn.stdinPipe = true;
    spawn.stdoutPath = dir.file("ready");
    Child sim(spawn);
    std::vector<int> ports;
    ASSERT_TRUE(waitFor([&] {
        std::istringstream lines(readFile(dir.file("ready")));
        ports.clear();
        for (std::string line; std::getline(lines, line);)
            ports.push_back(std::atoi(line.c_str() + line.rfind(':') + 1));
        return ports.size() == 3;
    }));
    auto get = [](int port, const std::string& target) {
        Poco::Net::HTTPClientSession session("127.0.0.1", static_cast<Poco::UInt16>(port));
        Poco::Net::HTTPRequest request("GET", target, Poco::Net::HTTPMessage::HTTP_1_1);
        session.sendRequest(request);
        Poco::Net::HTTPResponse response;
        Answer answer;
        Poco::StreamCopier::copyToString(session.receiveResponse(response), answer.body);
        answer.status = response.getStatus();
        return answer;
    };
    // Even devices play legacy, odd ones token; a token is good only where it was issued.
    const std::string grant = "/zem/oauth/token?grant_type=password&username=admin&password=" + base64("secret");
    EXPECT_EQ(get(ports[0], grant).status, 404);
    Answer issued = get(ports[1], grant);
    ASSERT_EQ(issued.status, 200) << issued.body;
    JsonRef json = parseJson(issued.body);
    const std::string token = json_string_value(json_object_get(json.get(), "access_token"));
    EXPECT_EQ(get(ports[1], "/orvex/v1/rsyslog/config?sid=" + token).status, 200);
    EXPECT_EQ(get(ports[2], "/orvex/v1/rsyslog/config?sid=" + token).status, 401);
    sim.closeStdin();
    EXPECT_EQ(sim.wait(), 0);
}

TEST(Devsim, Tls11OnlyDeviceSpeaksTls11AndNothingNewer)
{
    Devsim device("legacy", true, {"--tls11-only"});
    // OpenSSL 3 lets a client speak TLS 1.1 only at security level 0.
    Poco::Net::Context::Ptr old = new Poco::Net::Context(Poco::Net::Context::TLSV1_CLIENT_USE, "", "", "",
        Poco::Net::Context::VERIFY_NONE, 9, false, "ALL:@SECLEVEL=0");
    old->enableSessionCache(true);
    Poco::Net::HTTPSClientSession session("127.0.0.1", device.port(), old);
    Poco::Net::HTTPRequest request("GET", "/cgi-bin/authLogin.cgi", Poco::Net::HTTPMessage::HTTP_1_1);
    session.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::string ignored;
    Poco::StreamCopier::copyToString(session.receiveResponse(response), ignored);
    ASSERT_FALSE(session.sslSession().isNull());
    EXPECT_EQ(SSL_SESSION_get_protocol_version(session.sslSession()->sslSession()), TLS1_1_VERSION);

    old->disableProtocols(Poco::Net::Context::PROTO_TLSV1_1);
    Poco::Net::HTTPSClientSession modern("127.0.0.1", device.port(), old);
    EXPECT_THROW(modern.sendRequest(request), Poco::Exception);
}
