// The one benchmark, orvex_bench (see README.md): its measuring pieces, the bare
// baselines and the fleet part. No more statistics than a median and a p99 need. Set-up
// failures throw std::runtime_error naming the program and the reason; timed calls
// return false.
#pragma once

#include <sys/types.h>

#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <Poco/Net/Context.h>
#include <Poco/Net/Session.h>
#include <systemd/sd-bus.h>

#include "tests/support/process.h"

namespace Orvex::Bench {

struct Figures {
    double median = NAN, p99 = NAN, rate = NAN;  // rate: per second of elapsed time; NaN: none
    long failures = 0;
};
Figures summarize(std::vector<double> values, double elapsedSeconds = 0, long failures = 0);

// Times call(callerIndex) in microseconds on `callers` threads; a and b alternate in four
// slices so that load from elsewhere on the machine falls on both alike.
using Call = std::function<bool(int)>;
void measurePair(const Call& a, const Call& b, int callers, double seconds, Figures& fa, Figures& fb);

// Rows of one Markdown table (figure, subject and its figures, baseline and its figures,
// ratios; "-" for a figure that has none) and a PASS/FAIL line per goal.
struct Report {
    void row(const std::string& figure, const std::string& subject, const Figures& value, const std::string& baseline,
             const Figures& base);
    // Passes when measured <= limit (atMost) or >= limit; NaN (not measured) fails.
    void goal(const std::string& name, double measured, double limit, bool atMost, const std::string& figures);
    void note(const std::string& text) { notes.push_back(text); }
    std::string text() const;

    std::vector<std::string> rows, goals, notes;
    bool ok = true;
};
std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
Figures single(double value);  // a figure that is one number
Test::Spawn command(std::vector<std::string> argv);

struct Memory {
    long rssKb = 0, pssKb = 0, privateKb = 0;
};
Memory memoryOf(pid_t pid);
long threadsOf(pid_t pid);
// Run time of the live threads from their schedstat: exact, for short windows.
double runSecondsOf(pid_t pid);
std::string loadAverage();

// One call on its own connection without the bus library: the call frame out, the reply
// frame in, read to its announced length; reply gets its body.
bool rawCall(const std::string& address, const std::string& frame, std::string& reply);

// D-Bus through a private dbus-daemon with sd-bus: a connection (nullptr on failure;
// sd_bus_flush_close_unref ends it) and one Echo call on it.
sd_bus* dbusConnect(const std::string& address);
bool dbusCall(sd_bus* bus, size_t expected);

// Milliseconds from launching spawn until the bus at address answers; NaN after 5 s or
// when the process ended first.
double launch(const Test::Spawn& spawn, const std::string& address);

struct Settings {
    double seconds = 1.0;   // per measured pair and caller count
    int launches = 20;
    int devices = 500;      // fleet
    int idleSeconds = 120;  // fleet idle phase: two keep-alive periods
    int parallel = 16;
    std::string only;       // one part (bus, device, footprint, start-up, fleet, fleet-commands), or all
    std::string self;       // this program, for its peers
};

// This program's own peers, run as child processes (argv[1] names the mode).
int peerMain(int argc, char** argv);
// The idle peer: a bare POCO process that signs in to the device at port over HTTPS, reads
// its configuration, prints "ready" (into outPath) and idles until its stdin ends.
std::unique_ptr<Test::Child> idlePeer(const Settings& s, int port, const std::string& outPath);

// The daemon's TLS client settings; resumable: with a session cache.
Poco::Net::Context::Ptr clientContext(bool resumable);

// A bare POCO client of one simulated device: a new connection per request, TLS offering
// its last session again, as the daemon does. One thread at a time.
class BareDevice {
public:
    BareDevice(int port, bool tls, Poco::Net::Context::Ptr context);
    bool signin();  // the daemon's sign-in requests (the legacy attempt first, as it makes it)
    bool readConfig(bool fullHandshake = false);  // full: with a context made for this request
    bool changeConfig();
    long resumed = 0;

private:
    int request(const std::string& method, const std::string& path, const std::string& body,
                Poco::Net::Context::Ptr fresh = nullptr);
    int port_;
    bool tls_;
    Poco::Net::Context::Ptr context_;
    Poco::Net::Session::Ptr session_;
    std::string sid_, reply_;
};

void measureFleet(const Settings& s, Report& report);
void measureFleetCommands(const Settings& s, Report& report);

}  // namespace Orvex::Bench
