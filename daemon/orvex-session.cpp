// orvex-session: the per-device session daemon. One process serves one remote device,
// named by its MAC address, on the service bus at "@/var/run/orvex/orvex-session@<mac>".
//
//   orvex-session -m|--mac MAC [-d|--debug] [-l|--level N] [--unit]
//   orvex-session --help | --version
//
// Exit status: 0 after an orderly stop (SIGINT/SIGTERM), the signout method or a call that
// failed with a session error, also for the starter of a detaching run once the MAC is
// valid, and for --help and --version; 1 for an invalid MAC, a lock held by another
// instance or any other start-up failure, and when the session ends itself on the
// keep-alive (idle, dead) or a stop outlasts its bound. With --unit (the template unit's
// instance) 10 instead of 0 after the signout method, and 6 when it has nothing to sign
// in with (daemon/unit_instance.h).
//
// How the process ended is the last record of its status file, on every path, the
// immediate _exit ones included (common/ending.h), and a line of the log.
#include <fcntl.h>
#include <getopt.h>
#include <malloc.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <jansson.h>

#include <memory>

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/Exception.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/Message.h>
#include <Poco/Mutex.h>
#include <Poco/PatternFormatter.h>
#include <Poco/SharedPtr.h>
#include <Poco/Timer.h>
#include <Poco/Timestamp.h>

#include "common/ending.h"
#include "common/misc.h"
#include "common/paths.h"
#include "common/shared_log.h"
#include "common/trace.h"
#include "common/version.h"
#include "client/lockfile.h"
#include "daemon/notify.h"
#include "daemon/status_keeper.h"
#include "daemon/unit_instance.h"
#include "methods/service_session.h"
#include "service/service.h"
#include "session/session.h"
#include "zservice/zservice.h"

