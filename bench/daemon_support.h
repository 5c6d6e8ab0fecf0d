// Pieces of the daemon benchmark that do not depend on the daemon: latency statistics,
// /proc memory figures, the bus wire format for raw callers and the echo baseline, child
// processes, and the result table with its goals. Everything reports failure through
// return values (a benchmark keeps going and prints what it could measure); nothing here
// is thread-safe unless it says so.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Orvex {
namespace Bench {

// ---- statistics ------------------------------------------------------------------------

struct Figures {
    double median = 0;  // microseconds (or the unit of the values given)
    double p99 = 0;
    double rate = 0;    // values per second of elapsed time; 0 when no time was given
    size_t count = 0;
    long failures = 0;
};

// Median and 99th percentile (nearest rank) of values; rate = count / elapsedSeconds.
Figures summarize(std::vector<double> values, double elapsedSeconds = 0, long failures = 0);

// Latencies of one or more measuring runs, merged.
struct Samples {
    std::vector<double> values;
    double elapsed = 0;
    long failures = 0;
    void add(const Samples& other);
    Figures figures() const { return summarize(values, elapsed, failures); }
};

// Runs call(callerIndex) on `callers` threads for `seconds` after `warmup` unmeasured calls
// per thread; a call returning false counts as a failure (its time still counts).
Samples measureCalls(const std::function<bool(int)>& call, int callers, double seconds, int warmup = 20);

// Alternates short runs of a and b (`rounds` each, seconds in total per side) so that load
// from elsewhere on the machine falls on both alike.
void measurePair(const std::function<bool(int)>& a, const std::function<bool(int)>& b, int callers, double seconds,
                 Figures& figuresA, Figures& figuresB, int rounds = 4);

// ---- memory -----------------------------------------------------------------------------

struct Memory {
    long rssKb = -1;
    long pssKb = -1;
    long privateKb = -1;  // Private_Clean + Private_Dirty
    bool valid() const { return rssKb >= 0 && pssKb >= 0 && privateKb >= 0; }
};

// Reads the "Rss:", "Pss:", "Private_Clean:" and "Private_Dirty:" lines of smaps_rollup
// text; a missing line leaves its figure at -1.
Memory parseSmapsRollup(const std::string& text);
Memory readMemory(pid_t pid);

// CPU time a thread has run, from the first field (nanoseconds) of its
// /proc/PID/task/TID/schedstat text; -1 when the text does not parse.
double parseSchedstatSeconds(const std::string& schedstatText);
// Sum over the live threads of a process: exact, unlike the tick-sampled utime/stime.
// Threads that end in between are not counted (the measured servers keep theirs).
double cpuSeconds(pid_t pid);

// ---- bus wire format -----------------------------------------------------------------------

constexpr size_t kHeaderSize = 12;

std::string encodeFrame(char kind, const std::string& name, const std::string& body);
// Checks magic, version and kind of a 12-byte header and returns the two lengths.
bool decodeHeader(const char* header, char kind, uint32_t& nameLength, uint32_t& bodyLength);

sockaddr_un abstractAddress(const std::string& address, socklen_t& length);
// A listening socket on "@name"; -1 on failure.
int listenAbstract(const std::string& address);
// One call on its own connection without the bus library: sends `request` (a whole call
// frame) and reads the reply frame's body into reply.
bool rawCall(const std::string& address, const std::string& request, std::string& reply);
// Serves one connection at a time until the process ends: reads a whole call frame and
// answers with replyFrame. Returns only if accept fails for good.
void serveEcho(int listenFd, const std::string& replyFrame);

// ---- child processes ----------------------------------------------------------------------

struct SpawnOptions {
    bool stdinPipe = false;   // else /dev/null; closing it is EOF for the child
    bool stdoutPipe = false;  // else /dev/null
};

// A child that dies with this process (parent-death signal) and is killed and reaped at
// destruction if still there.
class Process {
public:
    Process(const std::vector<std::string>& argv, const SpawnOptions& options = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return pid_; }
    // One line of the child's stdout without its newline; false at EOF or time-out.
    bool readLine(std::string& line, std::chrono::milliseconds timeout);
    // SIGTERM, then SIGKILL if it has not ended within grace; returns the wait status.
    int stop(std::chrono::milliseconds grace = std::chrono::milliseconds(3000));

private:
    pid_t pid_ = -1;
    int stdin_ = -1;
    int stdout_ = -1;
    bool reaped_ = false;
    std::string pending_;
};

// ---- the table and the goals -----------------------------------------------------------------

struct Row {
    std::string figure;    // what and its unit
    std::string subject;
    Figures value;
    std::string baseline;  // empty: a row without baseline
    Figures base;
    bool hasRate = true;
    bool hasP99 = true;
};

// Subject over baseline; "-" when the baseline is 0 or missing.
std::string ratio(double subject, double baseline);
// One Markdown table: figure, subject and its median/p99/rate, baseline and its figures,
// and the three ratios.
std::string formatTable(const std::vector<Row>& rows);

struct Goal {
    std::string name;
    double measured;
    double limit;
    bool atMost;          // pass when measured <= limit, else when measured >= limit
    std::string figures;  // the numbers it was judged on, for the report line
    bool skipped = false; // not measured (missing tool); printed as SKIP
};

bool passes(const Goal& goal);
std::string formatGoal(const Goal& goal);

}  // namespace Bench
}  // namespace Orvex
