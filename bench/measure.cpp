#include "bench/bench.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <sstream>
#include <thread>

namespace Orvex::Bench {

namespace {

using Clock = std::chrono::steady_clock;

struct Samples {
    std::vector<double> values;
    double elapsed = 0;
    long failures = 0;
};

void timeCalls(const Call& call, int callers, double seconds, Samples& into)
{
    std::vector<Samples> perThread(static_cast<size_t>(callers));
    std::atomic<bool> go{false};
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < callers; ++t)
        threads.emplace_back([&, t] {
            Samples& mine = perThread[static_cast<size_t>(t)];
            for (int i = 0; i < 5; ++i)  // warm-up, unmeasured
                call(t);
            ++ready;
            while (!go.load())
                std::this_thread::yield();
            const auto end = Clock::now() + std::chrono::duration<double>(seconds);
            for (auto now = Clock::now(); now < end;) {
                const bool ok = call(t);
                const auto after = Clock::now();
                mine.values.push_back(std::chrono::duration<double, std::micro>(after - now).count());
                mine.failures += ok ? 0 : 1;
                now = after;
            }
        });
    while (ready.load() < callers)
        std::this_thread::yield();
    const auto start = Clock::now();
    go = true;
    for (auto& thread : threads)
        thread.join();
    into.elapsed += std::chrono::duration<double>(Clock::now() - start).count();
    for (auto& mine : perThread) {
        into.values.insert(into.values.end(), mine.values.begin(), mine.values.end());
        into.failures += mine.failures;
    }
}

std::string cell(double value)
{
    if (std::isnan(value))
        return "-";
    return value >= 1000 ? format("%.0f", value) : value >= 10 ? format("%.1f", value) : format("%.2f", value);
}

std::string ratio(double a, double b)
{
    return std::isnan(a) || std::isnan(b) || b == 0 ? "-" : format("%.2fx", a / b);
}

std::string field(const std::string& text, const std::string& key)
{
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, key.size(), key) == 0)
            return line.substr(key.size());
    return "";
}

}  // namespace

std::string format(const char* pattern, ...)
{
    char text[512];
    va_list args;
    va_start(args, pattern);
    std::vsnprintf(text, sizeof text, pattern, args);
    va_end(args);
    return text;
}

Figures summarize(std::vector<double> values, double elapsedSeconds, long failures)
{
    Figures f;
    f.failures = failures;
    if (values.empty())
        return f;
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    f.median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
    f.p99 = values[static_cast<size_t>(std::ceil(0.99 * static_cast<double>(n))) - 1];  // nearest rank
    f.rate = elapsedSeconds > 0 ? static_cast<double>(n) / elapsedSeconds : NAN;
    return f;
}

void measurePair(const Call& a, const Call& b, int callers, double seconds, Figures& fa, Figures& fb)
{
    Samples sa, sb;
    for (int slice = 0; slice < 4; ++slice) {
        timeCalls(a, callers, seconds / 4, sa);
        timeCalls(b, callers, seconds / 4, sb);
    }
    fa = summarize(sa.values, sa.elapsed, sa.failures);
    fb = summarize(sb.values, sb.elapsed, sb.failures);
}

void Report::row(const std::string& figure, const std::string& subject, const Figures& v, const std::string& baseline,
                 const Figures& b)
{
    rows.push_back("| " + figure + " | " + subject + " | " + cell(v.median) + " | " + cell(v.p99) + " | " +
                   cell(v.rate) + " | " + baseline + " | " + cell(b.median) + " | " + cell(b.p99) + " | " +
                   cell(b.rate) + " | " + ratio(v.median, b.median) + " | " + ratio(v.p99, b.p99) + " | " +
                   ratio(v.rate, b.rate) + " |");
    if (v.failures || b.failures)
        note(figure + ", " + subject + ": failed calls " + std::to_string(v.failures) + " / baseline " +
             std::to_string(b.failures));
}

void Report::goal(const std::string& name, double measured, double limit, bool atMost, const std::string& figures)
{
    const bool pass = !std::isnan(measured) && (atMost ? measured <= limit : measured >= limit);
    ok = ok && pass;
    goals.push_back(format("%s  %s: %.2f (goal %s %.2f); ", pass ? "PASS" : "FAIL", name.c_str(), measured,
                           atMost ? "<=" : ">=", limit) + figures);
}

std::string Report::text() const
{
    std::string out = "| figure | measured | median | p99 | per s | baseline | median | p99 | per s | "
                      "ratio median | ratio p99 | ratio per s |\n|---|---|--:|--:|--:|---|--:|--:|--:|--:|--:|--:|\n";
    for (const auto& r : rows)
        out += r + "\n";
    out += "\n";
    for (const auto& g : goals)
        out += g + "\n";
    for (const auto& n : notes)
        out += "note: " + n + "\n";
    return out;
}

Figures single(double value)
{
    Figures f;
    f.median = value;
    return f;
}

Test::Spawn command(std::vector<std::string> argv)
{
    Test::Spawn spawn;
    spawn.argv = std::move(argv);
    return spawn;
}

Memory memoryOf(pid_t pid)
{
    const std::string text = Test::readFile("/proc/" + std::to_string(pid) + "/smaps_rollup");
    auto kb = [&](const char* key) { return std::atol(field(text, key).c_str()); };
    return {kb("Rss:"), kb("Pss:"), kb("Private_Clean:") + kb("Private_Dirty:")};
}

long threadsOf(pid_t pid)
{
    return std::atol(field(Test::readFile("/proc/" + std::to_string(pid) + "/status"), "Threads:").c_str());
}

double runSecondsOf(pid_t pid)
{
    double total = 0;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    if (DIR* dir = opendir(tasks.c_str())) {
        while (dirent* entry = readdir(dir))
            if (entry->d_name[0] != '.')
                total += std::atof(Test::readFile(tasks + "/" + entry->d_name + "/schedstat").c_str()) / 1e9;
        closedir(dir);
    }
    return total;
}

std::string loadAverage()
{
    std::istringstream in(Test::readFile("/proc/loadavg"));
    std::string a, b, c;
    in >> a >> b >> c;
    return a + " " + b + " " + c;
}

}  // namespace Orvex::Bench