namespace Orvex {

namespace {

// Every line names the device and the process, since all sessions share one log: "%s"
// is the MAC, %P the pid.
constexpr const char* kLogPattern = "%%L%%Y-%%m-%%d %%H:%%M:%%S,%%i [%%p] [%s %%P] %%t";
constexpr long kKeepAliveStartMs = 30000;
constexpr long kKeepAlivePeriodMs = 60000;
// The shutdown steps after SIGTERM (sign-out included, whose device exchanges are each
// bounded) must end by then, or the process ends without them.
constexpr unsigned kShutdownLimitSeconds = 30;
// One serves the bus and runs its calls; the other takes over while a call lasts.
constexpr int kBusThreads = 2;

const char* const kUsage =
    "usage: orvex-session -m|--mac MAC [-d|--debug] [-l|--level N] [--unit]\n"
    "       orvex-session --help | --version\n"
    "Serves one remote storage device, named by its MAC address (six hex pairs joined by\n"
    "':'), on the service bus at @/var/run/orvex/orvex-session@MAC.\n"
    "  -m, --mac MAC    the device (required)\n"
    "  -d, --debug      stay in the foreground and log to the console\n"
    "  -l, --level N    log level 0 (off) to 8 (trace), default 6\n"
    "      --unit       run as the instance of the unit orvex-session@MAC (with -d): sign\n"
    "                   in with the settings of orvexctl enable and the unit's password\n"
    "                   credential, retrying while the device is down\n"
    "  -h, --help       this text\n"
    "      --version    the version\n"
    "Exit status:\n"
    "  0  after SIGINT or SIGTERM, the signout method or a call that failed with a session\n"
    "     error; for the starter of a detaching run once the MAC is valid\n"
    "  1  invalid MAC, lock file held or refused, another start-up failure; the session\n"
    "     ended itself (idle over its limit, dead on the device), or a stop took over 30 s\n"
    "  6  with --unit: no usable settings, and nobody signed the instance in\n"
    "  10 with --unit: after the signout method (instead of 0)\n";

struct Options {
    std::string mac;
    bool debug = false;
    int32_t level = 6;
    bool help = false;
    bool version = false;
    bool unit = false;
};

// Read by onSignal on the bus loop thread; set once before the loop starts.
zs* g_bus = nullptr;
// Set once the status file is kept; read by the end paths, signal handlers included.
std::atomic<StatusKeeper*> g_keeper{nullptr};
// The signal that asked for the orderly stop, 0 while none did.
std::atomic<int> g_stopSignal{0};

const char* signalName(int signo)
{
    switch (signo) {
    case SIGTERM: return "SIGTERM";
    case SIGINT: return "SIGINT";
    case SIGSEGV: return "SIGSEGV";
    case SIGBUS: return "SIGBUS";
    case SIGILL: return "SIGILL";
    case SIGFPE: return "SIGFPE";
    case SIGABRT: return "SIGABRT";
    default: return "a signal";
    }
}

// The last record of the status file and a line of the log; once, in the daemon itself.
void recordEnd(const char* state, bool abnormal, const std::string& reason)
{
    StatusKeeper* keeper = g_keeper.load();
    if (keeper == nullptr || !keeper->end(state, abnormal, reason))
        return;
    std::string line = strformat("[Session] process %d ends, %s: %s", int(::getpid()), state, reason.c_str());
    if (abnormal)
        Poco::Logger::root().warning(line);
    else
        Poco::Logger::root().information(line);
}

// A failed sign-in's reason names its cause, as the status had it.
std::string withSigninCause(const std::string& detail)
{
    StatusKeeper* keeper = g_keeper.load();
    std::string cause = keeper != nullptr && detail.rfind("signin:", 0) == 0 ? keeper->failure() : "";
    return cause.empty() ? detail : detail + " (" + cause + ")";
}

// The steps that end the process at once (common/ending.h).
void onEnding(Ending::Why why, const std::string& detail)
{
    switch (why) {
    case Ending::Why::Signout:
        return recordEnd("stopped", false, "signout");
    case Ending::Why::Idle:
        return recordEnd("ended", false, "timeout (" + detail + ")");
    case Ending::Why::DeadSession:
        return recordEnd("ended", true, "not signin (no live session with the device)");
    case Ending::Why::SessionError:
        return recordEnd("ended", true, withSigninCause(detail));
    case Ending::Why::NotConfigured:
        return recordEnd("ended", true, detail);
    }
}

// A fatal signal: recorded as a crash, then the default action (a core where enabled).
void onFatalSignal(int signo)
{
    if (StatusKeeper* keeper = g_keeper.load())
        keeper->endFromSignal("crashed", true, signalName(signo));
    ::raise(signo);
}

void catchFatalSignals()
{
    struct sigaction action{};
    action.sa_handler = onFatalSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESETHAND;
    for (int signo : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT})
        sigaction(signo, &action, nullptr);
}

}  // namespace

void beginShutdown();

void onSignal(int signo)
{
    int none = 0;
    if (g_stopSignal.compare_exchange_strong(none, signo))
        Poco::Logger::root().information(strformat("[Session] %s received: stopping", signalName(signo)));
    beginShutdown();
    zs_stop(g_bus);
}

void onKeepAlive(void*)
{
    Service::getInstance().tick();
}

void onHandler(const char* method, zs_io* io, int fd)
{
    Service::getInstance().dispatch(method, io, fd);
}

