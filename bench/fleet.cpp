// The fleet: one orvex-devsim playing N devices of both families; N sessions started with
// orvexctl (16 at a time), signed in, read, changed, left idle for two keep-alive periods,
// listed and stopped; beside a bare POCO client doing the same device requests with the
// same parallelism, and N bare POCO processes for the memory figures. And the fleet
// commands (start --from, call --all) beside a shell loop of one orvexctl per device.
#include "bench/bench.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <fstream>
#include <memory>
#include <numeric>
#include <thread>

#include "common/paths.h"
#include "tests/support/daemon.h"

namespace Orvex::Bench {

namespace {

using Clock = std::chrono::steady_clock;
using Test::Child;

double since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string fleetMac(int i)
{
    return format("02:00:00:01:%02x:%02x", (i >> 8) & 0xff, i & 0xff);
}

// Runs job(i) for every i < n on `parallel` threads; returns the wall time in seconds and
// adds the jobs that returned false to failed.
double inParallel(int n, int parallel, const std::function<bool(int)>& job, long& failed)
{
    std::atomic<int> next{0};
    std::atomic<long> failures{0};
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int t = 0; t < parallel; ++t)
        threads.emplace_back([&] {
            for (int i; (i = next++) < n;)
                failures += job(i) ? 0 : 1;
        });
    for (auto& thread : threads)
        thread.join();
    failed += failures;
    return since(start);
}

double mean(const std::vector<double>& values)
{
    return std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
}

// The run time each process's threads use while this waits `seconds` (NaN for one that has
// ended), and the seconds waited. Run times, not utime and stime: a keep-alive tick costs
// about a millisecond, far below their clock-tick resolution.
std::vector<double> runSecondsOver(const std::vector<pid_t>& pids, int seconds, double& waited)
{
    std::vector<double> used;
    for (pid_t pid : pids)
        used.push_back(runSecondsOf(pid));
    const auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    waited = since(start);
    for (size_t i = 0; i < pids.size(); ++i)
        used[i] = kill(pids[i], 0) == 0 ? runSecondsOf(pids[i]) - used[i] : NAN;
    return used;
}

// N bare POCO processes, each idle after one HTTPS sign-in and request (it prints "ready"
// then): PSS and threads per process with as many running, their CPU (% of one core) over
// the idle time, in which each makes the exchanges of a daemon's keep-alive ticks, and the
// time to end them.
double bareProcesses(const Settings& s, const std::vector<int>& ports, std::vector<double>& pss,
                     std::vector<double>& threads, double& idleCpu)
{
    Test::TempDir dir;
    std::vector<std::unique_ptr<Child>> peers;
    for (size_t i = 0; i < ports.size(); ++i)
        peers.push_back(idlePeer(s, ports[i], dir.file(std::to_string(i))));
    for (size_t i = 0; i < ports.size(); ++i)
        Test::waitFor([&] { return !Test::readFile(dir.file(std::to_string(i))).empty() || !peers[i]->running(); },
                      std::chrono::seconds(60));
    std::vector<pid_t> pids;
    for (auto& peer : peers) {
        pids.push_back(peer->pid());
        pss.push_back(static_cast<double>(memoryOf(peer->pid()).pssKb));
        threads.push_back(static_cast<double>(threadsOf(peer->pid())));
    }
    double waited = 0, used = 0;
    for (double seconds : runSecondsOver(pids, s.idleSeconds, waited))
        used += std::isnan(seconds) ? 0 : seconds;
    idleCpu = 100 * used / waited;
    const auto start = Clock::now();
    for (auto& peer : peers)
        peer->signal(SIGTERM);
    for (auto& peer : peers)
        peer->wait(std::chrono::seconds(10));
    return since(start);
}

}  // namespace

