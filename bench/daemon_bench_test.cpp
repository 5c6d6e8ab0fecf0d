// Checks of the daemon benchmark's measuring pieces; the wire format is checked against
// the real bus library in both directions.
#include "bench/daemon_support.h"
#include "zservice/zservice.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>

using namespace Orvex::Bench;
using namespace std::chrono_literals;

namespace {

std::string uniqueAddress(const char* what)
{
    return "@orvex-bench-test-" + std::string(what) + "-" + std::to_string(getpid());
}

// Replies "<method>:<body>" so a test sees what the server decoded.
void echoMethodAndBody(const char* method, zs_io* io, int fd)
{
    std::string text = std::string(method) + ":" + std::string(zs_io_read(io, 0), zs_io_size(io));
    zs_io_realloc(io, 0);
    zs_io_write(io, text.data(), text.size());
    zs_reply(io);
    zs_io_free(io);
    if (fd >= 0)
        close(fd);
}

}  // namespace

TEST(Statistics, MedianOfOddAndEvenCounts)
{
    EXPECT_DOUBLE_EQ(summarize({5, 1, 3}).median, 3);
    EXPECT_DOUBLE_EQ(summarize({4, 1, 3, 2}).median, 2.5);
}

TEST(Statistics, P99IsTheNearestRankNotTheMaximum)
{
    std::vector<double> values;
    for (int i = 200; i >= 1; --i)
        values.push_back(i);
    const Figures f = summarize(values);
    EXPECT_DOUBLE_EQ(f.p99, 198);  // ceil(0.99 * 200) = 198th smallest
    EXPECT_DOUBLE_EQ(summarize({7}).p99, 7);
}

TEST(Statistics, RateCountsValuesPerElapsedSecond)
{
    const Figures f = summarize({1, 2, 3, 4}, 0.5, 2);
    EXPECT_DOUBLE_EQ(f.rate, 8);
    EXPECT_EQ(f.failures, 2);
    EXPECT_EQ(summarize({}).count, 0u);
    EXPECT_DOUBLE_EQ(summarize({}, 1).rate, 0);
}

TEST(Statistics, MeasureCallsUsesEveryCallerAndCountsFailures)
{
    std::mutex mutex;
    std::set<int> seen;
    std::atomic<long> falses{0};
    std::atomic<long> calls{0};
    const Samples s = measureCalls(
        [&](int caller) {
            {
                std::lock_guard<std::mutex> lock(mutex);
                seen.insert(caller);
            }
            const bool ok = ++calls % 3 != 0;
            std::this_thread::sleep_for(100us);
            return ok;
        },
        4, 0.2, 0);
    EXPECT_EQ(seen, (std::set<int>{0, 1, 2, 3}));
    EXPECT_EQ(static_cast<long>(s.values.size()), calls.load());
    EXPECT_EQ(s.failures, calls.load() / 3);
    EXPECT_GE(s.elapsed, 0.2);
    EXPECT_LT(s.elapsed, 2.0);
}

TEST(Statistics, MeasuredPairsMergeTheirSlices)
{
    std::atomic<int> a{0};
    std::atomic<int> b{0};
    Figures fa, fb;
    measurePair([&](int) { ++a; std::this_thread::sleep_for(200us); return true; },
                [&](int) { ++b; std::this_thread::sleep_for(400us); return true; }, 1, 0.4, fa, fb, 4);
    // Warm-up calls (first slice only) are not counted.
    EXPECT_EQ(static_cast<int>(fa.count), a.load() - 20);
    EXPECT_EQ(static_cast<int>(fb.count), b.load() - 20);
    EXPECT_GT(fb.median, fa.median);
}

