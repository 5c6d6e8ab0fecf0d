#include "tests/support/daemon.h"

#include "common/paths.h"

#include <fcntl.h>
#include <glob.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace Orvex::Test {

namespace {

std::string built(const char* path, const char* what)
{
    if (!*path)
        throw std::runtime_error(std::string(what) + " is not built in this configuration");
    return path;
}

}  // namespace

#ifndef ORVEX_DAEMON
#define ORVEX_DAEMON ""
#endif
#ifndef ORVEX_CTL
#define ORVEX_CTL ""
#endif
#ifndef ORVEX_ZSCALL
#define ORVEX_ZSCALL ""
#endif

std::string daemonBinary() { return built(ORVEX_DAEMON, "orvex-session"); }
std::string ctlBinary() { return built(ORVEX_CTL, "orvexctl"); }
std::string zsCallBinary() { return built(ORVEX_ZSCALL, "zs-call"); }

std::string busAddress(const std::string& mac)
{
    return Paths::busAddress(mac);
}

std::string lockPath(const std::string& mac)
{
    return Paths::lockPath(mac);
}

BusReply sessionCall(const std::string& mac, const std::string& method, const std::string& body, int fd,
    int timeoutSeconds)
{
    return busCall(busAddress(mac), method, body, fd, timeoutSeconds);
}

NotifySocket::NotifySocket() : path_(dir_.file("notify"))
{
    fd_.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path_.c_str());
    bound_ = bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

std::string NotifySocket::next(int timeoutMs)
{
    pollfd p{fd_.get(), POLLIN, 0};
    char buffer[4096];
    if (poll(&p, 1, timeoutMs) != 1)
        return "";
    ssize_t n = recv(fd_.get(), buffer, sizeof buffer, 0);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : "";
}

std::string NotifySocket::nextStartingWith(const std::string& prefix, int timeoutMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return "";
        std::string message = next(static_cast<int>(left.count()));
        if (message.empty() || message.rfind(prefix, 0) == 0)
            return message;
    }
}

const std::vector<std::string>& withoutCapabilities()
{
    static const std::vector<std::string> words = {"/usr/bin/setpriv", "--bounding-set=-all", "--inh-caps=-all"};
    return words;
}

Daemon::Daemon(const std::string& mac, const std::vector<std::string>& extra, const std::string& binary,
    const std::vector<std::string>& wrapper, const std::vector<std::string>& env)
    : mac_(mac)
{
    Spawn spawn{wrapper, env, dir_.file("stdout"), dir_.file("stderr"), false};
    spawn.argv.insert(spawn.argv.end(), {binary, "-d", "-m", mac});
    spawn.argv.insert(spawn.argv.end(), extra.begin(), extra.end());
    child_ = std::make_unique<Child>(spawn);
}

bool Daemon::ready(std::chrono::milliseconds timeout)
{
    return waitFor([this] { return answers(mac_) || !child_->running(); }, timeout) && child_->running();
}

bool answers(const std::string& mac)
{
    // An unknown method is answered by the bus thread itself, without touching the device.
    return sessionCall(mac, "ready-probe", "{}", -1, 5).rc == 0;
}

bool isLocked(const std::string& path)
{
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return fd && flock(fd.get(), LOCK_SH | LOCK_NB) != 0;
}

pid_t lockHolder(const std::string& mac)
{
    return isLocked(lockPath(mac)) ? static_cast<pid_t>(std::atol(readFile(lockPath(mac)).c_str())) : 0;
}

bool signalSession(const std::string& mac, int signo)
{
    pid_t pid = lockHolder(mac);
    return pid > 0 && kill(pid, signo) == 0;
}

void killSessions()
{
    if (!isolated())
        return;
    const std::string pattern = lockPath("*");
    const size_t star = pattern.find('*');
    glob_t found{};
    glob(pattern.c_str(), 0, nullptr, &found);
    for (size_t i = 0; i < found.gl_pathc; ++i) {
        std::string path = found.gl_pathv[i];
        std::string mac = path.substr(star, path.size() - pattern.size() + 1);
        if (pid_t pid = lockHolder(mac))
            kill(pid, SIGKILL);
        waitFor([&] { return lockHolder(mac) == 0; }, 5s);
    }
    globfree(&found);
}

namespace {

std::vector<std::string> ctlArgv(const std::vector<std::string>& args)
{
    std::vector<std::string> argv = {ctlBinary()};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

}  // namespace

RunResult ctl(const std::vector<std::string>& args, const std::vector<std::string>& env, const std::string& input)
{
    return run(ctlArgv(args), env, input);
}

RunResult ctlAs(int uid, const std::vector<std::string>& args)
{
    return runAs(uid, ctlArgv(args));
}

void installDaemon()
{
    std::string next = std::string(Paths::kDaemonPath) + ".new";
    std::filesystem::copy_file(daemonBinary(), next, std::filesystem::copy_options::overwrite_existing);
    chmod(next.c_str(), 0755);
    std::filesystem::rename(next, Paths::kDaemonPath);
}

void clearSessions()
{
    killSessions();
    const std::string locks = lockPath("x").substr(0, lockPath("x").rfind('/'));
    for (const std::string& folder : {std::string(Paths::kStatusDirectory), locks}) {
        std::error_code absent;
        for (const auto& entry : std::filesystem::directory_iterator(folder, absent))
            if (entry.path().filename().string().rfind(Paths::kServicePrefix, 0) == 0)
                std::filesystem::remove(entry.path());
    }
}

void FrontEndTest::SetUp()
{
    ORVEX_REQUIRE_ISOLATION();
    installDaemon();
    clearSessions();
}

RunResult FrontEndTest::start(const std::string& mac, int port, const std::string& pass, bool secure,
    const std::vector<std::string>& extra, const std::string& input)
{
    std::vector<std::string> args = {"start", mac, "--ip", "127.0.0.1", "--port", std::to_string(port), "--user", "admin"};
    if (secure)
        args.push_back("--secure");
    args.insert(args.end(), extra.begin(), extra.end());
    std::vector<std::string> env;
    if (!pass.empty())
        env = {"DEVICE_PASS=" + pass, "ORVEX_PASS=" + pass};
    return ctl(args, env, input);
}

SignedIn::SignedIn(const std::string& family, bool tls, const std::string& mac,
    const std::vector<std::string>& devsimExtra)
    : device(family, tls, devsimExtra), daemon(mac)
{
    if (!daemon.ready())
        throw std::runtime_error("orvex-session did not come up: " + daemon.log());
    BusReply reply = daemon.call("signin", device.signinArgs());
    if (reply.rc != 0)
        throw std::runtime_error("signin call failed: " + std::string(strerror(reply.error)));
    signin = reply.json();
}

namespace {

// Session processes that detached from a test must not outlive it.
class SessionReaper : public ::testing::Environment {
public:
    void TearDown() override { killSessions(); }
};

const auto* const reaper = ::testing::AddGlobalTestEnvironment(new SessionReaper);

}  // namespace

}  // namespace Orvex::Test
