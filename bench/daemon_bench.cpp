// The session daemon measured as a whole, each figure beside a bare baseline from the same
// run: bus round trips against a raw AF_UNIX echo and D-Bus, device calls against a bare
// POCO client, memory against an idle bare POCO process, start-up against a bare POCO
// listener. Prints one Markdown table and a PASS/FAIL line per goal; exit status 1 if a
// goal fails or a part cannot run. Runs only under tests/isolate.sh.
//
//   orvex_daemon_bench [--seconds S] [--launches N] [--daemons N] [--markdown FILE]
//                      [--daemon P] [--devsim P] [--peer P] [--dbus-peer P] [--dbus-daemon P]
#include "bench/daemon_dbus.h"
#include "bench/daemon_fixture.h"
#include "bench/daemon_support.h"

#include "zservice/channel.h"
#include "zservice/zservice.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <Poco/Net/NetSSL.h>

namespace Orvex {
namespace Bench {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct Settings {
    double seconds = 1.0;  // per measured pair and caller count
    int launches = 20;
    int daemons = 50;
    std::string markdown;
    Programs programs;
};

struct Report {
    std::vector<Row> rows;
    std::vector<Goal> goals;
    std::vector<std::string> notes;
};

Row row(const std::string& figure, const std::string& subject, const Figures& value, const std::string& baseline,
        const Figures& base)
{
    Row r;
    r.figure = figure;
    r.subject = subject;
    r.value = value;
    r.baseline = baseline;
    r.base = base;
    return r;
}

std::string failures(const Figures& a, const Figures& b)
{
    return a.failures || b.failures
               ? " (failed calls: " + std::to_string(a.failures) + " / " + std::to_string(b.failures) + ")"
               : "";
}

std::string micros(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f us", value);
    return text;
}

// ---- bus ---------------------------------------------------------------------------------

const char kInfoMethod[] = "get_device_system_info";

std::function<bool(int)> daemonCall(const std::string& address, const std::string& method, size_t replySize)
{
    return [address, method, replySize](int) {
        std::string reply;
        return busCall(address, method, "{}", &reply, 10) && (replySize == 0 || reply.size() == replySize);
    };
}

void measureDbus(const Settings& s, const std::string& reply, const std::function<bool(int)>& daemon, Report& report,
                 const Figures& daemonOne)
{
    Goal goal{"bus round trip at least 5x faster than one-shot D-Bus", 0, 5, false, "", true};
    if (!dbusAvailable() || s.programs.dbusPeer.empty() || s.programs.dbusDaemon.empty()) {
        report.notes.push_back("D-Bus baseline skipped: built without libsystemd or dbus-daemon not installed");
        report.goals.push_back(goal);
        return;
    }
    char dir[] = "/tmp/orvex-bench-dbus.XXXXXX";
    if (!mkdtemp(dir))
        throw std::runtime_error("cannot make a D-Bus folder");
    const std::string config = std::string(dir) + "/bus.conf";
    std::ofstream(config) << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                             " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                             "<busconfig><type>session</type><listen>unix:path="
                          << dir << "/bus</listen><auth>EXTERNAL</auth>"
                          << "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                             "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n";
    SpawnOptions options;
    options.stdoutPipe = true;
    Process bus({s.programs.dbusDaemon, "--config-file=" + config, "--print-address", "--nofork"}, options);
    std::string address;
    if (!bus.readLine(address, milliseconds(10000)) || address.empty())
        throw std::runtime_error("dbus-daemon did not print its address");
    std::unique_ptr<Process> peer = startPeer({s.programs.dbusPeer, address, reply});

    const std::string body = "{}";
    const auto once = [&](int) { return dbusCallOnce(address, body, reply.size()); };
    std::vector<std::unique_ptr<DbusConnection>> kept;
    for (int i = 0; i < 8; ++i)
        kept.emplace_back(new DbusConnection(address));
    const auto persistent = [&](int slot) { return kept[static_cast<size_t>(slot)]->call(body, reply.size()); };

    Figures d1, oneShot, d2, persistentOne, d8, persistentEight;
    measurePair(daemon, once, 1, s.seconds, d1, oneShot);
    measurePair(daemon, persistent, 1, s.seconds, d2, persistentOne);
    measurePair(daemon, persistent, 8, s.seconds, d8, persistentEight);
    report.rows.push_back(row("bus round trip, 1 caller (us)", "daemon", d1, "D-Bus, new connection per call", oneShot));
    report.rows.push_back(row("bus round trip, 1 caller (us)", "daemon", d2, "D-Bus, kept connection", persistentOne));
    report.rows.push_back(row("bus round trip, 8 callers (us)", "daemon", d8, "D-Bus, kept connections", persistentEight));
    goal.skipped = false;
    goal.measured = daemonOne.median > 0 ? oneShot.median / daemonOne.median : 0;
    goal.figures = "one-shot D-Bus " + micros(oneShot.median) + " / daemon " + micros(daemonOne.median) +
                   " (kept D-Bus connection " + micros(persistentOne.median) + ")" + failures(oneShot, persistentOne);
    report.goals.push_back(goal);
    kept.clear();
    peer.reset();
    bus.stop();
    unlink(config.c_str());
    rmdir(dir);
}

// Server CPU time per call while `callers` threads call for `seconds`.
Figures cpuPerCall(pid_t server, const std::function<bool(int)>& call, int callers, double seconds)
{
    const double before = cpuSeconds(server);
    const Samples samples = measureCalls(call, callers, seconds, 0);
    const double used = cpuSeconds(server) - before;
    Figures f;
    f.count = samples.values.size();
    f.failures = samples.failures;
    f.median = f.count ? used * 1e6 / static_cast<double>(f.count) : 0;
    return f;
}

Row cpuRow(const std::string& subject, const Figures& value, const std::string& baseline, const Figures& base)
{
    Row r = row("server CPU per call, 8 callers (us)", subject, value, baseline, base);
    r.hasP99 = false;
    r.hasRate = false;
    return r;
}

// Where the daemon's round trip goes: the bus client library against the raw echo, the bus
// library replying at once, and the bus library handing each call to a worker thread.
void measureBusBreakdown(const Settings& s, const std::string& reply, const std::function<bool(int)>& viaEcho,
                         pid_t echoPid, Report& report)
{
    const auto clientOnEcho = daemonCall("@orvex-bench-echo", kInfoMethod, reply.size());
    std::unique_ptr<Process> direct = startPeer({s.programs.peer, "bus", "@orvex-bench-direct", reply, "direct"});
    std::unique_ptr<Process> worker = startPeer({s.programs.peer, "bus", "@orvex-bench-worker", reply, "worker"});
    const auto viaDirect = daemonCall("@orvex-bench-direct", kInfoMethod, reply.size());
    const auto viaWorker = daemonCall("@orvex-bench-worker", kInfoMethod, reply.size());
    const double half = std::max(0.4, s.seconds / 2);
    for (int callers : {1, 8}) {
        const std::string figure = callers == 1 ? "breakdown, 1 caller (us)" : "breakdown, 8 callers (us)";
        Figures a, b;
        measurePair(clientOnEcho, viaEcho, callers, half, a, b);
        report.rows.push_back(row(figure, "zs_call client to the raw echo", a, "raw AF_UNIX echo", b));
        measurePair(viaDirect, viaEcho, callers, half, a, b);
        report.rows.push_back(row(figure, "bus library, reply on the loop thread", a, "raw AF_UNIX echo", b));
        measurePair(viaWorker, viaEcho, callers, half, a, b);
        report.rows.push_back(row(figure, "bus library, reply from a worker thread", a, "raw AF_UNIX echo", b));
    }
    const Figures echoCpu = cpuPerCall(echoPid, viaEcho, 8, half);
    report.rows.push_back(cpuRow("bus library, reply on the loop thread", cpuPerCall(direct->pid(), viaDirect, 8, half),
                                 "raw AF_UNIX echo", echoCpu));
    report.rows.push_back(cpuRow("bus library, reply from a worker thread",
                                 cpuPerCall(worker->pid(), viaWorker, 8, half), "raw AF_UNIX echo", echoCpu));
}

void measureBus(const Settings& s, const Devsim& device, Report& report)
{
    Daemon daemon(s.programs, macAddress(1));
    if (!daemon.ready())
        throw std::runtime_error("the daemon did not answer on the bus");
    daemon.signin(device);
    std::string reply;
    if (!busCall(daemon.address(), kInfoMethod, "{}", &reply))
        throw std::runtime_error("get_device_system_info failed");
    const std::string echoAddress = "@orvex-bench-echo";
    std::unique_ptr<Process> echo = startPeer({s.programs.peer, "echo", echoAddress, reply});
    const std::string frame = encodeFrame('C', kInfoMethod, "{}");
    const auto viaDaemon = daemonCall(daemon.address(), kInfoMethod, reply.size());
    const auto viaEcho = [&](int) {
        std::string answer;
        return rawCall(echoAddress, frame, answer) && answer.size() == reply.size();
    };
    Figures d1, e1, d8, e8;
    measurePair(viaDaemon, viaEcho, 1, s.seconds, d1, e1);
    measurePair(viaDaemon, viaEcho, 8, s.seconds, d8, e8);
    const std::string subject = "daemon: " + std::string(kInfoMethod);
    report.rows.push_back(row("bus round trip, 1 caller (us)", subject, d1, "raw AF_UNIX echo", e1));
    report.rows.push_back(row("bus round trip, 8 callers (us)", subject, d8, "raw AF_UNIX echo", e8));
    report.rows.push_back(cpuRow(subject, cpuPerCall(daemon.process().pid(), viaDaemon, 8, s.seconds),
                                 "raw AF_UNIX echo", cpuPerCall(echo->pid(), viaEcho, 8, s.seconds)));
    report.goals.push_back({"bus round trip <= 1.2x raw echo (median, 1 caller)", d1.median / e1.median, 1.2, true,
                            "daemon " + micros(d1.median) + " / raw " + micros(e1.median) + failures(d1, e1)});
    char rates[96];
    std::snprintf(rates, sizeof rates, "daemon %.0f/s / raw %.0f/s", d8.rate, e8.rate);
    report.goals.push_back({"bus calls/s with 8 callers >= 0.8x raw echo", d8.rate / e8.rate, 0.8, false,
                            rates + failures(d8, e8)});
    measureDbus(s, reply, viaDaemon, report, d1);
    measureBusBreakdown(s, reply, viaEcho, echo->pid(), report);
    echo.reset();
    daemon.process().stop();
}

// ---- device ---------------------------------------------------------------------------------

void measureDevice(const Settings& s, const Devsim& plain, const Devsim& tls, Report& report)
{
    const char method[] = "get_device_rsyslog_config";
    Daemon httpDaemon(s.programs, macAddress(2));
    Daemon httpsDaemon(s.programs, macAddress(3));
    if (!httpDaemon.ready() || !httpsDaemon.ready())
        throw std::runtime_error("the daemons did not answer on the bus");
    httpDaemon.signin(plain);
    httpsDaemon.signin(tls);
    BareClient bareHttp(plain, 8);
    BareClient bareHttps(tls, 8);
    const auto viaHttp = daemonCall(httpDaemon.address(), method, 0);
    const auto viaHttps = daemonCall(httpsDaemon.address(), method, 0);
    std::string reply;
    if (!busCall(httpsDaemon.address(), method, "{}", &reply) || reply.find("\"server\"") == std::string::npos)
        throw std::runtime_error(std::string(method) + " through the daemon failed: \"" + reply + "\"");
    const auto http = [&](int) { return bareHttp.callHttp(); };
    const auto resumed = [&](int slot) { return bareHttps.callResumed(slot); };
    const auto full = [&](int) { return bareHttps.callFullHandshake(); };

    for (int callers : {1, 8}) {
        Figures d, b;
        const std::string n = callers == 1 ? "1 caller" : "8 callers";
        measurePair(viaHttp, http, callers, s.seconds, d, b);
        report.rows.push_back(row("device call HTTP, " + n + " (us)", "daemon: " + std::string(method), d,
                                  "bare POCO, connection per call", b));
        measurePair(viaHttps, resumed, callers, s.seconds, d, b);
        report.rows.push_back(row("device call HTTPS, " + n + " (us)", "daemon: " + std::string(method), d,
                                  "bare POCO, resumed TLS session", b));
    }
    Figures d, f;
    measurePair(viaHttps, full, 1, s.seconds, d, f);
    report.rows.push_back(row("device call HTTPS, 1 caller (us)", "daemon: " + std::string(method), d,
                              "bare POCO, full handshake per call", f));
    report.goals.push_back({"HTTPS device call <= 0.4x a full handshake per request (median)", d.median / f.median,
                            0.4, true, "daemon " + micros(d.median) + " / full handshake " + micros(f.median) +
                                           failures(d, f)});
    report.notes.push_back("bare resumed HTTPS client: " + std::to_string(bareHttps.resumed()) +
                           " calls reused their TLS session");
    httpDaemon.process().stop();
    httpsDaemon.process().stop();
}

// ---- footprint ------------------------------------------------------------------------------

void settle()
{
    // Let start-up work (threads, lazy allocations) finish before memory is read.
    std::this_thread::sleep_for(milliseconds(300));
}

Row memoryRow(const std::string& figure, long value, long base)
{
    Figures v, b;
    v.median = static_cast<double>(value);
    b.median = static_cast<double>(base);
    Row r = row(figure, "daemon, signed in (HTTPS), idle", v, "bare POCO process after one HTTPS request", b);
    r.hasRate = false;
    r.hasP99 = false;
    return r;
}

Figures pssOf(const std::vector<pid_t>& pids, double& meanKb)
{
    std::vector<double> values;
    double total = 0;
    for (pid_t pid : pids) {
        const Memory m = readMemory(pid);
        values.push_back(static_cast<double>(m.pssKb));
        total += static_cast<double>(m.pssKb);
    }
    meanKb = pids.empty() ? 0 : total / static_cast<double>(pids.size());
    return summarize(values);
}

std::vector<std::unique_ptr<Process>> startIdlePeers(const Settings& s, const Devsim& tls, int count)
{
    std::vector<std::unique_ptr<Process>> peers;
    for (int i = 0; i < count; ++i)
        peers.push_back(startPeer({s.programs.peer, "idle", tls.url("/orvex/v1/rsyslog/config")}));
    return peers;
}

void measureFootprint(const Settings& s, const Devsim& tls, Report& report)
{
    std::vector<std::unique_ptr<Process>> peers = startIdlePeers(s, tls, 1);
    settle();
    const Memory bare = readMemory(peers[0]->pid());
    peers.clear();

    std::vector<std::unique_ptr<Daemon>> daemons;
    daemons.emplace_back(new Daemon(s.programs, macAddress(100)));
    if (!daemons[0]->ready())
        throw std::runtime_error("the daemon did not answer on the bus");
    daemons[0]->signin(tls);
    settle();
    const Memory alone = readMemory(daemons[0]->process().pid());
    report.rows.push_back(memoryRow("one process alone: RSS (KB)", alone.rssKb, bare.rssKb));
    report.rows.push_back(memoryRow("one process alone: PSS (KB)", alone.pssKb, bare.pssKb));
    report.rows.push_back(memoryRow("one process alone: private (KB)", alone.privateKb, bare.privateKb));

    for (int i = 1; i < s.daemons; ++i)
        daemons.emplace_back(new Daemon(s.programs, macAddress(100 + i)));
    std::vector<pid_t> pids;
    for (auto& d : daemons) {
        if (!d->ready())
            throw std::runtime_error("daemon " + d->mac() + " did not answer on the bus");
        if (d.get() != daemons[0].get())
            d->signin(tls);
        pids.push_back(d->process().pid());
    }
    settle();
    double daemonMean = 0;
    const Figures daemonPss = pssOf(pids, daemonMean);
    daemons.clear();

    peers = startIdlePeers(s, tls, s.daemons);
    pids.clear();
    for (auto& p : peers)
        pids.push_back(p->pid());
    settle();
    double bareMean = 0;
    const Figures barePss = pssOf(pids, bareMean);
    peers.clear();

    const std::string n = std::to_string(s.daemons);
    Row r = row("PSS per process, " + n + " running (KB)", "daemon, signed in (HTTPS), idle", daemonPss,
                "bare POCO process after one HTTPS request", barePss);
    r.hasRate = false;
    report.rows.push_back(r);
    char figures[128];
    std::snprintf(figures, sizeof figures, "mean PSS %.0f KB per daemon, %.0f KB per bare POCO process (%s running)",
                  daemonMean, bareMean, n.c_str());
    report.goals.push_back({"<= 2 MB PSS per signed-in daemon with " + n + " running (KB, mean)", daemonMean, 2048,
                            true, figures});
}

// ---- start-up -------------------------------------------------------------------------------

double launchUntilAnswer(const std::vector<std::string>& argv, const std::string& address)
{
    const auto start = Clock::now();
    Process process(argv);
    const bool ok = waitForAnswer(address, milliseconds(5000));
    const double elapsed = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    process.stop();
    return ok ? elapsed : -1;
}

void measureStartup(const Settings& s, Report& report)
{
    const std::string mac = macAddress(200);
    const std::string echoAddress = "@orvex-bench-start";
    std::vector<double> daemon, bare;
    long failed = 0;
    // Interleaved, so that load from elsewhere falls on both alike.
    for (int i = 0; i < s.launches; ++i) {
        const double d = launchUntilAnswer({s.programs.daemon, "-m", mac, "-d"}, busAddressOf(mac));
        const double b = launchUntilAnswer({s.programs.peer, "echo", echoAddress, "{}"}, echoAddress);
        failed += (d < 0) + (b < 0);
        if (d >= 0)
            daemon.push_back(d);
        if (b >= 0)
            bare.push_back(b);
    }
    const Figures d = summarize(daemon, 0, failed);
    const Figures b = summarize(bare);
    Row r = row("launch to answering on the bus, " + std::to_string(s.launches) + " launches (ms)",
                "orvex-session -d", d, "bare POCO listener (same libraries)", b);
    r.hasRate = false;
    report.rows.push_back(r);
    char figures[128];
    std::snprintf(figures, sizeof figures, "median %.2f ms, p99 %.2f ms; bare POCO listener %.2f ms; failed launches %ld",
                  d.median, d.p99, b.median, failed);
    report.goals.push_back({"ready on the bus <= 20 ms after launch (median, ms)", failed ? NAN : d.median, 20, true,
                            figures});
}

// ---- main -------------------------------------------------------------------------------

std::string loadAverage()
{
    std::ifstream in("/proc/loadavg");
    std::string a, b, c;
    in >> a >> b >> c;
    return a + " " + b + " " + c;
}

bool parseArguments(int argc, char** argv, Settings& s)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        const std::string value = argv[i + 1];
        if (key == "--seconds")
            s.seconds = std::max(0.2, std::atof(value.c_str()));
        else if (key == "--launches")
            s.launches = std::max(1, std::atoi(value.c_str()));
        else if (key == "--daemons")
            s.daemons = std::max(1, std::atoi(value.c_str()));
        else if (key == "--markdown")
            s.markdown = value;
        else if (key == "--daemon")
            s.programs.daemon = value;
        else if (key == "--devsim")
            s.programs.devsim = value;
        else if (key == "--peer")
            s.programs.peer = value;
        else if (key == "--dbus-peer")
            s.programs.dbusPeer = value;
        else if (key == "--dbus-daemon")
            s.programs.dbusDaemon = value;
        else
            return false;
    }
    return argc % 2 == 1;
}