void measureFleet(const Settings& s, Report& report)
{
    const std::string ctl = Test::ctlBinary();
    if (access(Paths::kDaemonPath, X_OK) != 0)
        throw std::runtime_error(std::string("no ") + Paths::kDaemonPath +
                                 " in the namespace (bench/run.sh copies it there)");
    const int n = s.devices;
    std::unique_ptr<Child> devsim;
    const std::vector<int> ports = Test::startFleet(static_cast<size_t>(n), devsim, true);
    std::vector<std::unique_ptr<BareDevice>> bare;
    for (int port : ports)
        bare.push_back(std::make_unique<BareDevice>(port, true, clientContext(true)));
    auto call = [](int i, const char* method, const std::string& body) {
        Test::BusReply reply = Test::sessionCall(fleetMac(i), method, body, -1, 30);
        return reply.rc == 0 && reply.body.find("error_code") == std::string::npos;
    };
    const std::pair<std::string, std::pair<Call, Call>> phases[] = {
        {"start and sign in", {[&](int i) { return bare[static_cast<size_t>(i)]->signin(); }, [&](int i) {
             return Test::run({ctl, "start", fleetMac(i), "--ip", "127.0.0.1", "--port",
                               std::to_string(ports[static_cast<size_t>(i)]), "--user", "admin", "--secure"},
                              {"ORVEX_PASS=secret"}).status == 0;
         }}},
        {"read (get_device_rsyslog_config)", {[&](int i) { return bare[static_cast<size_t>(i)]->readConfig(); },
                                              [&](int i) { return call(i, "get_device_rsyslog_config", "{}"); }}},
        {"change (set_device_rsyslog_client_config)",
         {[&](int i) { return bare[static_cast<size_t>(i)]->changeConfig(); },
          [&](int i) { return call(i, "set_device_rsyslog_client_config", "{\"bsd\":true,\"orvex\":false}"); }}}};
    double startBare = 0, startFleet = 0;
    for (const auto& [name, jobs] : phases) {
        long bareFailed = 0, fleetFailed = 0;
        const double b = inParallel(n, s.parallel, jobs.first, bareFailed);
        const double f = inParallel(n, s.parallel, jobs.second, fleetFailed);
        report.row(format("fleet %s, %d devices, %d at a time (s)", name.c_str(), n, s.parallel),
                   "orvexctl + daemons", single(f), "bare POCO client, same requests", single(b));
        if (bareFailed || fleetFailed)
            report.note(format("fleet %s: %ld failed for the daemons, %ld for the bare client", name.c_str(),
                               fleetFailed, bareFailed));
        if (startFleet == 0) {
            startBare = b;
            startFleet = fleetFailed ? NAN : f;
        }
    }
    // The floor of the start phase: as many bare POCO-linked listeners, launched with the
    // same parallelism until each answers (no orvexctl, no detach, no sign-in).
    long launchFailed = 0;
    const double launches = inParallel(n, s.parallel, [&](int i) {
        const std::string address = format("@orvex-bench-floor-%d", i);
        return !std::isnan(launch(command({s.self, "echo", address, "{}"}), address));
    }, launchFailed);
    report.row(format("launch %d bare listeners until each answers, %d at a time (s)", n, s.parallel),
               "bare POCO-linked AF_UNIX listener", single(launchFailed ? NAN : launches),
               "bare POCO client, the start phase's requests", single(startBare));
    report.goal(format("start and sign in %d sessions <= 10 s (s)", n), startFleet, 10, true,
                format("%.2f s for %d sessions", startFleet, n));
    report.goal(format("start and sign in %d sessions <= 2x the bare client", n), startFleet / startBare, 2, true,
                format("daemons %.2f s / bare client %.2f s", startFleet, startBare));

    std::vector<pid_t> pids;
    std::vector<double> pss, threads;
    for (int i = 0; i < n; ++i)
        if (pid_t pid = Test::lockHolder(fleetMac(i))) {
            pids.push_back(pid);
            pss.push_back(static_cast<double>(memoryOf(pid).pssKb));
            threads.push_back(static_cast<double>(threadsOf(pid)));
        }
    if (static_cast<int>(pids.size()) != n)
        report.note(format("fleet: %zu of %d session processes running after the changes", pids.size(), n));

    // Idle: the CPU every session process uses over two keep-alive periods, and the
    // simulator's for answering their keep-alive checks (the last one watched).
    std::vector<pid_t> watched = pids;
    watched.push_back(devsim->pid());
    double idle = 0;
    const std::vector<double> idleUse = runSecondsOver(watched, s.idleSeconds, idle);
    double used = 0;
    size_t alive = 0;
    for (size_t i = 0; i < pids.size(); ++i)
        if (!std::isnan(idleUse[i])) {
            ++alive;
            used += idleUse[i];
        }
    report.row(format("fleet idle CPU, %d s (%% of one core)", s.idleSeconds), format("%zu daemons", alive),
               single(100 * used / idle), "the simulator answering their keep-alive checks",
               single(100 * idleUse.back() / idle));
    report.goal(format("fleet idle CPU, %d sessions, %d s idle <= 1 %% of one core", n, s.idleSeconds),
                pids.empty() || alive != pids.size() ? NAN : 100 * used / idle, 1, true,
                format("%.2f CPU-s in %.0f s; %zu of %zu sessions alive after it", used, idle, alive, pids.size()));

    // list, beside the least it has to do: read every lock file and test its lock.
    auto start = Clock::now();
    const int listStatus = Test::run({ctl, "list"}).status;
    const double list = since(start) * 1000;
    start = Clock::now();
    for (int i = 0; i < n; ++i)
        Test::lockHolder(fleetMac(i));
    report.row(format("orvexctl list, %d sessions (ms)", n), format("orvexctl list (exit %d)", listStatus),
               single(list), "reading the lock files and testing their locks", single(since(start) * 1000));

    start = Clock::now();
    const int stopStatus = Test::run({ctl, "stop", "--all"}).status;
    auto survivors = [&] {
        long count = 0;
        for (pid_t pid : pids)
            count += kill(pid, 0) == 0 ? 1 : 0;
        return count;
    };
    Test::waitFor([&] { return survivors() == 0; }, std::chrono::seconds(60));
    const double stop = since(start);
    if (stopStatus != 0 || survivors())
        report.note(format("orvexctl stop --all exited %d; %ld sessions outlived it", stopStatus, survivors()));
    Test::killSessions();

    std::vector<double> barePss, bareThreads;
    double bareIdle = 0;
    const double bareStop = bareProcesses(s, ports, barePss, bareThreads, bareIdle);
    report.row(format("fleet idle CPU, %d s (%% of one core)", s.idleSeconds), format("%zu daemons", alive),
               single(100 * used / idle), format("%d bare POCO processes making the ticks' exchanges", n),
               single(bareIdle));
    report.row(format("fleet stop, %d sessions (s)", n), "orvexctl stop --all until every process ended",
               single(stop), "SIGTERM to as many bare POCO processes", single(bareStop));
    report.row(format("PSS per process, %d running (KB)", n), "daemon, signed in (HTTPS), idle", summarize(pss),
               "bare POCO process after one HTTPS sign-in", summarize(barePss));
    report.row(format("threads per process, %d running", n), "daemon", summarize(threads), "bare POCO process",
               summarize(bareThreads));
    report.goal(format("PSS per signed-in daemon with %d running <= 1.2 MB (KB, mean)", n), mean(pss), 1.2 * 1024,
                true, format("mean %.0f KB per daemon, %.0f KB per bare POCO process", mean(pss), mean(barePss)));
    const double most = threads.empty() ? NAN : *std::max_element(threads.begin(), threads.end());
    report.goal("threads per daemon <= 3 (most in the fleet)", most, 3, true,
                format("median %.0f, most %.0f", summarize(threads).median, most));
}

