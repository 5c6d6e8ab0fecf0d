#include "client/control.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <stdexcept>
#include <thread>

#include <Poco/Process.h>

#include "common/exceptions.h"
#include "common/misc.h"
#include "common/paths.h"
#include "common/raii.h"
#include "common/trace.h"
#include "client/fleet.h"
#include "client/lockfile.h"
#include "service/misc.h"
#include "zservice/channel.h"

namespace Orvex {
namespace Control {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// A signout that has not answered by then is taken as hung: the session bounds its one
// device exchange to 10 s.
constexpr int kSignoutTimeout = 15;
constexpr milliseconds kServingLimit{5000};

// The system's dump: the reply encoder's flags and channel writer.
void dumpInto(json_t* value, zs_io* buffer)
{
    if (value)
        json_dump_callback(value, &detail::jsonWriteIoCallback, buffer, ORVEX_JSON_FLAGS);
}

void replaceWithReply(json_t* target, zs_io* buffer)
{
    JsonRef reply = JsonRef::adopt(json_loadb(zs_io_read(buffer, 0), zs_io_size(buffer), 0, nullptr));
    json_object_clear(target);
    if (json_is_object(reply.get()))
        json_object_update(target, reply.get());
}

int busCall(const std::string& mac, const char* method, zs_io* buffer, int timeout)
{
    return zs_call(Paths::busAddress(mac).c_str(), method, buffer, timeout, -1);
}

void callDevice(const std::string& mac, const char* method, zs_io* buffer, int timeout)
{
    if (busCall(mac, method, buffer, timeout) == 0)
        return;
    if (errno == ETIMEDOUT)
        throw NoAnswer(mac, 0);
    throw SessionNotFound(mac, 0);
}

// Whether pid is the process holding the MAC's lock, which is the session's.
bool isSessionOf(const std::string& mac, pid_t pid)
{
    SessionInfo info;
    return findSession(mac, info) && info.running() && info.pid == pid;
}

// Any reply counts, an unknown method's 404 included: it is answered by the loop itself.
// A probe that finds nobody listening costs a failed connect; at most 8 ms between probes
// keeps a start from waiting long for a daemon that is already serving (on a loaded
// machine launches take tens of milliseconds). A listener that is not the session (it
// bound the address first) will not start answering: the next step names it.
void waitUntilServing(const std::string& mac, milliseconds limit)
{
    auto deadline = Clock::now() + std::min(kServingLimit, limit);
    milliseconds pause{1};
    for (;;) {
        pid_t pid = 0;
        uid_t uid = 0;
        bool listening = zs_listener(Paths::busAddress(mac).c_str(), &pid, &uid) == 0;
        if (listening && !isSessionOf(mac, pid))
            return;
        ZsIoPtr probe = makeZsIo();
        if ((listening && busCall(mac, "ping", probe.get(), 1) == 0) || Clock::now() > deadline)
            return;
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, milliseconds(8));
    }
}

// The sign-in carries the password: it goes to the MAC's session process or nowhere. A
// listener that is not that process (one who bound the address first) is named instead.
void requireSessionListening(const std::string& mac)
{
    const std::string address = Paths::busAddress(mac);
    pid_t pid = 0;
    uid_t uid = 0;
    if (zs_listener(address.c_str(), &pid, &uid) != 0 || isSessionOf(mac, pid))
        return;  // nobody listens (the call tells that), or the session does
    throw BusSquatter(strformat("the bus address %s is held by pid %d of uid %u, not by a session process for MAC %s: "
                                "nothing sent",
        address.c_str(), static_cast<int>(pid), static_cast<unsigned>(uid), mac.c_str()));
}

// A session found to stop, and what is reported about it.
struct Target {
    Ended ended;
    SessionProcess process;
};

void sendTerm(const SessionProcess& process)
{
    process.signal(SIGTERM);
    // A stopped process would keep the signal pending forever.
    process.signal(SIGCONT);
}

bool waitGone(const std::vector<Target>& targets, milliseconds limit)
{
    auto deadline = Clock::now() + limit;
    for (;;) {
        bool all = true;
        for (const Target& t : targets)
            all = all && !t.process.running();
        if (all || Clock::now() > deadline)
            return all;
        std::this_thread::sleep_for(milliseconds(20));
    }
}

// SIGTERM, grace, SIGKILL, then a short wait for the kernel to finish them. Each signal
// goes to the process found or to none (SessionProcess).
StopReport terminate(std::vector<Target> targets, milliseconds grace)
{
    StopReport report;
    for (Target& t : targets) {
        t.ended.how = "SIGTERM";
        sendTerm(t.process);
    }
    if (!waitGone(targets, grace)) {
        for (Target& t : targets)
            if (t.process.signal(SIGKILL))
                t.ended.how = "SIGKILL";
        waitGone(targets, milliseconds(2000));
    }
    for (const Target& t : targets) {
        const bool survived = t.process.running();
        // A killed session could not record its end: the stop does it, whoever asked for it.
        if (!survived && t.ended.how == "SIGKILL" && !t.ended.mac.empty())
            recordKilled(t.ended.mac, t.ended.pid, "SIGKILL after the stop's grace period");
        (survived ? report.survivors : report.ended).push_back(t.ended);
    }
    return report;
}

// lsof -t on the program file, where Debian (/usr/bin) or others (/usr/sbin) keep it.
std::vector<pid_t> lsofPids()
{
    std::vector<pid_t> pids;
    for (const char* lsof : {"/usr/bin/lsof", "/usr/sbin/lsof"}) {
        if (::access(lsof, X_OK) != 0)
            continue;
        std::string command = std::string(lsof) + " -t " + Paths::kDaemonPath + " 2>/dev/null";
        FILE* pipe = ::popen(command.c_str(), "r");
        if (!pipe)
            break;
        int pid;
        while (std::fscanf(pipe, "%d", &pid) == 1)
            pids.push_back(pid);
        ::pclose(pipe);
        break;
    }
    return pids;
}

// Something else holding the program file open (a copy, a debugger) is left alone.
std::vector<Target> sessionProcesses()
{
    std::vector<Target> targets;
    std::set<pid_t> seen;
    auto add = [&](const std::string& mac, pid_t pid) {
        if (pid <= 0 || !seen.insert(pid).second)
            return;
        if (SessionProcess process = SessionProcess::find(pid))
            targets.push_back(Target{Ended{mac, pid, ""}, std::move(process)});
    };
    for (const SessionInfo& s : listSessions())
        add(s.mac, s.pid);
    for (pid_t pid : lsofPids())
        add("", pid);
    return targets;
}

// The running process for the MAC, 0 when none.
pid_t sessionPid(const std::string& mac, bool& stopped)
{
    SessionInfo info;
    if (!findSession(mac, info) || !info.running())
        return 0;
    stopped = info.suspended;
    return info.pid;
}

}  // namespace

