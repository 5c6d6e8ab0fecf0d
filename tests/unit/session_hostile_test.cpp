// Devices that attack the session: answers without end, answers dripped or never sent,
// XML nested beyond reason, session ids and tokens that smuggle headers, a TLS 1.1 answer
// from someone on the path; and callers that put header text into "ip". Each must fail
// the exchange cleanly, within the bound.
#include "common/misc.h"
#include "tests/support/hostile.h"
#include "tests/support/session.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <set>
#include <vector>

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

namespace {

// The opening of a TLS connection: the hello's version field and the suites it offers.
struct Hello {
    unsigned version = 0;  // 0: not a client hello
    std::vector<unsigned> suites;
    bool offersTls13() const
    {
        return std::any_of(suites.begin(), suites.end(), [](unsigned s) { return (s >> 8) == 0x13; });
    }
};

// Record header (5 bytes), handshake header (4), version (2), random (32), session id,
// then the suites.
Hello parseHello(const std::string& bytes)
{
    auto at = [&](size_t i) { return i < bytes.size() ? unsigned(static_cast<unsigned char>(bytes[i])) : 0u; };
    Hello hello;
    if (at(0) != 0x16 || at(5) != 1)
        return hello;
    hello.version = at(9) << 8 | at(10);
    size_t suites = 44 + at(43);
    size_t length = at(suites) << 8 | at(suites + 1);
    for (size_t i = suites + 2; i + 1 < suites + 2 + length; i += 2)
        hello.suites.push_back(at(i) << 8 | at(i + 1));
    return hello;
}

// The suites without authentication or without encryption, as this OpenSSL names them.
std::set<unsigned> anonymousOrNullSuites()
{
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> ctx(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free);
    SSL_CTX_set_security_level(ctx.get(), 0);
    SSL_CTX_set_cipher_list(ctx.get(), "aNULL:eNULL");
    std::set<unsigned> ids;
    STACK_OF(SSL_CIPHER)* ciphers = SSL_CTX_get_ciphers(ctx.get());
    for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i) {
        const SSL_CIPHER* c = sk_SSL_CIPHER_value(ciphers, i);
        if (SSL_CIPHER_get_auth_nid(c) == NID_auth_null || SSL_CIPHER_get_cipher_nid(c) == NID_undef)
            ids.insert(SSL_CIPHER_get_protocol_id(c));
    }
    return ids;
}

std::string readConfig()
{
    return sessionFailure([] {
        JsonRef out = JsonRef::adopt(json_object());
        json_t* reply = out.get();
        Session::getInstance().getRsyslogConfig(reply);
    });
}

}  // namespace

// Someone on the path answers one hello with TLS 1.1. The device spoke TLS 1.3 at the
// sign-in, so that exchange fails instead of falling back, and the next one offers TLS 1.3
// again. A device that speaks only TLS 1.1 is still reached, and no hello ever offers a
// suite without authentication or encryption.
TEST(SessionHostile, OneTls11AnswerOnThePathNeitherSticksNorBringsAnonymousSuites)
{
    Devsim modern("token", true), old("token", true, {"--tls11-only"});
    Relay path(modern.port());
    Session& session = Session::getInstance();
    session.reset();
    SigninOption option = signinOption(path.port(), true);
    JsonRef out = JsonRef::adopt(json_object());
    json_t* reply = out.get();
    ASSERT_NO_THROW(session.signin(reply, option));
    path.forwardTo(old.port());
    EXPECT_EQ(readConfig(), "connection fail 400") << "fell back to TLS 1.1 for a TLS 1.3 device";
    path.forwardTo(modern.port());
    size_t before = path.openings().size();
    EXPECT_EQ(readConfig(), "");
    ASSERT_GT(path.openings().size(), before);
    EXPECT_TRUE(parseHello(path.openings()[before]).offersTls13()) << "the TLS 1.1 answer stuck";

    path.forwardTo(old.port());
    session.reset();
    ASSERT_NO_THROW(session.signin(reply, option)) << "a TLS 1.1 device is still reached";
    EXPECT_EQ(readConfig(), "");
    const std::set<unsigned> anonymous = anonymousOrNullSuites();
    ASSERT_FALSE(anonymous.empty());
    size_t tls11Hellos = 0;
    for (const std::string& opening : path.openings()) {
        Hello hello = parseHello(opening);
        ASSERT_NE(hello.version, 0u);
        tls11Hellos += !hello.offersTls13();
        for (unsigned suite : hello.suites)
            EXPECT_EQ(anonymous.count(suite), 0u) << "suite " << std::hex << suite;
    }
    EXPECT_GT(tls11Hellos, 0u);
}
