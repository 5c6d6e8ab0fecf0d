// The device simulator as a program: several devices in one process, TLS 1.1 only, a port
// in use, and a stop while an answer is delayed. What it answers for each family, its
// fault knobs and its request log are exercised by the session tests, which compare its
// answers and the requests it logged byte for byte.
#include "common/misc.h"
#include "tests/support/devsim.h"

#include <gtest/gtest.h>

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/StreamCopier.h>
#include <openssl/ssl.h>

#include <signal.h>

#include <thread>


using namespace Orvex::Test;
using Orvex::JsonRef;

namespace {

struct Answer {
    int status = 0;
    std::string body;
};

Answer get(int port, const std::string& target)
{
    Poco::Net::HTTPClientSession session("127.0.0.1", static_cast<Poco::UInt16>(port));
    session.setTimeout(Poco::Timespan(10, 0));
    Poco::Net::HTTPRequest request("GET", target, Poco::Net::HTTPMessage::HTTP_1_1);
    session.sendRequest(request);
    Poco::Net::HTTPResponse response;
    Answer answer;
    Poco::StreamCopier::copyToString(session.receiveResponse(response), answer.body);
    answer.status = response.getStatus();
    return answer;
}

}  // namespace

TEST(Devsim, ManyDevicesInOneProcessEachOnItsOwnPortWithItsOwnState)
{
    std::unique_ptr<Child> sim;
    const std::vector<int> ports = startFleet(3, sim);
    // Even devices play legacy, odd ones token; a token is good only where it was issued.
    const std::string grant = "/zem/oauth/token?grant_type=password&username=admin&password=" + Orvex::btoa("secret");
    EXPECT_EQ(get(ports[0], grant).status, 404);
    Answer issued = get(ports[1], grant);
    ASSERT_EQ(issued.status, 200) << issued.body;
    JsonRef json = parseJson(issued.body);
    const std::string token = json_string_value(json_object_get(json.get(), "access_token"));
    EXPECT_EQ(get(ports[1], "/orvex/v1/rsyslog/config?sid=" + token).status, 200);
    EXPECT_EQ(get(ports[2], "/orvex/v1/rsyslog/config?sid=" + token).status, 401);
    sim->closeStdin();
    EXPECT_EQ(sim->wait(), 0);
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

// A second simulator on a port in use would share it (and take half the sign-ins); one
// that is answering late must still end at once on SIGTERM.
TEST(Devsim, RefusesAPortInUseAndEndsOnSigtermDespiteADelayedAnswer)
{
    Devsim first("token", false, {"--delay-ms", "20000"});
    RunResult second = run({ORVEX_DEVSIM, "--family", "token", "--port", std::to_string(first.port())}, {}, "", 5s);
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.err, "orvex-devsim: cannot listen on 127.0.0.1:" + std::to_string(first.port()) +
                              ": Address already in use: 127.0.0.1:" + std::to_string(first.port()) + "\n");

    std::thread waiting([&] {
        try {
            get(first.port(), "/zem/oauth/tokeninfo?access_token=x");
        } catch (const Poco::Exception&) {
            // cut by the stop
        }
    });
    // The request is in: its answer waits out the delay.
    ASSERT_TRUE(waitFor([&] { return !first.requests().empty(); }));
    auto begin = std::chrono::steady_clock::now();
    kill(first.pid(), SIGTERM);
    EXPECT_EQ(first.stop(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
    waiting.join();
}
