#include "tests/load/load_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace load {

const char* const kMac = "00:11:22:33:44:55";

namespace {

std::string readReadyLine(int fd)
{
    std::string line;
    auto deadline = std::chrono::steady_clock::now() + 15s;
    while (line.find('\n') == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        char buffer[256];
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0)
            break;
        line.append(buffer, static_cast<size_t>(n));
    }
    return line;
}

}  // namespace

Simulator::Simulator(const std::string& family, const std::vector<std::string>& extra)
{
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    e2e::Spawn spawn{{e2e::devsimBinary(), "--family", family, "--port", "0", "--log", dir_.file("requests.log"),
                         "--stdin-watch"},
        {}, "", dir_.file("stderr"), true, out[1]};
    spawn.argv.insert(spawn.argv.end(), extra.begin(), extra.end());
    child_ = std::make_unique<e2e::Child>(spawn);
    close(out[1]);
    stdout_.reset(out[0]);
    std::string line = readReadyLine(stdout_.get());
    size_t colon = line.rfind(':');
    if (line.rfind("orvex-devsim listening on ", 0) != 0 || colon == std::string::npos)
        throw std::runtime_error("orvex-devsim did not start: " + line + e2e::readFile(dir_.file("stderr")));
    port_ = std::atoi(line.c_str() + colon + 1);
}

Simulator::~Simulator()
{
    thaw();
    child_->signal(SIGTERM);
    if (child_->wait(5s) == -1)
        child_->signal(SIGKILL);
}

void Simulator::freeze()
{
    child_->signal(SIGSTOP);
    frozen_ = true;
}

void Simulator::thaw()
{
    if (frozen_)
        child_->signal(SIGCONT);
    frozen_ = false;
}

std::string Simulator::signinArgs() const
{
    JsonRef args = JsonRef::adopt(
        json_pack("{ss si ss ss sb}", "ip", "127.0.0.1", "port", port_, "user", "admin", "pass", "secret", "secure", 0));
    return e2e::dump(args.get());
}

size_t Simulator::requestsTo(const std::string& prefix) const
{
    std::istringstream lines(e2e::readFile(dir_.file("requests.log")));
    std::string line;
    size_t count = 0;
    while (std::getline(lines, line)) {
        JsonRef entry = e2e::parseJson(line);
        const char* target = json_string_value(json_object_get(entry.get(), "target"));
        if (target && std::string(target).rfind(prefix, 0) == 0)
            ++count;
    }
    return count;
}

SignedInDaemon::SignedInDaemon(const std::vector<std::string>& simulatorExtra)
    : device("legacy", simulatorExtra), daemon(kMac)
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

Orvex::UniqueFd connectBus(const std::string& mac)
{
    Orvex::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string name = e2e::busAddress(mac).substr(1);  // abstract: leading NUL instead of '@'
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    socklen_t size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    if (!fd || connect(fd.get(), reinterpret_cast<sockaddr*>(&address), size) != 0)
        return Orvex::UniqueFd();
    return fd;
}

bool sendAll(int fd, const std::string& bytes)
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        sent += static_cast<size_t>(n);
    }
    return true;
}

std::string callFrame(const std::string& method, const std::string& body)
{
    std::string frame = {'Z', 'S', 1, 'C'};
    for (uint32_t n : {static_cast<uint32_t>(method.size()), static_cast<uint32_t>(body.size())})
        for (int i = 0; i < 4; ++i)
            frame += static_cast<char>((n >> (8 * i)) & 0xff);
    return frame + method + body;
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
