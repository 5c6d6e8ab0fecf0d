// orvex-session: the per-device session daemon. One process serves one remote device,
// named by its MAC address, on the service bus at "@/var/run/orvex/orvex-session@<mac>".
//
//   orvex-session -m|--mac MAC [-d|--debug] [-l|--level N]
//
// Exit status: 0 after an orderly stop (SIGINT/SIGTERM), also for the starter of a
// detaching run once the MAC is valid; 1 for an invalid MAC, a lock held by another
// instance or any other start-up failure.
#include <fcntl.h>
#include <getopt.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <jansson.h>

#include <Poco/AutoPtr.h>
#include <Poco/ConsoleChannel.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/Path.h>
#include <Poco/PatternFormatter.h>
#include <Poco/RegularExpression.h>
#include <Poco/SharedPtr.h>
#include <Poco/String.h>
#include <Poco/Timer.h>

#include "common/misc.h"
#include "common/trace.h"
#include "methods/service_session.h"
#include "service/service.h"
#include "session/session.h"
#include "zservice/zservice.h"

namespace Orvex {

namespace {

constexpr const char* kProgram = "orvex-session";
constexpr const char* kBusDirectory = "/var/run/orvex";
constexpr const char* kLockFormat = "/var/lock/orvex-session@%s.pid";
constexpr const char* kLogPath = "/var/log/orvex/orvexd.log";
constexpr const char* kLogDirectoryProbe = "/var/log/orvex/orvex-session.log";
constexpr const char* kLogPattern = "%L%Y-%m-%d %H:%M:%S,%i [%p] %t";
constexpr const char* kMacPattern = "^([0-9a-f]{2}:){5}([0-9a-f]{2})$";
constexpr long kKeepAliveStartMs = 30000;
constexpr long kKeepAlivePeriodMs = 60000;

struct Options {
    std::string mac;
    bool debug = false;
    int32_t level = 6;
};

// Read by onSignal on the bus loop thread; set once before the loop starts.
zs* g_bus = nullptr;
// Held open and locked for the life of the process.
int g_lockFd = -1;

}  // namespace

void onSignal(int)
{
    zs_stop(g_bus);
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
        {nullptr, 0, nullptr, 0},
    };
    Options options;
    int c;
    // Unknown options and missing arguments are ignored on purpose.
    while ((c = getopt_long(argc, argv, ":m:dl:", longOptions, nullptr)) != -1) {
        if (c == 'm')
            options.mac = Poco::toLower(Poco::trim(std::string(optarg)));
        else if (c == 'd')
            options.debug = true;
        else if (c == 'l')
            options.level = parseLevel(optarg);
    }
    return options;
}

void checkMac(const std::string& mac)
{
    Poco::RegularExpression expression(kMacPattern);
    if (!expression.match(mac)) {
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
    umask(0);
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
}

Poco::AutoPtr<Poco::Channel> makeChannel(bool debug)
{
    if (debug)
        return new Poco::ConsoleChannel;
    Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel);
    file->setProperty("path", kLogPath);
    file->setProperty("rotation", "100 K");
    file->setProperty("purgeCount", "2");
    file->setProperty("rotateOnOpen", "yes");
    return file;
}

void setupLogging(const Options& options)
{
    Poco::File(Poco::Path(kLogDirectoryProbe).parent()).createDirectories();
    Poco::AutoPtr<Poco::PatternFormatter> formatter(new Poco::PatternFormatter);
    formatter->setProperty("pattern", kLogPattern);
    Poco::AutoPtr<Poco::FormattingChannel> channel(
        new Poco::FormattingChannel(formatter, makeChannel(options.debug)));
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
    const MethodEntry table[] = {
        {"signin", __signin__, &signin, TicktockQueue::TOCK},
        {"signout", __signout__, &signout, TicktockQueue::TOCK},
        {"get_device_system_info", __get_device_system_info__, &get_device_system_info, TicktockQueue::TICK},
        {"get_device_rsyslog_config", __get_device_rsyslog_config__, &get_device_rsyslog_config, TicktockQueue::TICK},
        {"set_device_rsyslog_server_config", __set_device_rsyslog_server_config__, &set_device_rsyslog_server_config, TicktockQueue::TOCK},
        {"set_device_rsyslog_client_config", __set_device_rsyslog_client_config__, &set_device_rsyslog_client_config, TicktockQueue::TOCK},
        {"get_device_rsyslog_client", __get_device_rsyslog_client__, &get_device_rsyslog_client, TicktockQueue::TICK},
        {"set_device_rsyslog_client", __set_device_rsyslog_client__, &set_device_rsyslog_client, TicktockQueue::TOCK},
        {"add_device_rsyslog_client", __add_device_rsyslog_client__, &add_device_rsyslog_client, TicktockQueue::TOCK},
        {"del_device_rsyslog_client", __del_device_rsyslog_client__, &del_device_rsyslog_client, TicktockQueue::TOCK},
        {"add_device_rsyslog_client_test", __add_device_rsyslog_client_test__, &add_device_rsyslog_client_test, TicktockQueue::TOCK},
        {"set_device_rsyslog_client_enable", __set_device_rsyslog_client_enable__, &set_device_rsyslog_client_enable, TicktockQueue::TOCK},
        {"set_device_rsyslog_client_disable", __set_device_rsyslog_client_disable__, &set_device_rsyslog_client_disable, TicktockQueue::TOCK},
    };
    for (const MethodEntry& entry : table) {
        Poco::SharedPtr<Endpoint> endpoint(
            new Endpoint{true, entry.help, nullptr, entry.function, entry.ticktock});
        Service::addEndpoint(Service::WORKER_THREAD, entry.ticktock, entry.name, "", endpoint);
    }
}