namespace {

// Above 8, and negative values seen as unsigned, mean "everything"; text means "off".
int32_t parseLevel(const char* text)
{
    long value = std::strtol(text, nullptr, 10);
    if (static_cast<unsigned long>(value) > 8)
        return 8;
    return static_cast<int32_t>(value);
}

Options parseCommandLine(int argc, char** argv)
{
    static const struct option longOptions[] = {
        {"mac", required_argument, nullptr, 'm'},
        {"debug", no_argument, nullptr, 'd'},
        {"level", required_argument, nullptr, 'l'},
        {"help", no_argument, nullptr, 'h'},
        {"version", no_argument, nullptr, 'V'},
        {"unit", no_argument, nullptr, 'U'},
        {nullptr, 0, nullptr, 0},
    };
    Options options;
    int c;
    // Unknown options and missing arguments are ignored on purpose.
    while ((c = getopt_long(argc, argv, ":m:dl:h", longOptions, nullptr)) != -1) {
        if (c == 'm')
            options.mac = Paths::normaliseMac(optarg);
        else if (c == 'h')
            options.help = true;
        else if (c == 'V')
            options.version = true;
        else if (c == 'd')
            options.debug = true;
        else if (c == 'U')
            options.unit = true;
        else if (c == 'l')
            options.level = parseLevel(optarg);
    }
    return options;
}

void checkMac(const std::string& mac)
{
    if (!Paths::validMac(mac)) {
        std::fputs("invalid mac address\n", stderr);
        std::exit(1);
    }
}

void redirectStandardStreams()
{
    if (!std::freopen("/dev/null", "w", stdout) || !std::freopen("/dev/null", "w", stderr) ||
        !std::freopen("/dev/null", "r", stdin))
        _exit(1);
    if (chdir("/") != 0)
        _exit(1);
    // Not 0: nothing this process creates may be writable by others.
    umask(022);
}

// Double fork: the starter returns 0 as soon as the first child is gone, and the daemon
// (the grandchild) belongs to init, so nobody has to reap it.
void detach()
{
    pid_t child = fork();
    if (child < 0)
        std::exit(1);
    if (child > 0) {
        waitpid(child, nullptr, 0);
        std::exit(0);
    }
    pid_t grandchild = fork();
    if (grandchild != 0)
        _exit(grandchild < 0 ? 1 : 0);
    redirectStandardStreams();
    // A manager's socket inherited from whoever started us (root's shell, a unit's
    // ExecStartPre) is not ours: only a session in the foreground (-d) is a unit's process.
    Notify::disown();
}

Poco::AutoPtr<Poco::Channel> makeChannel(bool debug)
{
    if (debug)
        return new Poco::ConsoleChannel;
    try {
        return openSessionLog();
    } catch (const Poco::Exception& e) {
        std::fprintf(stderr, "orvex-session cannot open the log: %s.\n", e.message().c_str());
        std::exit(1);
    }
}

// Stamps each line as it is written, one line at a time: lines that the process's two
// loop threads log side by side then stand in the shared log in the order of their times.
class InOrderChannel : public Poco::Channel {
public:
    explicit InOrderChannel(Poco::AutoPtr<Poco::Channel> next) : next_(std::move(next)) {}
    void log(const Poco::Message& message) override
    {
        Poco::FastMutex::ScopedLock lock(mutex_);
        Poco::Message stamped(message);
        stamped.setTime(Poco::Timestamp());
        next_->log(stamped);
    }

private:
    Poco::AutoPtr<Poco::Channel> next_;
    Poco::FastMutex mutex_;
};

void setupLogging(const Options& options)
{
    Poco::AutoPtr<Poco::PatternFormatter> formatter(new Poco::PatternFormatter);
    formatter->setProperty("pattern", strformat(kLogPattern, options.mac.c_str()));
    Poco::AutoPtr<Poco::Channel> channel(new InOrderChannel(
        Poco::AutoPtr<Poco::Channel>(new Poco::FormattingChannel(formatter, makeChannel(options.debug)))));
    Poco::Logger& root = Poco::Logger::root();
    root.setChannel(channel);
    root.setLevel(options.level);
}

struct MethodEntry {
    const char* name;
    const char* help;
    Function function;
    TicktockQueue::TickTock ticktock;
};

// Reading methods are TICK, changing methods TOCK; the order is the listing order.
void registerMethods()
{
    ORVEX_TRACE();
#define ORVEX_METHOD_ENTRY(method, ticktock) {#method, __##method##__, &method, TicktockQueue::ticktock},
    const MethodEntry table[] = {ORVEX_SESSION_METHODS(ORVEX_METHOD_ENTRY)};
#undef ORVEX_METHOD_ENTRY
    for (const MethodEntry& entry : table) {
        Poco::SharedPtr<Endpoint> endpoint(
            new Endpoint{true, entry.help, nullptr, entry.function, entry.ticktock});
        Service::addEndpoint(Service::WORKER_THREAD, entry.ticktock, entry.name, "", endpoint);
    }
}

// Standard error is /dev/null once detached: the log file keeps the line too.
void tell(const Options& options, const std::string& line, Poco::Message::Priority priority)
{
    std::fputs(line.c_str(), stderr);
    if (!options.debug)
        Poco::Logger::root().log(Poco::Message("", line.substr(0, line.find('\n')), priority));
}

// One instance per MAC: the lock is held until shutdown, and the file keeps our pid.
std::unique_ptr<LockFile> takeLock(const Options& options)
{
    try {
        auto lock = std::make_unique<LockFile>(Paths::lockPath(options.mac));
        if (!lock->replaced().empty())
            tell(options, lock->replaced(), Poco::Message::PRIO_WARNING);
        return lock;
    } catch (const LockError& e) {
        tell(options, e.what(), Poco::Message::PRIO_ERROR);
        std::exit(1);
    }
}

void connectBus(const std::string& mac)
{
    zs_signal(SIGINT, onSignal);
    zs_signal(SIGTERM, onSignal);
    std::string serviceName = Paths::serviceName(mac);
    std::string address = Paths::busAddress(mac);
    g_bus = zs_create(address.c_str(), 4, 1, onHandler);
    if (!g_bus) {
        // Without the bus nobody can reach this process; do not linger as a silent no-op.
        std::fprintf(stderr, "orvex-session cannot serve on %s.\n", address.c_str());
        Poco::Logger::root().error(strformat("[%s] cannot serve on %s", serviceName.c_str(), address.c_str()));
        recordEnd("ended", true, "cannot serve on " + address);
        std::exit(1);
    }
}

// The session's tick (unless the unit instance's own sign-in still tries), then the
// status file's last-use time.
class KeepAlive {
public:
    KeepAlive(Session& session, StatusKeeper& status, UnitInstance* unit)
        : session_(session), status_(status), unit_(unit)
    {
    }
    void tick(Poco::Timer& timer)
    {
        if (unit_ == nullptr || unit_->tickMayRun())
            session_.alive(timer);
        status_.refresh();
    }

private:
    Session& session_;
    StatusKeeper& status_;
    UnitInstance* unit_;
};

// A worker still finishing a call after shutdown may call the observer after run() has
// returned: the keeper lives on.
void observeSession(Session& session, StatusKeeper* status)
{
    session.setObserver([status](const SessionStatus& now) {
        status->update(now);
        Notify::status(describe(now));
    });
}

void onShutdownLimit(int)
{
    if (StatusKeeper* keeper = g_keeper.load())
        keeper->endFromSignal("ended", true, "stop took over 30 s");
    _exit(1);
}

// Bounds the shutdown steps: SIGTERM must end the process whatever the device does.
void limitShutdown()
{
    std::signal(SIGALRM, onShutdownLimit);
    alarm(kShutdownLimitSeconds);
}

}  // namespace

