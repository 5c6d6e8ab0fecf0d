// The keep-alive tick: a live session survives it, a dead or idle one ends the process with
// status 1 after signing out (run in a forked child). And the tick on its timer thread
// beside a handler thread (the ThreadSanitizer build proves the sharing race-free).
#include "tests/support/session.h"

#include <Poco/Timer.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace Orvex;
using Orvex::Test::Devsim;
using Orvex::Test::Logged;

namespace {

struct Family {
    const char* name;
    bool tls;
    const char* aliveTarget;  // prefix of the keep-alive request's target
    const char* signoutTarget;
};

const Family kFamilies[] = {
    {"legacy", false, "/cgi-bin/authLogin.cgi", "/cgi-bin/authLogout.cgi"},
    {"token", true, "/zem/oauth/tokeninfo?access_token=", "/zem/oauth/logout?access_token="},
};

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.rfind(prefix, 0) == 0;
}

// Like the process's timer, the tick holds the singleton itself: it never calls
// getInstance(), which would count as use.
int tickInChild(time_t stamp = time(nullptr))
{
    Session& session = Session::getInstance();
    session.setLastAccess(stamp);
    return Orvex::Test::inChild([&session] {
        Poco::Timer timer;
        session.alive(timer);
    });
}

// The simulator's credentials of "--expire-after 1" live one second from their issue.
void waitUntilExpired()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
}

}  // namespace

// Per family: a live session survives the tick with one keep-alive request; one the device
// has let expire signs out after it and the process ends with 1.
TEST(SessionKeepAlive, LiveSessionSurvivesTheTickAndDeadOneSignsOutAndExitsWithOne)
{
    for (const Family& f : kFamilies)
        for (bool dead : {false, true}) {
            Devsim device(f.name, f.tls, dead ? std::vector<std::string>{"--expire-after", "1"} : std::vector<std::string>());
            Orvex::Test::signin(device);
            if (dead)
                waitUntilExpired();
            size_t before = device.requests().size();
            EXPECT_EQ(tickInChild(), dead ? 1 : 0) << f.name;
            std::vector<Logged> log = device.requestsFrom(before);
            ASSERT_EQ(log.size(), dead ? 2u : 1u) << f.name;
            EXPECT_TRUE(startsWith(log[0].target, f.aliveTarget)) << log[0].target;
            EXPECT_TRUE(!dead || startsWith(log[1].target, f.signoutTarget)) << log.back().target;
            EXPECT_TRUE(std::string(f.name) != "legacy" || (log[0].method == "POST" && startsWith(log[0].body, "sid=")))
                << log[0].body;
        }
}

TEST(SessionKeepAlive, IdleSessionEndsWithoutAskingTheDevice)
{
    Devsim device("token", false);
    Orvex::Test::signin(device);
    size_t before = device.requests().size();
    EXPECT_EQ(tickInChild(time(nullptr) - 601), 1);
    std::vector<Logged> log = device.requestsFrom(before);
    ASSERT_EQ(log.size(), 1u);
    EXPECT_TRUE(startsWith(log[0].target, "/zem/oauth/logout?")) << log[0].target;

    // Just under the limit the session lives (the child's sign-out ended the old one).
    Orvex::Test::signin(device);
    EXPECT_EQ(tickInChild(time(nullptr) - 599), 0);
}

// A configured idle limit replaces the 600 s; 0 means the session is never idle.
TEST(SessionKeepAlive, IdleLimitIsTheSetOneAndZeroNeverEnds)
{
    Devsim device("legacy", false);
    Session& session = Session::getInstance();
    Orvex::Test::signin(device);
    session.setIdleLimit(0);
    EXPECT_EQ(tickInChild(time(nullptr) - 30 * 24 * 3600), 0);
    session.setIdleLimit(60);
    EXPECT_EQ(tickInChild(time(nullptr) - 59), 0);
    EXPECT_EQ(tickInChild(time(nullptr) - 61), 1);
    session.setIdleLimit(600);
}

TEST(SessionKeepAlive, NeverSignedInOrUnreachableEndsOnTheFirstTick)
{
    Session::getInstance().reset();
    EXPECT_EQ(tickInChild(), 1);
    Devsim device("legacy", false);
    Orvex::Test::signin(device);
    device.stop();
    EXPECT_EQ(tickInChild(), 1);
}

// The tick runs on the timer's thread while a handler thread works on the same session.
TEST(SessionThreads, TimerTickAndOperationsShareTheSession)
{
    Devsim device("token", true);
    Orvex::Test::signin(device);
    Session& session = Session::getInstance();
    std::atomic<int> handled{0};
    Poco::Timer timer(0, 5);
    timer.start(Poco::TimerCallback<Session>(session, &Session::alive));
    std::thread handler([&] {
        for (int i = 0; i < 40; ++i) {
            json_t* out = json_object();
            JsonRef owner = JsonRef::adopt(out);
            Session::getInstance().getRsyslogConfig(out);
            Session::getInstance().getSystemInfo(out);
            handled += json_object_size(out) > 0 ? 1 : 0;
        }
    });
    handler.join();
    timer.stop();
    EXPECT_EQ(handled.load(), 40);
    size_t ticks = 0;
    for (const Logged& r : device.requests())
        ticks += startsWith(r.target, "/zem/oauth/tokeninfo") ? 1 : 0;
    EXPECT_GT(ticks, 0u);
}
