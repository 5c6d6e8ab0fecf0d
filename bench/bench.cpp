// orvex_bench: the session daemon measured as a whole, each figure beside a bare baseline
// from the same run (see README.md). Prints one Markdown table and a PASS/FAIL line per
// goal; exit status 1 when a goal fails or a part cannot run, 77 outside tests/isolate.sh.
//
//   orvex_bench [--seconds S] [--launches N] [--devices N] [--idle S] [--markdown FILE]
//   orvex_bench echo|direct|worker|dbus ADDRESS REPLY | idle PORT    (its own peers)
#include "bench/bench.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>
#include <thread>
#include <tuple>

#include <Poco/Net/NetSSL.h>

#include "tests/support/daemon.h"

namespace Orvex::Bench {

namespace {

using Clock = std::chrono::steady_clock;
using Test::Child;
using Test::Spawn;
const char kInfo[] = "get_device_system_info";

// A peer of this program (see peerMain), up once `answers` holds.
std::unique_ptr<Child> startPeer(const Settings& s, std::vector<std::string> args, const std::function<bool()>& answers)
{
    args.insert(args.begin(), s.self);
    auto peer = std::make_unique<Child>(command(args));
    if (!Test::waitFor([&] { return answers() || !peer->running(); }) || !peer->running())
        throw std::runtime_error("peer " + args[1] + " did not come up");
    return peer;
}

bool busAnswers(const std::string& address)
{
    return Test::busCall(address, "ready-probe", "{}", -1, 1).rc == 0;
}

Call busCaller(const std::string& address, size_t replySize)
{
    return [address, replySize](int) {
        Test::BusReply r = Test::busCall(address, kInfo, "{}", -1, 10);
        return r.rc == 0 && r.body.size() == replySize;
    };
}

// Server CPU time per call while 8 callers call (alternating with `other`).
Figures cpuPerCall(pid_t server, const Call& call, const Call& other, double seconds)
{
    const double before = runSecondsOf(server);
    Figures a, b;
    measurePair(call, other, 8, seconds, a, b);
    return single(a.rate > 0 ? (runSecondsOf(server) - before) * 1e6 / (a.rate * seconds) : NAN);
}

void signin(Test::Daemon& daemon, const Test::Devsim& device)
{
    if (!daemon.ready())
        throw std::runtime_error("orvex-session " + daemon.mac() + " did not answer on the bus");
    Test::BusReply r = daemon.call("signin", device.signinArgs());
    if (r.rc != 0 || r.body.find("error_code") != std::string::npos)
        throw std::runtime_error("signin of " + daemon.mac() + " failed: " + r.body);
}

void measureDbus(const Settings& s, const std::string& reply, const Call& daemon, const Call& jsonFloor,
                 Report& report)
{
    Test::TempDir dir;
    std::ofstream(dir.file("bus.conf"))
        << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n<busconfig><type>session</type>"
        << "<listen>unix:path=" << dir.file("bus") << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
        << "<allow send_destination=\"*\"/><allow receive_sender=\"*\"/><allow own=\"*\"/></policy></busconfig>\n";
    Child dbusDaemon(command({"/usr/bin/dbus-daemon", "--config-file=" + dir.file("bus.conf"), "--nofork"}));
    const std::string address = "unix:path=" + dir.file("bus");
    Test::waitFor([&] { return access(dir.file("bus").c_str(), F_OK) == 0; });
    const Call once = [&](int) {
        sd_bus* bus = dbusConnect(address);
        const bool ok = bus && dbusCall(bus, reply.size());
        sd_bus_flush_close_unref(bus);
        return ok;
    };
    auto peer = startPeer(s, {"dbus", address, reply}, [&] { return once(0); });
    // sd_bus_start only begins the handshake; one call finishes it now, or dbus-daemon drops
    // the connections still authenticating once its auth timeout passes (in runs of long pairs).
    struct Close {
        void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
    };
    std::vector<std::unique_ptr<sd_bus, Close>> kept;
    for (int i = 0; i < 8; ++i) {
        kept.emplace_back(dbusConnect(address));
        if (!kept.back() || !dbusCall(kept.back().get(), reply.size()))
            throw std::runtime_error("a kept D-Bus connection did not come up");
    }
    const Call persistent = [&](int slot) { return dbusCall(kept[static_cast<size_t>(slot)].get(), reply.size()); };
    Figures d1, oneShot, d2, keptOne, d8, keptEight;
    measurePair(daemon, once, 1, s.seconds, d1, oneShot);
    measurePair(daemon, persistent, 1, s.seconds, d2, keptOne);
    measurePair(daemon, persistent, 8, s.seconds, d8, keptEight);
    // The floor of the one-shot goal: the least a call through the bus library with jansson costs.
    Figures floor1, floorOneShot;
    measurePair(jsonFloor, once, 1, s.seconds, floor1, floorOneShot);
    report.row("bus round trip, 1 caller (us)", "daemon", d1, "D-Bus, new connection per call", oneShot);
    report.row("bus round trip, 1 caller (us)", "bus library + the call's JSON work", floor1,
               "D-Bus, new connection per call", floorOneShot);
    report.row("bus round trip, 1 caller (us)", "daemon", d2, "D-Bus, kept connection", keptOne);
    report.row("bus round trip, 8 callers (us)", "daemon", d8, "D-Bus, kept connections", keptEight);
    report.goal("bus round trip at least 5x faster than one-shot D-Bus", oneShot.median / d1.median, 5, false,
                format("one-shot D-Bus %.1f us / daemon %.1f us", oneShot.median, d1.median));
    report.goal("bus round trip <= 0.8x a kept D-Bus connection (median, 1 caller)", d2.median / keptOne.median, 0.8,
                true, format("daemon %.1f us / kept D-Bus connection %.1f us", d2.median, keptOne.median));
}

// Where the daemon's round trip goes: the zs_call client on the raw echo, the bus library
// replying on its loop thread (no service layer), and the same with the JSON work every
// call needs (the floor of a daemon call with jansson).
void measureBreakdown(const Settings& s, const std::string& reply, const Call& viaEcho, pid_t echo, pid_t json,
                      Report& report)
{
    auto direct = startPeer(s, {"direct", "@orvex-bench-direct", reply}, [] { return busAnswers("@orvex-bench-direct"); });
    const std::pair<std::string, Call> subjects[] = {
        {"zs_call client to the raw echo", busCaller("@orvex-bench-echo", reply.size())},
        {"bus library, reply on the loop thread", busCaller("@orvex-bench-direct", reply.size())},
        {"bus library + the call's JSON work", busCaller("@orvex-bench-json", reply.size())}};
    for (int callers : {1, 8})
        for (const auto& [name, call] : subjects) {
            Figures a, b;
            measurePair(call, viaEcho, callers, s.seconds / 2, a, b);
            report.row(format("breakdown, %d caller%s (us)", callers, callers > 1 ? "s" : ""), name, a,
                       "raw AF_UNIX echo", b);
        }
    // The daemon's own server CPU row minus the second of these is what its service layer costs.
    for (const auto& [name, call, pid] : {std::tuple(subjects[1].first, subjects[1].second, direct->pid()),
                                         std::tuple(subjects[2].first, subjects[2].second, json)})
        report.row("server CPU per call, 8 callers (us)", name, cpuPerCall(pid, call, viaEcho, s.seconds / 2),
                   "raw AF_UNIX echo", cpuPerCall(echo, viaEcho, call, s.seconds / 2));
}

void measureBus(const Settings& s, const Test::Devsim& device, Report& report)
{
    Test::Daemon daemon("02:00:00:00:00:01");
    signin(daemon, device);
    const std::string reply = daemon.call(kInfo).body;
    const std::string frame = Test::callFrame(kInfo, "{}");
    const Call viaEcho = [&](int) {
        std::string answer;
        return rawCall("@orvex-bench-echo", frame, answer) && answer.size() == reply.size();
    };
    auto echo = startPeer(s, {"echo", "@orvex-bench-echo", reply}, [&] { return viaEcho(0); });
    const Call viaDaemon = busCaller(Test::busAddress(daemon.mac()), reply.size());
    Figures d1, e1, d8, e8;
    measurePair(viaDaemon, viaEcho, 1, s.seconds, d1, e1);
    measurePair(viaDaemon, viaEcho, 8, s.seconds, d8, e8);
    const std::string subject = std::string("daemon: ") + kInfo;
    report.row("bus round trip, 1 caller (us)", subject, d1, "raw AF_UNIX echo", e1);
    report.row("bus round trip, 8 callers (us)", subject, d8, "raw AF_UNIX echo", e8);
    report.row("server CPU per call, 8 callers (us)", subject,
               cpuPerCall(daemon.process().pid(), viaDaemon, viaEcho, s.seconds), "raw AF_UNIX echo",
               cpuPerCall(echo->pid(), viaEcho, viaDaemon, s.seconds));
    report.goal("bus round trip <= 1.2x raw echo (median, 1 caller)", d1.median / e1.median, 1.2, true,
                format("daemon %.1f us / raw %.1f us", d1.median, e1.median));
    report.goal("bus calls/s with 8 callers >= 0.8x raw echo", d8.rate / e8.rate, 0.8, false,
                format("daemon %.0f/s / raw %.0f/s", d8.rate, e8.rate));
    auto json = startPeer(s, {"json", "@orvex-bench-json", reply}, [] { return busAnswers("@orvex-bench-json"); });
    const Call viaFloor = busCaller("@orvex-bench-json", reply.size());
    // The daemon against the floor of a daemon call in one pair: what its service layer adds
    // to the work the contract asks of every call.
    Figures df, ff;
    measurePair(viaDaemon, viaFloor, 8, s.seconds, df, ff);
    report.row("bus round trip, 8 callers (us)", subject, df, "bus library + the call's JSON work", ff);
    measureDbus(s, reply, viaDaemon, viaFloor, report);
    measureBreakdown(s, reply, viaEcho, echo->pid(), json->pid(), report);
}

void measureDevice(const Settings& s, const Test::Devsim& plain, const Test::Devsim& tls, Report& report)
{
    const char method[] = "get_device_rsyslog_config";
    Test::Daemon httpDaemon("02:00:00:00:00:02"), httpsDaemon("02:00:00:00:00:03");
    signin(httpDaemon, plain);
    signin(httpsDaemon, tls);
    auto viaDaemon = [method](const Test::Daemon& d) {
        const std::string address = Test::busAddress(d.mac());
        return [address, method](int) {
            Test::BusReply r = Test::busCall(address, method, "{}", -1, 30);
            return r.rc == 0 && r.body.find("\"server\"") != std::string::npos;
        };
    };
    auto context = clientContext(true);
    std::vector<std::unique_ptr<BareDevice>> bareHttp, bareHttps;
    for (int i = 0; i < 8; ++i) {
        bareHttp.push_back(std::make_unique<BareDevice>(plain.port(), false, context));
        bareHttps.push_back(std::make_unique<BareDevice>(tls.port(), true, context));
        if (!bareHttp.back()->signin() || !bareHttps.back()->signin())
            throw std::runtime_error("the bare client could not sign in to the simulator");
    }
    const Call http = [&](int slot) { return bareHttp[static_cast<size_t>(slot)]->readConfig(); };
    const Call resumed = [&](int slot) { return bareHttps[static_cast<size_t>(slot)]->readConfig(); };
    const Call full = [&](int) { return bareHttps[0]->readConfig(true); };
    const std::string subject = std::string("daemon: ") + method;
    for (int callers : {1, 8}) {
        Figures d, b;
        const std::string n = callers == 1 ? "1 caller" : "8 callers";
        measurePair(viaDaemon(httpDaemon), http, callers, s.seconds, d, b);
        report.row("device call HTTP, " + n + " (us)", subject, d, "bare POCO, connection per call", b);
        measurePair(viaDaemon(httpsDaemon), resumed, callers, s.seconds, d, b);
        report.row("device call HTTPS, " + n + " (us)", subject, d, "bare POCO, resumed TLS session", b);
    }
    Figures d, f;
    measurePair(viaDaemon(httpsDaemon), full, 1, s.seconds, d, f);
    report.row("device call HTTPS, 1 caller (us)", subject, d, "bare POCO, full handshake per call", f);
    report.goal("HTTPS device call <= 0.4x a full handshake per request (median)", d.median / f.median, 0.4, true,
                format("daemon %.1f us / full handshake %.1f us", d.median, f.median));
    long reused = 0;
    for (auto& b : bareHttps)
        reused += b->resumed;
    report.note(format("bare resumed HTTPS client: %ld calls reused their TLS session", reused));
}

void measureFootprint(const Settings& s, const Test::Devsim& tls, Report& report)
{
    Test::Daemon daemon("02:00:00:00:00:04");
    signin(daemon, tls);
    Test::TempDir dir;
    auto bare = idlePeer(s, tls.port(), dir.file("out"));
    Test::waitFor([&] { return !Test::readFile(dir.file("out")).empty(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // lazy start-up work settles
    const Memory d = memoryOf(daemon.process().pid()), b = memoryOf(bare->pid());
    const std::pair<const char*, std::pair<long, long>> figures[] = {
        {"RSS", {d.rssKb, b.rssKb}}, {"PSS", {d.pssKb, b.pssKb}}, {"private", {d.privateKb, b.privateKb}}};
    for (const auto& [name, values] : figures)
        report.row(format("one process alone: %s (KB)", name), "daemon, signed in (HTTPS), idle",
                   single(static_cast<double>(values.first)), "bare POCO process after one HTTPS sign-in",
                   single(static_cast<double>(values.second)));
}

void measureStartup(const Settings& s, Report& report)
{
    const std::string mac = "02:00:00:00:00:05";
    std::vector<double> daemon, bare;
    long failed = 0;
    const Spawn daemonLaunch = command({Test::daemonBinary(), "-d", "-m", mac});
    const Spawn bareLaunch = command({s.self, "echo", "@orvex-bench-start", "{}"});
    for (int i = 0; i < s.launches; ++i) {  // interleaved: load from elsewhere falls on both alike
        const double d = launch(daemonLaunch, Test::busAddress(mac));
        const double b = launch(bareLaunch, "@orvex-bench-start");
        failed += std::isnan(d) + std::isnan(b);
        if (!std::isnan(d))
            daemon.push_back(d);
        if (!std::isnan(b))
            bare.push_back(b);
    }
    const Figures fd = summarize(daemon, 0, failed), fb = summarize(bare);
    report.row(format("launch to answering on the bus, %d launches (ms)", s.launches), "orvex-session -d", fd,
               "bare POCO-linked AF_UNIX listener", fb);
    report.goal("ready on the bus <= 20 ms after launch (median, ms)", failed ? NAN : fd.median, 20, true,
                format("median %.2f ms, p99 %.2f ms; bare listener %.2f ms; failed launches %ld", fd.median, fd.p99,
                       fb.median, failed));
}

bool parseArguments(int argc, char** argv, Settings& s, std::string& markdown)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string key = argv[i];
        const char* value = argv[i + 1];
        if (key == "--seconds")
            s.seconds = std::max(0.2, std::atof(value));
        else if (key == "--launches")
            s.launches = std::max(1, std::atoi(value));
        else if (key == "--devices")
            s.devices = std::max(1, std::atoi(value));
        else if (key == "--idle")
            s.idleSeconds = std::max(1, std::atoi(value));
        else if (key == "--markdown")
            markdown = value;
        else if (key == "--only")
            s.only = value;
        else
            return false;
    }
    return argc % 2 == 1;
}

template <typename F>
void runPart(const Settings& s, const char* name, F part, Report& report)
{
    if (!s.only.empty() && s.only != name)
        return;
    std::fprintf(stderr, "orvex_bench: %s...\n", name);
    try {
        part();
    } catch (const std::exception& e) {
        report.note(std::string(name) + " could not run: " + e.what());
        report.ok = false;
    }
}

int run(int argc, char** argv)
{
    Settings s;
    std::string markdown;
    if (!parseArguments(argc, argv, s, markdown)) {
        std::fputs("usage: orvex_bench [--seconds S] [--launches N] [--devices N] [--idle S] [--only PART] [--markdown FILE]\n",
                   stderr);
        return 2;
    }
    if (!Test::isolated()) {
        std::fputs("orvex_bench: starts daemons; run it under tests/isolate.sh (bench/run.sh does)\n", stderr);
        return 77;
    }
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    s.self.assign(self, n > 0 ? static_cast<size_t>(n) : 0);
    Poco::Net::initializeSSL();
    const std::string loadBefore = loadAverage();
    Report report;
    {
        Test::Devsim plain("token", false), tls("token", true);
        runPart(s, "bus", [&] { measureBus(s, plain, report); }, report);
        runPart(s, "device", [&] { measureDevice(s, plain, tls, report); }, report);
        runPart(s, "footprint", [&] { measureFootprint(s, tls, report); }, report);
        runPart(s, "start-up", [&] { measureStartup(s, report); }, report);
    }
    Test::killSessions();
    for (int i = 1; i <= 5; ++i)  // so that orvexctl list sees the fleet alone
        unlink(Test::lockPath(format("02:00:00:00:00:%02d", i)).c_str());
    runPart(s, "fleet", [&] { measureFleet(s, report); }, report);
    Test::killSessions();
    runPart(s, "fleet-commands", [&] { measureFleetCommands(s, report); }, report);
    Test::killSessions();
    const std::string text = format("Machine: %u CPUs; load average before %s, after %s. %.1f s per measured pair, "
                                    "alternating in 4 slices; fleet of %d devices, idle %d s.\n\n",
                                    std::thread::hardware_concurrency(), loadBefore.c_str(), loadAverage().c_str(),
                                    s.seconds, s.devices, s.idleSeconds) + report.text();
    std::fputs(text.c_str(), stdout);
    if (!markdown.empty())
        std::ofstream(markdown) << text;
    return report.ok ? 0 : 1;
}

}  // namespace

// Launch until the bus answers (an unknown method is answered by the bus thread at once).
double launch(const Test::Spawn& spawn, const std::string& address)
{
    const auto begin = Clock::now();
    Test::Child child(spawn);
    while (!busAnswers(address)) {
        if (!child.running() || Clock::now() - begin > std::chrono::seconds(5))
            return NAN;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

}  // namespace Orvex::Bench

int main(int argc, char** argv)
{
    if (argc > 1 && argv[1][0] != '-')
        return Orvex::Bench::peerMain(argc, argv);
    try {
        return Orvex::Bench::run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orvex_bench: %s\n", e.what());
        return 1;
    }
}
