#include "bench/daemon_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace Orvex {
namespace Bench {

using Clock = std::chrono::steady_clock;

// ---- statistics ------------------------------------------------------------------------

Figures summarize(std::vector<double> values, double elapsedSeconds, long failures)
{
    Figures figures;
    figures.failures = failures;
    figures.count = values.size();
    if (values.empty())
        return figures;
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    figures.median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
    // Nearest rank: the smallest value with at least 99 % of the values at or below it.
    const size_t rank = static_cast<size_t>(std::ceil(0.99 * static_cast<double>(n)));
    figures.p99 = values[std::max<size_t>(rank, 1) - 1];
    if (elapsedSeconds > 0)
        figures.rate = static_cast<double>(n) / elapsedSeconds;
    return figures;
}

void Samples::add(const Samples& other)
{
    values.insert(values.end(), other.values.begin(), other.values.end());
    elapsed += other.elapsed;
    failures += other.failures;
}

Samples measureCalls(const std::function<bool(int)>& call, int callers, double seconds, int warmup)
{
    std::vector<std::vector<double>> latencies(static_cast<size_t>(callers));
    std::atomic<long> failures{0};
    std::atomic<int> warm{0};
    std::atomic<bool> go{false};
    Clock::time_point start;
    Clock::time_point end;
    std::vector<std::thread> threads;
    for (int i = 0; i < callers; ++i) {
        threads.emplace_back([&, i] {
            for (int w = 0; w < warmup; ++w)
                call(i);
            ++warm;
            while (!go.load())
                std::this_thread::yield();
            auto& mine = latencies[static_cast<size_t>(i)];
            while (Clock::now() < end) {
                const auto t0 = Clock::now();
                if (!call(i))
                    ++failures;
                mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
            }
        });
    }
    while (warm.load() < callers)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    start = Clock::now();
    end = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    go = true;
    for (auto& t : threads)
        t.join();
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    Samples samples;
    samples.elapsed = elapsed;
    samples.failures = failures.load();
    for (auto& v : latencies)
        samples.values.insert(samples.values.end(), v.begin(), v.end());
    return samples;
}

void measurePair(const std::function<bool(int)>& a, const std::function<bool(int)>& b, int callers, double seconds,
                 Figures& figuresA, Figures& figuresB, int rounds)
{
    Samples sa;
    Samples sb;
    const double slice = seconds / rounds;
    for (int i = 0; i < rounds; ++i) {
        // The first round warms both up; later rounds start measuring at once.
        const int warmup = i == 0 ? 20 : 0;
        sa.add(measureCalls(a, callers, slice, warmup));
        sb.add(measureCalls(b, callers, slice, warmup));
    }
    figuresA = sa.figures();
    figuresB = sb.figures();
}

// ---- memory -----------------------------------------------------------------------------

Memory parseSmapsRollup(const std::string& text)
{
    Memory memory;
    long privateClean = -1;
    long privateDirty = -1;
    std::istringstream lines(text);
    std::string key;
    long value;
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream fields(line);
        if (!(fields >> key >> value))
            continue;
        if (key == "Rss:")
            memory.rssKb = value;
        else if (key == "Pss:")
            memory.pssKb = value;
        else if (key == "Private_Clean:")
            privateClean = value;
        else if (key == "Private_Dirty:")
            privateDirty = value;
    }
    if (privateClean >= 0 && privateDirty >= 0)
        memory.privateKb = privateClean + privateDirty;
    return memory;
}

Memory readMemory(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps_rollup");
    std::stringstream text;
    text << in.rdbuf();
    return parseSmapsRollup(text.str());
}

double parseSchedstatSeconds(const std::string& schedstatText)
{
    std::istringstream fields(schedstatText);
    unsigned long long nanoseconds = 0;
    if (!(fields >> nanoseconds))
        return -1;
    return static_cast<double>(nanoseconds) / 1e9;
}

double cpuSeconds(pid_t pid)
{
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    DIR* dir = opendir(tasks.c_str());
    if (!dir)
        return -1;
    double total = 0;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        std::ifstream in(tasks + "/" + entry->d_name + "/schedstat");
        std::string text;
        std::getline(in, text);
        const double seconds = parseSchedstatSeconds(text);
        total += seconds > 0 ? seconds : 0;
    }
    closedir(dir);
    return total;
}

