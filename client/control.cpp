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

// Any reply counts, an unknown method's 404 included: it is answered by the loop itself.
// A probe that finds nobody listening costs a failed connect; at most 8 ms between probes
// keeps a start from waiting long for a daemon that is already serving (on a loaded
// machine launches take tens of milliseconds).
void waitUntilServing(const std::string& mac, milliseconds limit)
{
    auto deadline = Clock::now() + std::min(kServingLimit, limit);
    milliseconds pause{1};
    for (;;) {
        ZsIoPtr probe = makeZsIo();
        if (busCall(mac, "ping", probe.get(), 1) == 0 || Clock::now() > deadline)
            return;
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, milliseconds(8));
    }
}

void sendTerm(pid_t pid)
{
    ::kill(pid, SIGTERM);
    // A stopped process would keep the signal pending forever.
    ::kill(pid, SIGCONT);
}

bool waitGone(const std::vector<Ended>& targets, milliseconds limit)
{
    auto deadline = Clock::now() + limit;
    for (;;) {
        bool all = true;
        for (const Ended& t : targets)
            all = all && processGone(t.pid);
        if (all || Clock::now() > deadline)
            return all;
        std::this_thread::sleep_for(milliseconds(20));
    }
}

// SIGTERM, grace, SIGKILL, then a short wait for the kernel to finish them.
StopReport terminate(std::vector<Ended> targets, milliseconds grace)
{
    StopReport report;
    for (Ended& t : targets) {
        t.how = "SIGTERM";
        sendTerm(t.pid);
    }
    if (!waitGone(targets, grace)) {
        for (Ended& t : targets)
            if (!processGone(t.pid)) {
                t.how = "SIGKILL";
                ::kill(t.pid, SIGKILL);
            }
        waitGone(targets, milliseconds(2000));
    }
    for (const Ended& t : targets)
        (processGone(t.pid) ? report.ended : report.survivors).push_back(t);
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

std::vector<Ended> sessionProcesses()
{
    std::vector<Ended> targets;
    std::set<pid_t> seen;
    for (const SessionInfo& s : listSessions())
        if (s.pid > 0 && !processGone(s.pid) && isSessionProcess(s.pid) && seen.insert(s.pid).second)
            targets.push_back(Ended{s.mac, s.pid, ""});
    // Something else holding the file open (a copy, a debugger) is left alone.
    for (pid_t pid : lsofPids())
        if (isSessionProcess(pid) && seen.insert(pid).second)
            targets.push_back(Ended{"", pid, ""});
    return targets;
}

// The running process for the MAC, 0 when none.
pid_t sessionPid(const std::string& mac, bool& stopped)
{
    SessionInfo info;
    if (!findSession(mac, info) || !info.running() || !isSessionProcess(info.pid))
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
    pid_t pid = sessionPid(mac, stopped);
    ZsIoPtr buffer = makeZsIo();
    // A process stopped by a signal cannot answer: no need to wait for the time-out.
    bool answered = !stopped && busCall(mac, "signout", buffer.get(), kSignoutTimeout) == 0;
    if (!answered && pid == 0)
        throw SessionNotFound(mac, 0);
    std::vector<Ended> target{Ended{mac, pid, "signout"}};
    StopReport report;
    if (pid == 0 || (answered && waitGone(target, grace))) {
        report.ended = target;
        return report;
    }
    return terminate(target, grace);
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
