// A device that accepts the connection but never answers in time: each exchange gives up
// after the 10-second time-out (slow by nature; labelled so).
#include "tests/support/session.h"

#include <chrono>

using namespace Orvex;

TEST(SessionTimeout, UnansweringDeviceFailsEachExchangeAfterTenSeconds)
{
    Orvex::Test::Devsim slow("token", false, {"--delay-ms", "14000"});
    Session& session = Session::getInstance();
    session.reset();
    SigninOption option = Orvex::Test::signinOption(slow);
    json_t* out = json_object();
    JsonRef owner = JsonRef::adopt(out);
    auto begin = std::chrono::steady_clock::now();
    try {
        session.signin(out, option);
        ADD_FAILURE() << "sign-in to an unanswering device succeeded";
    } catch (const SessionException& e) {
        EXPECT_EQ(e.message(), "signin fail");
    }
    EXPECT_EQ(session.status().failure, "unreachable");
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    // Two attempts (legacy, then token), each cut at ten seconds, not at the device's 14.
    EXPECT_GE(seconds, 19.5);
    EXPECT_LT(seconds, 27.0);
}
