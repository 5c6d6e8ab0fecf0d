#include "daemon/status_keeper.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
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

// Async-signal-safe pieces of the end record: plain writes, no formatting library.
bool put(int fd, const char* text, size_t length)
{
    while (length > 0) {
        ssize_t n = ::write(fd, text, length);
        if (n <= 0)
            return false;
        text += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

bool put(int fd, const char* text)
{
    return put(fd, text, std::strlen(text));
}

bool putNumber(int fd, long long value)
{
    char digits[24];
    size_t at = sizeof digits;
    bool negative = value < 0;
    unsigned long long rest = negative ? 0ULL - static_cast<unsigned long long>(value) : static_cast<unsigned long long>(value);
    do {
        digits[--at] = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest > 0);
    if (negative)
        digits[--at] = '-';
    return put(fd, digits + at, sizeof digits - at);
}

// The reasons given here are our own words; anything JSON would need escaped becomes '?'.
bool putText(int fd, const char* text)
{
    for (size_t i = 0; i < kFieldLimit && text[i] != '\0'; ++i) {
        char c = text[i];
        if (static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\' || static_cast<unsigned char>(c) >= 0x80)
            c = '?';
        if (!put(fd, &c, 1))
            return false;
    }
    return true;
}

}  // namespace

StatusKeeper::StatusKeeper(const std::string& mac, bool systemd)
    : pid_(::getpid()), path_(Paths::statusPath(mac)), endTemporary_(path_ + ".end")
{
    record_.mac = mac;
    record_.pid = pid_;
    record_.started = ::time(nullptr);
    record_.systemd = systemd;
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

std::string StatusKeeper::failure()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return record_.failure;
}

bool StatusKeeper::end(const char* state, bool abnormal, const std::string& reason)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (::getpid() != pid_ || ended_.exchange(true))
        return false;
    record_.signedIn = false;
    record_.end = state;
    record_.abnormal = abnormal;
    record_.reason = reason;
    record_.ended = ::time(nullptr);
    record_.lastUse = Session::lastUse();
    if (!writeStatus(record_))
        Poco::Logger::root().warning(strformat("[Session] cannot write %s", path_.c_str()));
    return true;
}

void StatusKeeper::endFromSignal(const char* state, bool abnormal, const char* reason) noexcept
{
    if (::getpid() != pid_ || ended_.exchange(true))
        return;
    const int current = endCurrent_.load(std::memory_order_acquire);
    if (current < 0)
        return;
    // Our own folder (checked at every write): nobody else can have planted this name.
    int fd = ::open(endTemporary_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    bool ok = put(fd, endText_[current], endLength_[current]) && put(fd, ",\"end\":\"") && putText(fd, state) &&
              put(fd, "\",\"abnormal\":") && put(fd, abnormal ? "true" : "false") && put(fd, ",\"reason\":\"") &&
              putText(fd, reason) && put(fd, "\",\"ended\":") && putNumber(fd, ::time(nullptr)) && put(fd, "}\n");
    ::close(fd);
    if (!ok || ::rename(endTemporary_.c_str(), path_.c_str()) != 0)
        ::unlink(endTemporary_.c_str());
}

void StatusKeeper::write()
{
    if (ended_.load())
        return;
    record_.lastUse = Session::lastUse();
    if (!writeStatus(record_))
        Poco::Logger::root().warning(strformat("[Session] cannot write %s", path_.c_str()));
    keepEndText();
}

void StatusKeeper::keepEndText()
{
    StatusRecord last = record_;
    last.signedIn = false;
    std::string text = renderStatus(last);
    if (text.empty() || text.back() != '}' || text.size() > kTextRoom)
        return;
    const int next = endCurrent_.load(std::memory_order_relaxed) == 0 ? 1 : 0;
    std::memcpy(endText_[next], text.data(), text.size() - 1);
    endLength_[next] = text.size() - 1;
    endCurrent_.store(next, std::memory_order_release);
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