// One instance per MAC: the lock is held until shutdown, and the file keeps our pid.
void takeLock(const std::string& mac)
{
    std::string path = strformat(kLockFormat, mac.c_str());
    // Close-on-exec keeps the lock from leaking into programs that handlers run.
    g_lockFd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (g_lockFd < 0) {
        std::fprintf(stderr, "orvex-session create pid file %s fail.\n", path.c_str());
        std::exit(1);
    }
    if (flock(g_lockFd, LOCK_EX | LOCK_NB) != 0) {
        char running[33] = {0};
        if (read(g_lockFd, running, 32) < 0)
            running[0] = '\0';
        std::fprintf(stderr, "orvex-session daemon is running (%s).\n", running);
        std::exit(1);
    }
    if (ftruncate(g_lockFd, 0) != 0)
        std::exit(1);
    fdprintf(g_lockFd, "%d", static_cast<int>(getpid()));
}

void releaseLock()
{
    flock(g_lockFd, LOCK_UN);
    close(g_lockFd);
    g_lockFd = -1;
}

void connectBus(const std::string& serviceName)
{
    zs_signal(SIGINT, onSignal);
    zs_signal(SIGTERM, onSignal);
    std::string address = strformat("@%s/%s", kBusDirectory, serviceName.c_str());
    g_bus = zs_create(address.c_str(), 4, 1, onHandler);
    if (!g_bus) {
        // Without the bus nobody can reach this process; do not linger as a silent no-op.
        std::fprintf(stderr, "orvex-session cannot serve on %s.\n", address.c_str());
        Poco::Logger::root().error(strformat("[%s] cannot serve on %s", serviceName.c_str(), address.c_str()));
        std::exit(1);
    }
}

void startKeepAlive(Poco::Timer& timer)
{
    timer.start(Poco::TimerCallback<Session>(Session::getInstance(), &Session::alive));
}

void shutdown(Poco::Timer& timer)
{
    Service::getInstance().stop();
    try {
        Session::getInstance().signout();
    } catch (const Poco::Exception& e) {
        // The device may be gone already; the remaining steps must still run.
        Poco::Logger::root().warning(strformat("[Session] signout: %s", e.message().c_str()));
    } catch (const std::exception& e) {
        Poco::Logger::root().warning(strformat("[Session] signout: %s", e.what()));
    }
    zs_free(g_bus);
    g_bus = nullptr;
    Poco::Logger::shutdown();
    releaseLock();
    timer.stop();
}

int run(int argc, char** argv)
{
    json_object_seed(0);
    Options options = parseCommandLine(argc, argv);
    checkMac(options.mac);
    if (!options.debug)
        detach();
    setupLogging(options);
    std::string serviceName = strformat("%s@%s", kProgram, options.mac.c_str());
    Service::setServiceName(serviceName);
    registerMethods();
    takeLock(options.mac);
    connectBus(serviceName);
    Poco::Timer timer(kKeepAliveStartMs, kKeepAlivePeriodMs);
    startKeepAlive(timer);
    Service::getInstance().start();
    zs_start(g_bus);
    shutdown(timer);
    return 0;
}

}  // namespace

}  // namespace Orvex

int main(int argc, char** argv)
{
    try {
        return Orvex::run(argc, argv);
    } catch (const Poco::Exception& e) {
        Poco::Logger::root().fatal(
            Orvex::strformat("%s:%d, %s %s", Orvex::trace::baseName(__FILE__), __LINE__, __PRETTY_FUNCTION__, e.message().c_str()));
    } catch (const std::exception& e) {
        Poco::Logger::root().fatal(
            Orvex::strformat("%s:%d, %s %s", Orvex::trace::baseName(__FILE__), __LINE__, __PRETTY_FUNCTION__, e.what()));
    }
    std::exit(1);
}
