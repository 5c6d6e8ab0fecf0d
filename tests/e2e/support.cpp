#include "tests/e2e/support.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace e2e {

std::string daemonBinary() { return ORVEX_E2E_DAEMON; }
std::string ctlBinary() { return ORVEX_E2E_CTL; }
std::string zsCallBinary() { return ORVEX_E2E_ZSCALL; }

std::string busAddress(const std::string& mac)
{
    return "@/var/run/orvex/orvex-session@" + mac;
}

BusReply busCall(const std::string& mac, const std::string& method, const std::string& body, int fd,
    int timeoutSeconds)
{
    return Orvex::Test::busCall(busAddress(mac), method, body, fd, timeoutSeconds);
}

std::string lockPath(const std::string& mac)
{
    return "/var/lock/orvex-session@" + mac + ".pid";
}

Daemon::Daemon(const std::string& mac, const std::vector<std::string>& extra, const std::string& binary)
    : mac_(mac)
{
    Spawn spawn{{binary, "-d", "-m", mac}, {}, dir_.file("stdout"), dir_.file("stderr"), false};
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
    return busCall(mac, "ready-probe", "{}", -1, 5).rc == 0;
}

pid_t lockHolder(const std::string& mac)
{
    Orvex::UniqueFd fd(open(lockPath(mac).c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd || flock(fd.get(), LOCK_SH | LOCK_NB) == 0)
        return 0;
    return static_cast<pid_t>(std::atol(readFile(lockPath(mac)).c_str()));
}

void killSessions()
{
    if (!isolated())
        return;
    DIR* dir = opendir("/var/lock");
    if (!dir)
        return;
    std::vector<std::string> macs;
    while (dirent* entry = readdir(dir)) {
        std::string name = entry->d_name;
        const std::string head = "orvex-session@", tail = ".pid";
        if (name.rfind(head, 0) == 0 && name.size() > head.size() + tail.size())
            macs.push_back(name.substr(head.size(), name.size() - head.size() - tail.size()));
    }
    closedir(dir);
    for (const std::string& mac : macs) {
        if (pid_t pid = lockHolder(mac))
            kill(pid, SIGKILL);
        waitFor([&] { return lockHolder(mac) == 0; }, 5s);
    }
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

}  // namespace e2e
