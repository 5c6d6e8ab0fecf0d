// Devices that attack the session: answers without end, answers dripped or never sent,
// XML nested beyond reason, session ids and tokens that smuggle headers; and callers that
// put header text into "ip". Each must fail the exchange cleanly, within the bound.
#include "common/misc.h"
#include "tests/support/hostile.h"
#include "tests/support/session.h"

#include <chrono>

using namespace Orvex;
using namespace Orvex::Test;
using Piece = Hostile::Piece;
using std::chrono::milliseconds;

TEST(SessionHostile, EndlessChunkedAnswerEndsAtTheSizeCap)
{
    std::string chunk = "10000\r\n" + std::string(0x10000, 'x') + "\r\n";
    Hostile device({{"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"}, {chunk}}, Hostile::End::RepeatLast);
    Poco::AutoPtr<LogCapture> capture = captureLog();
    auto [seconds, failure] = failedSignin(device.port());
    Poco::Logger::root().setLevel(Poco::Message::PRIO_INFORMATION);
    EXPECT_EQ(failure, "bad-answer");
    EXPECT_LT(seconds, 10.0);
    bool named = false;
    for (const std::string& line : capture->lines())
        named = named || line.find("127.0.0.1:" + std::to_string(device.port()) + ": answer over the limit of 16777216") !=
                             std::string::npos;
    EXPECT_TRUE(named);
}

// Two exchanges (one per family), each cut at its 10 s bound, however the bytes come.
void expectTwoBoundedExchanges(int port, bool secure)
{
    auto [seconds, failure] = failedSignin(port, secure);
    EXPECT_EQ(failure, "unreachable");
    EXPECT_GE(seconds, 19.5);
    EXPECT_LT(seconds, 23.0);
}

TEST(SessionHostile, DrippedAnswerEndsWithinTheExchangeBound)
{
    std::vector<Piece> drip;
    for (char c : Hostile::answer("<VDocRoot/>"))
        drip.push_back({std::string(1, c), milliseconds(1000)});
    Hostile device(drip);
    expectTwoBoundedExchanges(device.port(), false);
}

TEST(SessionHostile, SilentTlsPeerEndsWithinTheExchangeBound)
{
    Hostile device({}, Hostile::End::Hold);
    expectTwoBoundedExchanges(device.port(), true);
}

TEST(SessionHostile, DeeplyNestedXmlIsAnAnswerNotUnderstood)
{
    const size_t depth = 200000;
    std::string xml = "<VDocRoot>";
    for (size_t i = 0; i < depth; ++i)
        xml += "<a>";
    for (size_t i = 0; i < depth; ++i)
        xml += "</a>";
    Hostile device({{Hostile::answer(xml + "<authSid>abcdef</authSid></VDocRoot>")}});
    EXPECT_EQ(failedSignin(device.port()).second, "bad-answer");
}

TEST(SessionHostile, SessionIdsAndTokensWithLineBreaksNeverReachAHeader)
{
    for (const char* body : {"<VDocRoot><authSid>abc&#13;&#10;X-Injected: 1</authSid></VDocRoot>",
                             R"({"access_token":"abc\r\nX-Injected: 1","refresh_token":"r1234"})"}) {
        Hostile device({{Hostile::answer(body)}});
        EXPECT_EQ(failedSignin(device.port()).second, "bad-answer") << body;
        for (const std::string& request : device.requests())
            EXPECT_EQ(request.find("X-Injected"), std::string::npos) << request;
    }
}

TEST(SessionHostile, IpMustBeAnAddressOrAHostName)
{
    for (const char* ip : {"127.0.0.1\r\nX-Injected: 1", "10.0.0.1 x", "", "nas\t01", "a..b"}) {
        try {
            signinOption(443, false, "secret", "admin", ip);
            ADD_FAILURE() << ip;
        } catch (const OptionException& e) {
            EXPECT_EQ(e.message(), "ip incorrect");
        }
    }
    for (const char* ip : {"10.0.0.1", "::1", "fe80::1", "nas-01.example.com", "localhost"})
        EXPECT_EQ(signinOption(443, false, "secret", "admin", ip).ip, ip);
}

// The device's answers are traced, but not the ids and tokens in them, nor the password.
TEST(SessionHostile, SecretsNeverReachTheLogEvenAtTraceLevel)
{
    for (const char* family : {"legacy", "token"}) {
        Devsim device(family, false, {"--pass", "hunter2-secret"});
        Poco::AutoPtr<LogCapture> capture = captureLog();
        signin(device, "admin", "hunter2-secret");
        Session& session = Session::getInstance();
        JsonRef out = JsonRef::adopt(json_object());
        json_t* reply = out.get();
        session.getRsyslogConfig(reply);
        session.signout();
        Poco::Logger::root().setLevel(Poco::Message::PRIO_INFORMATION);
        std::vector<std::string> secrets{"hunter2-secret", btoa("hunter2-secret")};
        for (const Logged& r : device.requests()) {
            std::string cookie = r.header("Cookie");
            std::string bearer = r.header("Authorization");
            if (!cookie.empty())
                secrets.push_back(cookie.substr(8, cookie.find(';') - 8));
            if (!bearer.empty())
                secrets.push_back(bearer.substr(7));
            size_t refresh = r.target.find("refresh_token=");
            if (refresh != std::string::npos)
                secrets.push_back(r.target.substr(refresh + 14));
        }
        ASSERT_GT(secrets.size(), 3u) << family;
        size_t traced = 0;
        for (const std::string& line : capture->lines()) {
            traced += line.find("[Session] ") != std::string::npos;
            for (const std::string& secret : secrets)
                EXPECT_EQ(line.find(secret), std::string::npos) << line;
        }
        EXPECT_GE(traced, 4u) << family;
    }
}
