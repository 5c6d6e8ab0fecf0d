#include "daemon/status_keeper.h"

#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

#include <Poco/Logger.h>

#include "common/misc.h"
#include "common/paths.h"

namespace Orvex {

namespace {

// The program file this process runs, as it is now.
void describeBinary(StatusRecord& record)
{
    char target[4096];
    ssize_t n = ::readlink("/proc/self/exe", target, sizeof target - 1);
    if (n <= 0)
        return;
    record.binary.assign(target, static_cast<size_t>(n));
    struct stat st{};
    if (::stat(record.binary.c_str(), &st) == 0) {
        record.binaryInode = st.st_ino;
        record.binaryMtime = st.st_mtime;
    }
}

}  // namespace

StatusKeeper::StatusKeeper(const std::string& mac)
{
    record_.mac = mac;
    record_.pid = ::getpid();
    record_.started = ::time(nullptr);
    describeBinary(record_);
    std::lock_guard<std::mutex> lock(mutex_);
    write();
}

void StatusKeeper::update(const SessionStatus& status)
{
    std::lock_guard<std::mutex> lock(mutex_);
    record_.family = status.family;
    record_.host = status.host;
    record_.port = status.port;
    record_.secure = status.secure;
    record_.model = status.model;
    record_.serial = status.serial;
    record_.firmware = status.firmware;
    record_.hostname = status.hostname;
    record_.signedIn = status.signedIn;
    record_.failure = status.failure;
    write();
}

void StatusKeeper::refresh()
{
    std::lock_guard<std::mutex> lock(mutex_);
    write();
}

void StatusKeeper::remove()
{
    std::lock_guard<std::mutex> lock(mutex_);
    removeStatus(record_.mac);
}

void StatusKeeper::write()
{
    record_.lastUse = Session::lastUse();
    if (!writeStatus(record_))
        Poco::Logger::root().warning(
            strformat("[Session] cannot write %s", Paths::statusPath(record_.mac).c_str()));
}

std::string describe(const SessionStatus& status)
{
    std::string device = strformat("%s device %s:%u%s", familyName(status.family), status.host.c_str(), status.port,
        status.secure ? " (https)" : "");
    if (status.signedIn)
        return "signed in to " + device;
    if (!status.failure.empty())
        return "sign-in failed: " + status.failure;
    return "signed out";
}

}  // namespace Orvex
