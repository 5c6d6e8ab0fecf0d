#include "common/proc.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common/raii.h"

namespace Orvex {
namespace Proc {

namespace {

// The file /proc/PID/<entry>, at most size - 1 bytes of it; "" when gone.
std::string readEntry(pid_t pid, const char* entry, size_t size)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/%s", static_cast<int>(pid), entry);
    UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
    std::string text(size, '\0');
    ssize_t n = fd ? ::read(fd.get(), &text[0], size - 1) : -1;
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return text;
}

bool userIds(pid_t pid, unsigned long (&ids)[4])
{
    std::string status = readEntry(pid, "status", 4096);
    size_t at = status.find("\nUid:");
    return at != std::string::npos &&
           std::sscanf(status.c_str() + at + 5, "%lu %lu %lu %lu", &ids[0], &ids[1], &ids[2], &ids[3]) == 4;
}

}  // namespace

bool stat(pid_t pid, Stat& out)
{
    // "PID (NAME) S PPID ..." where NAME may hold blanks and parentheses: read after the last ')'.
    std::string text = readEntry(pid, "stat", 1024);
    size_t close = text.rfind(')');
    if (close == std::string::npos || close + 2 >= text.size())
        return false;
    out = Stat{};
    out.state = text[close + 2];
    // The state is field 3 and the start time field 22.
    size_t at = close + 2;
    for (int field = 3; field < 22 && at != std::string::npos; ++field)
        at = text.find(' ', at + 1);
    return at != std::string::npos && std::sscanf(text.c_str() + at, " %llu", &out.start) == 1;
}

bool gone(pid_t pid)
{
    Stat st;
    return !stat(pid, st) || st.state == 'Z' || st.state == 'X';
}

bool runsAs(pid_t pid, uid_t uid)
{
    unsigned long ids[4];
    if (!userIds(pid, ids))
        return false;
    for (unsigned long id : ids)
        if (id != uid)
            return false;
    return true;
}

uid_t effectiveUid(pid_t pid)
{
    unsigned long ids[4];
    return userIds(pid, ids) ? static_cast<uid_t>(ids[1]) : static_cast<uid_t>(-1);
}

std::string name(pid_t pid)
{
    std::string text = readEntry(pid, "comm", 64);
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

std::string program(pid_t pid, bool* deleted)
{
    char path[64], target[4096];
    std::snprintf(path, sizeof path, "/proc/%d/exe", static_cast<int>(pid));
    ssize_t n = ::readlink(path, target, sizeof target - 1);
    std::string file = n > 0 ? std::string(target, static_cast<size_t>(n)) : "";
    const std::string mark = " (deleted)";
    bool removed = file.size() > mark.size() && file.compare(file.size() - mark.size(), mark.size(), mark) == 0;
    if (removed)
        file.erase(file.size() - mark.size());
    if (deleted)
        *deleted = removed;
    return file;
}

}  // namespace Proc
}  // namespace Orvex