TEST(Memory, SmapsRollupFieldsAndPrivateSum)
{
    const std::string text =
        "55d0c0000000-7ffd4c5ff000 ---p 00000000 00:00 0                          [rollup]\n"
        "Rss:               14832 kB\n"
        "Pss:                4115 kB\n"
        "Pss_Anon:           1800 kB\n"
        "Shared_Clean:      12000 kB\n"
        "Private_Clean:       120 kB\n"
        "Private_Dirty:      1884 kB\n";
    const Memory m = parseSmapsRollup(text);
    EXPECT_EQ(m.rssKb, 14832);
    EXPECT_EQ(m.pssKb, 4115);  // not Pss_Anon
    EXPECT_EQ(m.privateKb, 2004);
    EXPECT_TRUE(m.valid());
}

TEST(Memory, MissingFieldLeavesFigureUnknown)
{
    const Memory m = parseSmapsRollup("Rss: 10 kB\nPss: 5 kB\nPrivate_Clean: 1 kB\n");
    EXPECT_EQ(m.privateKb, -1);
    EXPECT_FALSE(m.valid());
}

TEST(Memory, OwnProcessFiguresAreConsistent)
{
    const Memory m = readMemory(getpid());
    ASSERT_TRUE(m.valid());
    EXPECT_LE(m.pssKb, m.rssKb);
    EXPECT_LE(m.privateKb, m.pssKb);
    EXPECT_FALSE(readMemory(999999999).valid());
}

TEST(Cpu, SchedstatFirstFieldIsNanoseconds)
{
    EXPECT_DOUBLE_EQ(parseSchedstatSeconds("1500000000 2000 30\n"), 1.5);
    EXPECT_EQ(parseSchedstatSeconds(""), -1);
    EXPECT_EQ(parseSchedstatSeconds("abc 1 2"), -1);
    EXPECT_EQ(cpuSeconds(999999999), -1);
}

TEST(Cpu, ThreadsOfTheProcessAreSummed)
{
    const double before = cpuSeconds(getpid());
    ASSERT_GE(before, 0);
    std::atomic<bool> stop{false};
    // A second thread burns CPU while this one sleeps: only a per-process sum sees it.
    std::thread burner([&] {
        volatile double sink = 0;
        while (!stop)
            sink = sink + std::sqrt(2.0);
    });
    std::this_thread::sleep_for(100ms);
    const double during = cpuSeconds(getpid());
    stop = true;
    burner.join();
    // The sleeping thread alone uses well under a millisecond; the machine may be shared.
    EXPECT_GT(during - before, 0.005);
}

TEST(Wire, RawCallerIsUnderstoodByTheBusLibrary)
{
    const std::string address = uniqueAddress("raw");
    zs* bus = zs_create(address.c_str(), 4, 1, echoMethodAndBody);
    ASSERT_NE(bus, nullptr);
    std::thread loop([bus] { zs_start(bus); });
    std::string reply;
    const bool ok = rawCall(address, encodeFrame('C', "get_device_system_info", "{\"a\":1}"), reply);
    const bool bad = rawCall(address, encodeFrame('R', "x", "{}"), reply);  // a reply is no call
    zs_stop(bus);
    loop.join();
    zs_free(bus);
    EXPECT_TRUE(ok);
    EXPECT_FALSE(bad);
    EXPECT_EQ(reply, "get_device_system_info:{\"a\":1}");
}

TEST(Wire, EchoServerIsUnderstoodByTheBusClient)
{
    const std::string address = uniqueAddress("echo");
    const int fd = listenAbstract(address);
    ASSERT_GE(fd, 0);
    EXPECT_LT(listenAbstract(address), 0);  // taken
    const std::string body(70000, 'x');      // more than one socket buffer's worth
    std::thread server([fd, &body] { serveEcho(fd, encodeFrame('R', "", body)); });
    zs_io* io = zs_io_create();
    zs_io_write(io, "{}", 2);
    const int rc = zs_call(address.c_str(), "anything", io, 5, -1);
    const std::string reply(zs_io_read(io, 0), zs_io_size(io));
    zs_io_free(io);
    shutdown(fd, SHUT_RDWR);  // ends the accept loop
    server.join();
    close(fd);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(reply, body);
}

