// The keep-alive timer: a process nobody signs in ends itself on the first tick, 30 s
// after it started. The one slow end-to-end test.
#include <chrono>

#include "tests/e2e/support.h"

namespace e2e {
namespace {

TEST(KeepAlive, NeverSignedInProcessEndsOnTheFirstTick)
{
    E2E_REQUIRE_ISOLATION();
    Daemon daemon("00:11:22:33:44:55");
    auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(daemon.ready()) << daemon.log();
    int status = daemon.process().wait(60s);
    auto seconds = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started)
                       .count() / 1000.0;
    EXPECT_EQ(status, 1) << daemon.log();
    EXPECT_GE(seconds, 29.5);
    EXPECT_LE(seconds, 40.0);
    EXPECT_NE(daemon.log().find("[Warning] "), std::string::npos) << daemon.log();
    EXPECT_NE(daemon.log().find("[Session] not signin"), std::string::npos) << daemon.log();
}

}  // namespace
}  // namespace e2e
