#include "tests/load/load_support.h"

#include <dirent.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace load {

const char* const kMac = "00:11:22:33:44:55";

SignedInDaemon::SignedInDaemon(const std::vector<std::string>& simulatorExtra)
    : device("legacy", false, simulatorExtra), daemon(kMac)
{
    if (!daemon.ready())
        throw std::runtime_error("orvex-session did not come up: " + daemon.log());
    BusReply signin = daemon.call("signin", device.signinArgs());
    JsonRef reply = signin.json();
    if (signin.rc != 0 || json_integer_value(json_object_get(reply.get(), "error_code")) != 0)
        throw std::runtime_error("signin failed: " + signin.body + " " + std::strerror(signin.error));
    BusReply info = daemon.call("get_device_system_info");
    JsonRef parsed = info.json();
    // The identity the legacy simulator reports, as signin reported it.
    for (const char* key : {"model", "serial", "firmware", "hostname"})
        if (!json_equal(json_object_get(parsed.get(), key), json_object_get(reply.get(), key)))
            throw std::runtime_error("system info differs from signin at " + std::string(key) + ": " + info.body);
    const char* model = json_string_value(json_object_get(parsed.get(), "model"));
    if (!model || std::string(model) != "NVX-4200")
        throw std::runtime_error("unexpected system info: " + info.body);
    systemInfo = info.body;
}

SignedInDaemon::~SignedInDaemon()
{
    // Sanitizer builds report races and memory errors as they happen, on standard error.
    std::string log = daemon.log();
    for (const char* mark : {"WARNING: ThreadSanitizer", "ERROR: AddressSanitizer", "runtime error:"})
        EXPECT_EQ(log.find(mark), std::string::npos) << "orvex-session:\n" << log;
}

namespace {

long countFds(pid_t pid)
{
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (!dir)
        return -1;
    long count = 0;
    while (dirent* entry = readdir(dir))
        if (entry->d_name[0] != '.')
            ++count;
    closedir(dir);
    return count;
}

long residentKb(pid_t pid)
{
    std::istringstream status(e2e::readFile("/proc/" + std::to_string(pid) + "/status"));
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::atol(line.c_str() + 6);
    return -1;
}

}  // namespace

ProcessFigures figuresOf(pid_t pid)
{
    return {countFds(pid), residentKb(pid)};
}

ProcessFigures settleFds(pid_t pid, long fds, std::chrono::milliseconds timeout)
{
    // The daemon closes a caller's connection just after the reply left; give it that moment.
    e2e::waitFor([&] { return countFds(pid) <= fds; }, timeout);
    return figuresOf(pid);
}

ProcessFigures restingFigures(pid_t pid)
{
    ProcessFigures low = figuresOf(pid);
    for (int i = 0; i < 10; ++i) {
        std::this_thread::sleep_for(10ms);
        ProcessFigures now = figuresOf(pid);
        low.fds = std::min(low.fds, now.fds);
        low.rssKb = now.rssKb;
    }
    return low;
}

double secondsSince(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

namespace {

// What one caller thread saw; merged after the join.
struct CallerLog {
    std::vector<double> latenciesMs;
    size_t wrong = 0;
    std::string firstWrong;
};

void callerLoop(std::atomic<size_t>& next, size_t total, const std::function<std::string(size_t)>& call,
    CallerLog& log)
{
    for (size_t index = next++; index < total; index = next++) {
        auto start = std::chrono::steady_clock::now();
        std::string problem = call(index);
        log.latenciesMs.push_back(secondsSince(start) * 1000);
        if (!problem.empty() && log.wrong++ == 0)
            log.firstWrong = "call " + std::to_string(index) + ": " + problem;
    }
}

double percentile(const std::vector<double>& sorted, double fraction)
{
    if (sorted.empty())
        return 0;
    return sorted[std::min(sorted.size() - 1, static_cast<size_t>(fraction * static_cast<double>(sorted.size())))];
}

}  // namespace

LoadResult runCallers(size_t callers, size_t total, const std::function<std::string(size_t)>& call)
{
    std::atomic<size_t> next{0};
    std::vector<CallerLog> logs(callers);
    std::vector<std::thread> threads;
    auto start = std::chrono::steady_clock::now();
    for (size_t i = 0; i < callers; ++i)
        threads.emplace_back(callerLoop, std::ref(next), total, std::cref(call), std::ref(logs[i]));
    for (std::thread& thread : threads)
        thread.join();
    LoadResult result;
    result.seconds = secondsSince(start);
    std::vector<double> latencies;
    for (CallerLog& log : logs) {
        latencies.insert(latencies.end(), log.latenciesMs.begin(), log.latenciesMs.end());
        if (log.wrong && result.firstWrong.empty())
            result.firstWrong = log.firstWrong;
        result.wrong += log.wrong;
    }
    std::sort(latencies.begin(), latencies.end());
    result.calls = latencies.size();
    result.p50Ms = percentile(latencies, 0.50);
    result.p99Ms = percentile(latencies, 0.99);
    result.maxMs = latencies.empty() ? 0 : latencies.back();
    return result;
}

}  // namespace load