std::string render(const Settings& s, const Report& report, const std::string& loadBefore)
{
    std::ostringstream out;
    out << "Machine: " << std::thread::hardware_concurrency() << " CPUs; load average before " << loadBefore
        << ", after " << loadAverage() << ". " << s.seconds << " s per measured pair, alternating in 4 slices; "
        << "latencies in microseconds unless the figure says otherwise.\n\n";
    out << formatTable(report.rows) << "\n";
    for (const Goal& g : report.goals)
        out << formatGoal(g) << "\n";
    for (const std::string& n : report.notes)
        out << "note: " << n << "\n";
    return out.str();
}

template <typename F>
void runPart(const char* name, F part, Report& report, bool& broken)
{
    std::fprintf(stderr, "orvex_daemon_bench: %s...\n", name);
    try {
        part();
    } catch (const std::exception& e) {
        report.notes.push_back(std::string(name) + " could not run: " + e.what());
        broken = true;
    }
}

int run(int argc, char** argv)
{
    Settings s;
#ifdef ORVEX_BENCH_PROGRAMS
    s.programs = {ORVEX_BENCH_DAEMON, ORVEX_BENCH_DEVSIM, ORVEX_BENCH_PEER, ORVEX_BENCH_DBUS_PEER, "/usr/bin/dbus-daemon"};
#endif
    if (!parseArguments(argc, argv, s)) {
        std::fputs("usage: orvex_daemon_bench [--seconds S] [--launches N] [--daemons N] [--markdown FILE] "
                   "[--daemon P] [--devsim P] [--peer P] [--dbus-peer P] [--dbus-daemon P]\n", stderr);
        return 2;
    }
    if (std::getenv("ORVEX_ISOLATED") == nullptr || std::string(std::getenv("ORVEX_ISOLATED")) != "1") {
        std::fputs("orvex_daemon_bench: starts daemons; run it under tests/isolate.sh (bench/run.sh does)\n", stderr);
        return 77;
    }
    if (!s.programs.dbusDaemon.empty() && access(s.programs.dbusDaemon.c_str(), X_OK) != 0)
        s.programs.dbusDaemon.clear();
    Poco::Net::initializeSSL();
    const std::string loadBefore = loadAverage();
    Report report;
    bool broken = false;
    {
        Devsim plain(s.programs, false);
        Devsim tls(s.programs, true);
        runPart("bus", [&] { measureBus(s, plain, report); }, report, broken);
        runPart("device", [&] { measureDevice(s, plain, tls, report); }, report, broken);
        runPart("footprint", [&] { measureFootprint(s, tls, report); }, report, broken);
        runPart("start-up", [&] { measureStartup(s, report); }, report, broken);
    }
    const std::string text = render(s, report, loadBefore);
    std::fputs(text.c_str(), stdout);
    if (!s.markdown.empty())
        std::ofstream(s.markdown) << text;
    bool allPass = !broken;
    for (const Goal& g : report.goals)
        allPass = allPass && (g.skipped || passes(g));
    return allPass ? 0 : 1;
}

}  // namespace

}  // namespace Bench
}  // namespace Orvex

int main(int argc, char** argv)
{
    try {
        return Orvex::Bench::run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orvex_daemon_bench: %s\n", e.what());
        return 1;
    }
}