void start(json_t*& out, const DeviceOption& opt)
{
    start(out, opt, LaunchOptions{});
}

void start(json_t*& out, const DeviceOption& opt, const LaunchOptions& launch)
{
    ORVEX_TRACE();
    if (opt.mac.empty())
        throw SessionNotFound(opt.mac, 0);
    Poco::Process::Args args{"-m", opt.mac};
    if (launch.level >= 0)
        args.insert(args.end(), {"-l", std::to_string(launch.level)});
    // The program detaches itself, so the wait ends when its first half exits.
    Poco::ProcessHandle handle = Poco::Process::launch(Paths::kDaemonPath, args);
    handle.wait();
    waitUntilServing(opt.mac, std::chrono::seconds(launch.timeoutSeconds));
    requireSessionListening(opt.mac);
    ZsIoPtr buffer = makeZsIo();
    JsonRef signin = JsonRef::adopt(json_pack("{ss si sb ss ss}", "ip", opt.ip.c_str(), "port", opt.port, "secure",
        opt.secure, "user", opt.user.c_str(), "pass", opt.pass.c_str()));
    dumpInto(signin.get(), buffer.get());
    signin.reset();
    callDevice(opt.mac, "signin", buffer.get(), launch.timeoutSeconds);
    replaceWithReply(out, buffer.get());
}

void stop()
{
    ORVEX_TRACE();
    stopAll(kDefaultGrace);
}

StopReport stopAll(milliseconds grace)
{
    return terminate(sessionProcesses(), grace);
}

void stop(json_t*&, const MacOption& opt)
{
    ORVEX_TRACE();
    if (opt.mac.empty())
        throw SessionNotFound(opt.mac, 0);
    stopOne(opt.mac, kDefaultGrace);
}

StopReport stopOne(const std::string& mac, milliseconds grace)
{
    bool stopped = false;
    // Found before the sign-out, which ends it: only this process is signalled later.
    SessionProcess process = SessionProcess::find(sessionPid(mac, stopped));
    ZsIoPtr buffer = makeZsIo();
    // A process stopped by a signal cannot answer: no need to wait for the time-out.
    bool answered = !stopped && busCall(mac, "signout", buffer.get(), kSignoutTimeout) == 0;
    if (!answered && !process)
        throw SessionNotFound(mac, 0);
    std::vector<Target> target;
    target.push_back(Target{Ended{mac, process.pid(), "signout"}, std::move(process)});
    StopReport report;
    if (!target[0].process || (answered && waitGone(target, grace))) {
        report.ended.push_back(target[0].ended);
        return report;
    }
    return terminate(std::move(target), grace);
}

void call(json_t*& inout, const DeviceOption& opt, const std::string& method)
{
    ORVEX_TRACE();
    call(inout, opt, method, kCallTimeoutSeconds);
}

void call(json_t*& inout, const DeviceOption& opt, const std::string& method, int timeoutSeconds)
{
    ORVEX_TRACE();
    if (opt.mac.empty())
        throw SessionNotFound(opt.mac, 0);
    ZsIoPtr buffer = makeZsIo();
    dumpInto(inout, buffer.get());
    callDevice(opt.mac, method.c_str(), buffer.get(), timeoutSeconds);
    replaceWithReply(inout, buffer.get());
}

}  // namespace Control
}  // namespace Orvex