// Once, from the signal or after the bus stopped otherwise: the calls still queued are
// answered at once instead of run, and the whole shutdown is bounded from here on.
void beginShutdown()
{
    static std::atomic<bool> begun{false};
    if (begun.exchange(true))
        return;
    Notify::stopping();
    limitShutdown();
    Service::getInstance().stop();
}

namespace {

void shutdown(Session& session, std::unique_ptr<LockFile>& lock)
{
    beginShutdown();
    try {
        session.signout();
    } catch (const Poco::Exception& e) {
        // The device may be gone already; the remaining steps must still run.
        Poco::Logger::root().warning(strformat("[Session] signout: %s", e.message().c_str()));
    } catch (const std::exception& e) {
        Poco::Logger::root().warning(strformat("[Session] signout: %s", e.what()));
    }
    zs_free(g_bus);
    g_bus = nullptr;
    session.setObserver(nullptr);
    const int signo = g_stopSignal.load();
    if (signo != 0)
        recordEnd("stopped", false, signalName(signo));
    else
        recordEnd("ended", true, "the bus loop failed");
    Poco::Logger::shutdown();
    lock.reset();
}

int run(int argc, char** argv)
{
    // The device password lives in our memory: no core file, and no process of our user
    // without CAP_SYS_PTRACE (/proc/PID/mem, environ, ptrace) may read it.
    prctl(PR_SET_DUMPABLE, 0);
    json_object_seed(0);
    Options options = parseCommandLine(argc, argv);
    if (options.help || options.version) {
        std::fputs(options.help ? kUsage : (std::string("orvex-session ") + version() + "\n").c_str(), stdout);
        return 0;
    }
    checkMac(options.mac);
    if (!options.debug)
        detach();
    setupLogging(options);
    // The session (and with it OpenSSL) before the service: exit handlers run in reverse,
    // so the service joins its worker threads while OpenSSL can still free what each
    // thread holds, and OpenSSL's own clean-up comes last.
    Session& session = Session::getInstance();
    Service::setServiceName(Paths::serviceName(options.mac));
    registerMethods();
    std::unique_ptr<LockFile> lock = takeLock(options);
    // Never freed: the end paths (signal and exit handlers included) may use it last. A
    // service manager's unit instance is marked: its lines go to the journal.
    auto* status = new StatusKeeper(options.mac, std::getenv("INVOCATION_ID") != nullptr);
    g_keeper.store(status);
    Ending::install(onEnding);
    catchFatalSignals();
    // After the keeper: an instance that cannot use its settings ends with a record.
    std::unique_ptr<UnitInstance> unit =
        options.unit ? std::make_unique<UnitInstance>(options.mac, session) : nullptr;
    connectBus(options.mac);
    observeSession(session, status);
    KeepAlive keepAlive(session, *status, unit.get());
    // Calls run on the bus's loop threads: the one serving the bus runs what it reads, and
    // the other takes the bus over only while a call (or tick) lasts; the keep-alive ticks
    // come from the bus's timer and run between the calls. The Poco timer only holds the
    // schedule that alive() is given.
    Poco::Timer timer(kKeepAliveStartMs, kKeepAlivePeriodMs);
    Service& service = Service::getInstance();
    service.runCallsOnBusThreads();
    service.setTick([&keepAlive, &timer] { keepAlive.tick(timer); });
    zs_timer(g_bus, int(timer.getStartInterval()), int(timer.getPeriodicInterval()), onKeepAlive, nullptr);
    service.start();
    // The listening socket exists since connectBus: a caller from now on is served.
    Notify::ready();
    if (unit)
        unit->start();
    zs_start_threads(g_bus, kBusThreads);
    if (unit)
        unit->stop();
    shutdown(session, lock);
    return 0;
}

}  // namespace

}  // namespace Orvex

int main(int argc, char** argv)
{
    // One malloc arena: the worker thread's own arena would hold a few hundred KB of
    // mostly empty pages per process, and a thousand processes run side by side.
    mallopt(M_ARENA_MAX, 1);
    try {
        return Orvex::run(argc, argv);
    } catch (const Poco::Exception& e) {
        Poco::Logger::root().fatal(
            Orvex::strformat("%s:%d, %s %s", Orvex::trace::baseName(__FILE__), __LINE__, __PRETTY_FUNCTION__, e.message().c_str()));
        Orvex::recordEnd("ended", true, e.message());
    } catch (const std::exception& e) {
        Poco::Logger::root().fatal(
            Orvex::strformat("%s:%d, %s %s", Orvex::trace::baseName(__FILE__), __LINE__, __PRETTY_FUNCTION__, e.what()));
        Orvex::recordEnd("ended", true, e.what());
    }
    std::exit(1);
}
