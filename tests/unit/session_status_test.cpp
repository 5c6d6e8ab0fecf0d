// What the session tells its operator: the cause of a failed sign-in (logged per family with
// the device address, and in the status), the observer after every attempt and sign-out,
// the status read from another thread while the session works, and old TLS.
#include "tests/support/hostile.h"
#include "tests/support/session.h"

#include <sys/socket.h>

#include <atomic>
#include <thread>

using namespace Orvex;
using namespace Orvex::Test;

namespace {

struct Observed {
    std::mutex mutex;
    std::vector<SessionStatus> seen;
    std::vector<SessionStatus> take()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return std::exchange(seen, {});
    }
};

void observe(Observed& observed)
{
    Session::getInstance().setObserver([&observed](const SessionStatus& status) {
        std::lock_guard<std::mutex> lock(observed.mutex);
        observed.seen.push_back(status);
    });
}

}  // namespace

TEST(SessionStatus, FailedSigninNamesTheCauseAndTheDevicePerFamily)
{
    Devsim legacy("legacy", false);
    Devsim token("token", true);
    Hostile garbage({{Hostile::answer("<html>busy</html>")}});
    struct Case {
        int port;
        bool secure;
        const char* pass;
        const char* cause;
        const char* logged;
    } cases[] = {
        {closedPort(), false, "secret", "refused", "connection refused"},
        {token.port(), false, "secret", "tls-mismatch", "TLS where plain HTTP was expected or the reverse"},
        {legacy.port(), true, "secret", "tls-mismatch", "TLS where plain HTTP was expected or the reverse"},
        {legacy.port(), false, "wrong", "credentials", "credentials rejected"},
        {token.port(), true, "wrong", "credentials", "credentials rejected"},
        {garbage.port(), false, "secret", "bad-answer", "answer not understood"},
    };
    Observed observed;
    observe(observed);
    for (const Case& c : cases) {
        Poco::AutoPtr<LogCapture> capture = captureLog();
        EXPECT_EQ(failedSignin(c.port, c.secure, c.pass).second, c.cause) << c.port;
        std::vector<SessionStatus> seen = observed.take();
        ASSERT_EQ(seen.size(), 1u);
        EXPECT_EQ(seen[0].failure, c.cause);
        EXPECT_FALSE(seen[0].signedIn);
        size_t named = 0;
        for (const std::string& line : capture->lines())
            named += line.find("sign-in at 127.0.0.1:" + std::to_string(c.port) + " failed: ") != std::string::npos;
        EXPECT_EQ(named, 2u) << c.cause;
        bool causeLogged = false;
        for (const std::string& line : capture->lines())
            causeLogged = causeLogged || line.find(std::string("failed: ") + c.logged) != std::string::npos;
        EXPECT_TRUE(causeLogged) << c.cause;
    }
    Poco::Logger::root().setLevel(Poco::Message::PRIO_INFORMATION);
    Session::getInstance().setObserver(nullptr);
}

// The status and the last use are read while sign-ins and sign-outs run on another thread
// (the ThreadSanitizer build proves it race-free); reading never counts as use.
TEST(SessionStatus, ReadableFromAnotherThreadWhileTheSessionWorks)
{
    Devsim device("token", true);
    Observed observed;
    observe(observed);
    Session& session = Session::getInstance();
    session.setLastAccess(1000);
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done) {
            SessionStatus status = session.status();
            EXPECT_TRUE(status.host.empty() || status.host == "127.0.0.1");
            time_t used = Session::lastUse();
            EXPECT_TRUE(used == 1000 || used >= time(nullptr) - 60);
        }
    });
    for (int round = 0; round < 3; ++round) {
        session.reset();
        SigninOption option = signinOption(device);
        JsonRef out = JsonRef::adopt(json_object());
        json_t* reply = out.get();
        session.signin(reply, option);
        session.signout();
    }
    done = true;
    reader.join();
    std::vector<SessionStatus> seen = observed.take();
    ASSERT_EQ(seen.size(), 6u);
    EXPECT_TRUE(seen[0].signedIn);
    EXPECT_EQ(seen[0].failure, "");
    EXPECT_EQ(seen[0].model, "ZEM-880");
    EXPECT_EQ(seen[0].family, Zem);
    EXPECT_EQ(seen[0].port, unsigned(device.port()));
    EXPECT_TRUE(seen[0].secure);
    EXPECT_FALSE(seen[1].signedIn);
    session.setObserver(nullptr);
}

// Old firmware speaks only TLS 1.1; TLS 1.0 stays refused (tested with the transport).
TEST(SessionStatus, Tls11OnlyDeviceSignsIn)
{
    for (const char* family : {"legacy", "token"}) {
        Devsim device(family, true, {"--tls11-only"});
        JsonRef out = signin(device);
        EXPECT_TRUE(Session::getInstance().status().signedIn) << family;
        EXPECT_FALSE(device.requests().empty());
    }
}

// The legacy family keeps its session id after signing out (the next tick asks the device);
// what the status tells must not depend on that.
TEST(SessionStatus, SignedOutAfterTheSignOutOfEitherFamily)
{
    for (const char* family : {"legacy", "token"}) {
        Devsim device(family, false);
        signin(device);
        Session& session = Session::getInstance();
        ASSERT_TRUE(session.status().signedIn) << family;
        session.signout();
        EXPECT_FALSE(session.status().signedIn) << family;
        signin(device);
        EXPECT_TRUE(session.status().signedIn) << family << " after signing in again";
    }
}

// The process's own sign-in never replaces a session someone holds; after a sign-out it
// signs in.
TEST(SessionStatus, SigninUnlessSignedInLeavesAHeldSessionAlone)
{
    Devsim held("token", false);
    Devsim other("legacy", false);
    signin(held);
    Session& session = Session::getInstance();
    SigninOption option = signinOption(other);
    JsonRef out = JsonRef::adopt(json_object());
    json_t* reply = out.get();
    EXPECT_FALSE(session.signinUnlessSignedIn(reply, option));
    EXPECT_TRUE(other.requests().empty());
    EXPECT_EQ(session.status().port, unsigned(held.port()));
    session.signout();
    EXPECT_TRUE(session.signinUnlessSignedIn(reply, option));
    EXPECT_EQ(session.status().port, unsigned(other.port()));
    EXPECT_EQ(session.status().family, Nvx);
    session.signout();
}