// ---- bus wire format -----------------------------------------------------------------------

namespace {

void putLe32(std::string& out, size_t offset, uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        out[offset + static_cast<size_t>(i)] = static_cast<char>((value >> (8 * i)) & 0xff);
}

uint32_t getLe32(const char* in)
{
    uint32_t value = 0;
    for (int i = 3; i >= 0; --i)
        value = (value << 8) | static_cast<unsigned char>(in[i]);
    return value;
}

bool readExactly(int fd, char* data, size_t size)
{
    while (size > 0) {
        const ssize_t n = read(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool writeAll(int fd, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

// Reads one frame of the given kind; the name is dropped, the body kept.
bool readFrame(int fd, char kind, std::string& body)
{
    char header[kHeaderSize];
    uint32_t nameLength;
    uint32_t bodyLength;
    if (!readExactly(fd, header, sizeof header) || !decodeHeader(header, kind, nameLength, bodyLength))
        return false;
    std::string rest(static_cast<size_t>(nameLength) + bodyLength, '\0');
    if (!rest.empty() && !readExactly(fd, &rest[0], rest.size()))
        return false;
    body = rest.substr(nameLength);
    return true;
}

}  // namespace

std::string encodeFrame(char kind, const std::string& name, const std::string& body)
{
    std::string frame(kHeaderSize, '\0');
    frame[0] = 'Z';
    frame[1] = 'S';
    frame[2] = 1;
    frame[3] = kind;
    putLe32(frame, 4, static_cast<uint32_t>(name.size()));
    putLe32(frame, 8, static_cast<uint32_t>(body.size()));
    return frame + name + body;
}

bool decodeHeader(const char* header, char kind, uint32_t& nameLength, uint32_t& bodyLength)
{
    if (header[0] != 'Z' || header[1] != 'S' || header[2] != 1 || header[3] != kind)
        return false;
    nameLength = getLe32(header + 4);
    bodyLength = getLe32(header + 8);
    return nameLength <= 255 && bodyLength <= 16777216u;
}

sockaddr_un abstractAddress(const std::string& address, socklen_t& length)
{
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    const std::string name = address.substr(address.empty() || address[0] != '@' ? 0 : 1);
    const size_t size = std::min(name.size(), sizeof(sa.sun_path) - 1);
    memcpy(sa.sun_path + 1, name.data(), size);
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + size);
    return sa;
}

int listenAbstract(const std::string& address)
{
    socklen_t length;
    const sockaddr_un sa = abstractAddress(address, length);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&sa), length) != 0 || listen(fd, SOMAXCONN) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool rawCall(const std::string& address, const std::string& request, std::string& reply)
{
    socklen_t length;
    const sockaddr_un sa = abstractAddress(address, length);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    const bool ok = connect(fd, reinterpret_cast<const sockaddr*>(&sa), length) == 0 &&
                    writeAll(fd, request.data(), request.size()) && readFrame(fd, 'R', reply);
    close(fd);
    return ok;
}

void serveEcho(int listenFd, const std::string& replyFrame)
{
    std::string call;
    for (;;) {
        const int conn = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (conn < 0) {
            if (errno == EINTR || errno == ECONNABORTED || errno == EMFILE || errno == ENFILE)
                continue;
            return;
        }
        if (readFrame(conn, 'C', call))
            writeAll(conn, replyFrame.data(), replyFrame.size());
        close(conn);
    }
}

// ---- child processes ----------------------------------------------------------------------

Process::Process(const std::vector<std::string>& argv, const SpawnOptions& options)
{
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    int in[2] = {-1, -1};
    int out[2] = {-1, -1};
    if ((options.stdinPipe && pipe2(in, O_CLOEXEC) != 0) || (options.stdoutPipe && pipe2(out, O_CLOEXEC) != 0))
        return;
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
        // Only async-signal-safe calls between fork and exec.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent)
            _exit(127);
        const int null = open("/dev/null", O_RDWR);
        dup2(options.stdinPipe ? in[0] : null, 0);
        dup2(options.stdoutPipe ? out[1] : null, 1);
        dup2(null, 2);
        execv(args[0], args.data());
        _exit(127);
    }
    if (options.stdinPipe) {
        close(in[0]);
        stdin_ = in[1];
    }
    if (options.stdoutPipe) {
        close(out[1]);
        stdout_ = out[0];
    }
}

Process::~Process()
{
    if (pid_ > 0 && !reaped_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (stdin_ >= 0)
        close(stdin_);
    if (stdout_ >= 0)
        close(stdout_);
}

bool Process::readLine(std::string& line, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        const size_t newline = pending_.find('\n');
        if (newline != std::string::npos) {
            line = pending_.substr(0, newline);
            pending_.erase(0, newline + 1);
            return true;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd pfd{stdout_, POLLIN, 0};
        if (stdout_ < 0 || left <= 0 || poll(&pfd, 1, static_cast<int>(left)) <= 0)
            return false;
        char buffer[512];
        const ssize_t n = read(stdout_, buffer, sizeof buffer);
        if (n <= 0)
            return false;
        pending_.append(buffer, static_cast<size_t>(n));
    }
}

int Process::stop(std::chrono::milliseconds grace)
{
    if (pid_ <= 0 || reaped_)
        return -1;
    kill(pid_, SIGTERM);
    int status = 0;
    const auto deadline = Clock::now() + grace;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
        if (Clock::now() >= deadline) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    reaped_ = true;
    return status;
}

// ---- the table and the goals -----------------------------------------------------------------

namespace {

std::string number(double value)
{
    char text[32];
    if (value >= 1000)
        snprintf(text, sizeof text, "%.0f", value);
    else if (value >= 10)
        snprintf(text, sizeof text, "%.1f", value);
    else
        snprintf(text, sizeof text, "%.2f", value);
    return text;
}

std::string cell(bool present, double value)
{
    return present ? number(value) : "-";
}

}  // namespace

std::string ratio(double subject, double baseline)
{
    if (!(baseline > 0) || !(subject >= 0))
        return "-";
    char text[32];
    snprintf(text, sizeof text, "%.2fx", subject / baseline);
    return text;
}

std::string formatTable(const std::vector<Row>& rows)
{
    std::string out =
        "| figure | measured | median | p99 | per s | baseline | median | p99 | per s | ratio median | ratio p99 | ratio per s |\n"
        "|---|---|--:|--:|--:|---|--:|--:|--:|--:|--:|--:|\n";
    for (const Row& r : rows) {
        const bool base = !r.baseline.empty();
        out += "| " + r.figure + " | " + r.subject + " | " + number(r.value.median) + " | " +
               cell(r.hasP99, r.value.p99) + " | " + cell(r.hasRate, r.value.rate) + " | " +
               (base ? r.baseline : "-") + " | " + cell(base, r.base.median) + " | " +
               cell(base && r.hasP99, r.base.p99) + " | " + cell(base && r.hasRate, r.base.rate) + " | " +
               (base ? ratio(r.value.median, r.base.median) : "-") + " | " +
               (base && r.hasP99 ? ratio(r.value.p99, r.base.p99) : "-") + " | " +
               (base && r.hasRate ? ratio(r.value.rate, r.base.rate) : "-") + " |\n";
    }
    return out;
}

bool passes(const Goal& goal)
{
    if (goal.skipped || std::isnan(goal.measured))
        return false;
    return goal.atMost ? goal.measured <= goal.limit : goal.measured >= goal.limit;
}

std::string formatGoal(const Goal& goal)
{
    const char* verdict = goal.skipped ? "SKIP" : passes(goal) ? "PASS" : "FAIL";
    char limit[64];
    snprintf(limit, sizeof limit, "%s %s", goal.atMost ? "<=" : ">=", number(goal.limit).c_str());
    return std::string(verdict) + "  " + goal.name + ": " + number(goal.measured) + " (goal " + limit + "); " +
           goal.figures;
}

}  // namespace Bench
}  // namespace Orvex