namespace {

// One shell command to its end (as root, with the password in ORVEX_PASS); its seconds, or
// NaN when it failed.
double timedShell(const std::string& script, int& status)
{
    const auto start = Clock::now();
    status = Test::run({"/bin/bash", "-c", script}, {"ORVEX_PASS=secret"}, "", std::chrono::seconds(1200)).status;
    return status == 0 ? since(start) : NAN;
}

}  // namespace

// The fleet commands against what an operator runs without them: a shell loop of one
// orvexctl per device, on the same file of N devices.
void measureFleetCommands(const Settings& s, Report& report)
{
    const std::string ctl = Test::ctlBinary();
    const int n = s.devices;
    std::unique_ptr<Child> devsim;
    const std::vector<int> ports = Test::startFleet(static_cast<size_t>(n), devsim, true);
    Test::TempDir dir;
    std::string devices;
    for (int i = 0; i < n; ++i)
        devices += format("%s 127.0.0.1 %d admin secure\n", fleetMac(i).c_str(), ports[static_cast<size_t>(i)]);
    std::ofstream(dir.file("devices")) << devices;
    const std::string file = dir.file("devices"), change = "'{\"bsd\":true,\"orvex\":false}'";
    const std::string loopStart = "while read mac ip port user secure; do " + ctl +
                                  " start \"$mac\" --ip \"$ip\" --port \"$port\" --user \"$user\" --secure >/dev/null "
                                  "|| exit 1; done < " + file;
    const std::string loopCall = "while read mac rest; do " + ctl + " call \"$mac\" set_device_rsyslog_client_config " +
                                 change + " >/dev/null || exit 1; done < " + file;
    int status[6] = {};
    const double shellStart = timedShell(loopStart, status[0]);
    const double shellCall = timedShell(loopCall, status[1]);
    const double callAll = timedShell(ctl + " call --all set_device_rsyslog_client_config " + change + " >/dev/null", status[2]);
    timedShell(ctl + " stop --all >/dev/null", status[3]);
    const double startFrom = timedShell(ctl + " start --from " + file + " >/dev/null", status[4]);
    timedShell(ctl + " stop --all >/dev/null", status[5]);
    Test::killSessions();
    report.row(format("fleet start from a file, %d devices (s)", n), "orvexctl start --from (8 at a time)",
               single(startFrom), "shell loop of orvexctl start", single(shellStart));
    report.row(format("fleet call, %d sessions (s)", n), "orvexctl call --all (8 at a time)", single(callAll),
               "shell loop of orvexctl call", single(shellCall));
    for (int i = 0; i < 6; ++i)
        if (status[i] != 0)
            report.note(format("fleet commands: step %d of 6 exited %d", i + 1, status[i]));
}

}  // namespace Orvex::Bench