TEST(Wire, HeaderChecksMagicVersionKindAndLimits)
{
    uint32_t name = 0;
    uint32_t body = 0;
    std::string frame = encodeFrame('C', "abc", std::string(300, 'b'));
    ASSERT_TRUE(decodeHeader(frame.data(), 'C', name, body));
    EXPECT_EQ(name, 3u);
    EXPECT_EQ(body, 300u);
    EXPECT_FALSE(decodeHeader(frame.data(), 'R', name, body));
    frame[2] = 2;
    EXPECT_FALSE(decodeHeader(frame.data(), 'C', name, body));
    std::string huge = encodeFrame('C', "m", "");
    huge[11] = 0x7f;  // body length far above 16 MiB
    EXPECT_FALSE(decodeHeader(huge.data(), 'C', name, body));
}

TEST(Processes, ReadsLinesInOrderAndSeesTheEnd)
{
    SpawnOptions options;
    options.stdoutPipe = true;
    Process p({"/bin/sh", "-c", "echo one; echo two"}, options);
    std::string line;
    ASSERT_TRUE(p.readLine(line, 5s));
    EXPECT_EQ(line, "one");
    ASSERT_TRUE(p.readLine(line, 5s));
    EXPECT_EQ(line, "two");
    EXPECT_FALSE(p.readLine(line, 5s));
}

TEST(Processes, SilentChildTimesOutAndStopEndsIt)
{
    SpawnOptions options;
    options.stdoutPipe = true;
    Process p({"/bin/sleep", "30"}, options);
    std::string line;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(p.readLine(line, 100ms));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    const int status = p.stop();
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
    EXPECT_NE(kill(p.pid(), 0), 0);  // reaped
}

TEST(Processes, StopEscalatesWhenTermIsIgnored)
{
    SpawnOptions options;
    options.stdoutPipe = true;
    Process p({"/bin/sh", "-c", "trap '' TERM; echo up; while :; do sleep 1; done"}, options);
    std::string line;
    ASSERT_TRUE(p.readLine(line, 5s));
    const auto start = std::chrono::steady_clock::now();
    const int status = p.stop(200ms);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
}

TEST(Table, RatiosAndMissingCells)
{
    EXPECT_EQ(ratio(200, 100), "2.00x");
    EXPECT_EQ(ratio(5, 0), "-");
    EXPECT_EQ(ratio(std::nan(""), 1), "-");
    Row r;
    r.figure = "PSS (KB)";
    r.subject = "daemon";
    r.value.median = 3000;
    r.baseline = "bare";
    r.base.median = 1500;
    r.hasP99 = false;
    r.hasRate = false;
    Row lone;
    lone.figure = "lone";
    lone.subject = "x";
    lone.value.median = 1;
    const std::string table = formatTable({r, lone});
    EXPECT_NE(table.find("| PSS (KB) | daemon | 3000 | - | - | bare | 1500 | - | - | 2.00x | - | - |"), std::string::npos)
        << table;
    EXPECT_NE(table.find("| lone | x | 1.00 | 0.00 | 0.00 | - | - | - | - | - | - | - |"), std::string::npos) << table;
}

TEST(Goals, BoundariesPassAndUnknownFails)
{
    EXPECT_TRUE(passes({"at most", 1.2, 1.2, true, ""}));
    EXPECT_FALSE(passes({"at most", 1.21, 1.2, true, ""}));
    EXPECT_TRUE(passes({"at least", 0.8, 0.8, false, ""}));
    EXPECT_FALSE(passes({"at least", 0.79, 0.8, false, ""}));
    EXPECT_FALSE(passes({"unknown", std::nan(""), 20, true, ""}));
    Goal skipped{"dbus", 0, 5, false, "", true};
    EXPECT_FALSE(passes(skipped));
    EXPECT_EQ(formatGoal(skipped).rfind("SKIP", 0), 0u);
    EXPECT_EQ(formatGoal({"ready", 9.5, 20, true, "median"}).rfind("PASS  ready: 9.50 (goal <= 20.0); median", 0), 0u);
}
