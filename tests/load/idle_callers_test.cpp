// Callers that connect and then send nothing or only part of a call: they must not hold up
// anyone else, and the daemon drops each of them once the receive time-out has passed.
#include "tests/load/load_support.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "zservice/zservice.h"

namespace load {
namespace {

constexpr size_t kIdleCallers = 1000;
constexpr double kReceiveTimeoutS = 4;
constexpr double kLatestDropS = 7;

struct IdleCaller {
    Orvex::UniqueFd fd;
    std::chrono::steady_clock::time_point connected;
    double droppedAfterS = -1;
    bool gotData = false;
};

// What caller number i sends: nothing, half a header, the header and half the method
// name, or all but the end of the body.
std::string partialFrame(size_t i)
{
    const std::string frame = callFrame("get_device_system_info", R"({"padding":"0123456789"})");
    switch (i % 4) {
    case 0:
        return "";
    case 1:
        return frame.substr(0, ZS_HEADER_SIZE / 2);
    case 2:
        return frame.substr(0, ZS_HEADER_SIZE + 11);
    default:
        return frame.substr(0, frame.size() - 5);
    }
}

std::vector<IdleCaller> connectIdleCallers()
{
    std::vector<IdleCaller> callers(kIdleCallers);
    for (size_t i = 0; i < callers.size(); ++i) {
        callers[i].fd = connectBus(kMac);
        callers[i].connected = std::chrono::steady_clock::now();
        if (!callers[i].fd || !sendAll(callers[i].fd.get(), partialFrame(i)))
            ADD_FAILURE() << "idle caller " << i << " could not connect and send";
    }
    return callers;
}

// Reads what arrived on a caller; true once the daemon has closed the connection.
bool closedByDaemon(IdleCaller& caller)
{
    char buffer[256];
    ssize_t n = recv(caller.fd.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (n > 0)
        caller.gotData = true;
    return n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
}

// Watches every caller until the daemon has dropped it or the latest moment has passed.
void awaitDrops(std::vector<IdleCaller>& callers)
{
    auto giveUp = callers.back().connected + std::chrono::duration<double>(kLatestDropS + 1);
    std::vector<size_t> open(callers.size());
    for (size_t i = 0; i < open.size(); ++i)
        open[i] = i;
    while (!open.empty() && std::chrono::steady_clock::now() < giveUp) {
        std::vector<pollfd> polls;
        for (size_t i : open)
            polls.push_back({callers[i].fd.get(), POLLIN | POLLRDHUP, 0});
        if (poll(polls.data(), polls.size(), 100) <= 0)
            continue;
        std::vector<size_t> still;
        for (size_t k = 0; k < open.size(); ++k) {
            IdleCaller& caller = callers[open[k]];
            if (polls[k].revents && closedByDaemon(caller))
                caller.droppedAfterS = secondsSince(caller.connected);
            else
                still.push_back(open[k]);
        }
        open.swap(still);
    }
}

// Ten ordinary calls, each checked; the longest one took this long.
double slowestOfTenCallsMs(const SignedInDaemon& s)
{
    double slowestMs = 0;
    for (int i = 0; i < 10; ++i) {
        auto start = std::chrono::steady_clock::now();
        BusReply reply = e2e::busCall(kMac, "get_device_system_info");
        slowestMs = std::max(slowestMs, secondsSince(start) * 1000);
        EXPECT_EQ(reply.rc, 0) << std::strerror(reply.error);
        EXPECT_EQ(reply.body, s.systemInfo);
    }
    return slowestMs;
}

// Seconds from connect to drop of every dropped caller, in order; counts those answered.
std::vector<double> sortedDrops(const std::vector<IdleCaller>& callers, size_t& withData)
{
    std::vector<double> drops;
    for (const IdleCaller& caller : callers) {
        if (caller.droppedAfterS >= 0)
            drops.push_back(caller.droppedAfterS);
        withData += caller.gotData;
    }
    std::sort(drops.begin(), drops.end());
    return drops;
}

TEST(IdleCallers, DoNotHoldUpOthersAndAreDroppedAfterTheReceiveTimeout)
{
    E2E_REQUIRE_ISOLATION();
    SignedInDaemon s;
    const pid_t pid = s.daemon.process().pid();
    ProcessFigures before = restingFigures(pid);

    auto start = std::chrono::steady_clock::now();
    std::vector<IdleCaller> callers = connectIdleCallers();
    double connectS = secondsSince(start);
    // Every connection is accepted and held, each waiting for the rest of its call.
    e2e::waitFor([&] { return figuresOf(pid).fds >= before.fds + static_cast<long>(kIdleCallers); }, 3s);
    ProcessFigures holding = figuresOf(pid);

    // A caller that does send its call is answered at once.
    double slowestMs = slowestOfTenCallsMs(s);

    awaitDrops(callers);
    ProcessFigures after = settleFds(pid, before.fds);
    size_t withData = 0;
    std::vector<double> drops = sortedDrops(callers, withData);
    LOAD_FIGURES("idle callers: %zu connected in %.3f s; daemon fds %ld -> %ld while held -> %ld; "
                 "VmRSS %ld kB -> %ld kB -> %ld kB",
        callers.size(), connectS, before.fds, holding.fds, after.fds, before.rssKb, holding.rssKb, after.rssKb);
    LOAD_FIGURES("idle callers: slowest of 10 normal calls meanwhile %.2f ms; %zu dropped, after %.2f / %.2f / %.2f s "
                 "(min / median / max)",
        slowestMs, drops.size(), drops.empty() ? 0 : drops.front(), drops.empty() ? 0 : drops[drops.size() / 2],
        drops.empty() ? 0 : drops.back());

    EXPECT_GE(holding.fds, before.fds + static_cast<long>(kIdleCallers));
    EXPECT_LT(slowestMs, 1000);
    ASSERT_EQ(drops.size(), callers.size());
    EXPECT_EQ(withData, 0u) << "an incomplete call was answered";
    // The deadline counts from the accept, which comes after the connect.
    EXPECT_GE(drops.front(), kReceiveTimeoutS - 0.05);
    EXPECT_LE(drops.back(), kLatestDropS);
    EXPECT_LE(after.fds, before.fds);
    EXPECT_TRUE(s.daemon.process().running());
}

}  // namespace
}  // namespace load
