#include "client/fleet_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <set>
#include <thread>

#include "common/misc.h"
#include "common/paths.h"
#include "common/raii.h"

namespace Orvex {

namespace {

struct Line {
    size_t number;
    std::string text;
};

[[noreturn]] void fail(const std::string& path, size_t line, const std::string& reason)
{
    throw FleetFileError(line > 0 ? strformat("%s:%zu: %s", path.c_str(), line, reason.c_str())
                                  : path + ": " + reason);
}

// The whole file; the descriptor is checked by `check` first (it may throw).
std::string readWhole(const std::string& path, const std::function<void(const struct stat&)>& check)
{
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st{};
    if (!fd || ::fstat(fd.get(), &st) != 0)
        fail(path, 0, errno == ELOOP ? "is a symbolic link" : std::strerror(errno));
    if (!S_ISREG(st.st_mode))
        fail(path, 0, "not a regular file");
    if (check)
        check(st);
    std::string text;
    char buffer[65536];
    for (ssize_t n; (n = ::read(fd.get(), buffer, sizeof buffer)) != 0;) {
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            fail(path, 0, std::strerror(errno));
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}

// Lines with something in them, comments (from '#' on) cut unless keepComments.
std::vector<Line> contentLines(const std::string& text, bool keepComments)
{
    std::vector<Line> lines;
    size_t number = 0;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(start, end - start);
        start = end + 1;
        ++number;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        size_t first = line.find_first_not_of(" \t");
        if (first == std::string::npos || line[first] == '#')
            continue;
        if (!keepComments && line.find('#') != std::string::npos)
            line.erase(line.find('#'));
        lines.push_back({number, line});
    }
    return lines;
}

std::vector<std::string> fields(const std::string& line)
{
    std::vector<std::string> out;
    size_t at = 0;
    while ((at = line.find_first_not_of(" \t,", at)) != std::string::npos) {
        size_t end = line.find_first_of(" \t,", at);
        out.push_back(line.substr(at, end == std::string::npos ? std::string::npos : end - at));
        at = end;
    }
    return out;
}

std::string macField(const std::string& path, const Line& line, const std::string& text, std::set<std::string>& seen)
{
    std::string mac = Paths::normaliseMac(text);
    if (!Paths::validMac(mac))
        fail(path, line.number, "'" + text + "' is not a MAC address (six hex pairs joined by ':')");
    if (!seen.insert(mac).second)
        fail(path, line.number, mac + " is named twice");
    return mac;
}

int portField(const std::string& path, const Line& line, const std::string& text)
{
    char* end = nullptr;
    long port = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || port < 1 || port > 65535)
        fail(path, line.number, "port '" + text + "' is not a number from 1 to 65535");
    return static_cast<int>(port);
}

bool secureField(const std::string& path, const Line& line, const std::string& text)
{
    for (const char* word : {"secure", "https", "yes", "true", "1"})
        if (text == word)
            return true;
    for (const char* word : {"plain", "http", "no", "false", "0"})
        if (text == word)
            return false;
    fail(path, line.number, "'" + text + "' is neither secure (https, yes, true, 1) nor plain (http, no, false, 0)");
}

}  // namespace

std::vector<DeviceEntry> readDeviceFile(const std::string& path)
{
    std::vector<DeviceEntry> devices;
    std::set<std::string> seen;
    for (const Line& line : contentLines(readWhole(path, nullptr), false)) {
        std::vector<std::string> f = fields(line.text);
        if (f.size() < 4 || f.size() > 5)
            fail(path, line.number, "expected MAC IP PORT USER [SECURE], found " + std::to_string(f.size()) + " fields");
        DeviceEntry device;
        device.mac = macField(path, line, f[0], seen);
        device.ip = f[1];
        device.port = portField(path, line, f[2]);
        device.user = f[3];
        device.secure = f.size() == 5 && secureField(path, line, f[4]);
        devices.push_back(std::move(device));
    }
    if (devices.empty())
        fail(path, 0, "names no device");
    return devices;
}

std::vector<std::string> readMacFile(const std::string& path)
{
    std::vector<std::string> macs;
    std::set<std::string> seen;
    for (const Line& line : contentLines(readWhole(path, nullptr), false)) {
        // A line of separators alone is named like any other line without a MAC.
        std::vector<std::string> f = fields(line.text);
        macs.push_back(macField(path, line, f.empty() ? std::string() : f.front(), seen));
    }
    if (macs.empty())
        fail(path, 0, "names no MAC address");
    return macs;
}

std::map<std::string, std::string> readPasswordFile(const std::string& path)
{
    auto privateFile = [&path](const struct stat& st) {
        if (st.st_uid != ::geteuid())
            fail(path, 0, strformat("belongs to uid %u, not to us: refused", static_cast<unsigned>(st.st_uid)));
        if ((st.st_mode & 077) != 0)
            fail(path, 0, strformat("may be read or written by others (mode %04o): refused; chmod 600 it",
                                    static_cast<unsigned>(st.st_mode & 07777)));
    };
    std::map<std::string, std::string> passwords;
    std::set<std::string> seen;
    // A '#' may be part of a password: only whole comment lines are skipped here.
    for (const Line& line : contentLines(readWhole(path, privateFile), true)) {
        size_t start = line.text.find_first_not_of(" \t");
        size_t end = line.text.find_first_of(" \t,", start);
        size_t pass = end == std::string::npos ? std::string::npos : line.text.find_first_not_of(" \t,", end);
        std::string mac = macField(path, line, line.text.substr(start, end - start), seen);
        if (pass == std::string::npos)
            fail(path, line.number, "no password for " + mac);
        passwords[mac] = line.text.substr(pass);
    }
    return passwords;
}

void forEachParallel(size_t count, int parallel, const std::function<void(size_t)>& job)
{
    std::atomic<size_t> next{0};
    auto worker = [&] {
        for (size_t i; (i = next++) < count;)
            job(i);
    };
    std::vector<std::thread> threads;
    const size_t wanted = std::min(count, static_cast<size_t>(std::max(parallel, 1)));
    for (size_t t = 1; t < wanted; ++t)
        threads.emplace_back(worker);
    worker();
    for (std::thread& thread : threads)
        thread.join();
}

}  // namespace Orvex
