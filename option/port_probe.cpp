#include "option/port_probe.h"

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <vector>

#include "common/proc.h"

namespace Orvex {
namespace PortProbe {

namespace {

constexpr unsigned kTcpListen = 0x0A;

// socket inode -> user id of the sockets on the port.
using Sockets = std::map<unsigned long, uid_t>;

using Folder = std::unique_ptr<DIR, int (*)(DIR*)>;

Folder openFolder(const std::string& path)
{
    return Folder(::opendir(path.c_str()), &::closedir);
}

// One table, "  0: 0100007F:0202 00000000:0000 0A 00000000:00000000 00:00000000 00000000
// 0 0 4711 ...": local address and port, remote, state, queues, timer, retransmits, uid,
// time-out, inode. False when the table cannot be read.
bool readTable(const char* path, Protocol protocol, int port, Sockets& sockets)
{
    std::ifstream table(path);
    if (!table)
        return false;
    std::string line;
    std::getline(table, line);  // the heading
    while (std::getline(table, line)) {
        unsigned localPort = 0, state = 0, uid = 0;
        unsigned long inode = 0;
        if (std::sscanf(line.c_str(), " %*u: %*[0-9A-Fa-f]:%x %*[0-9A-Fa-f]:%*x %x %*x:%*x %*x:%*x %*x %u %*d %lu",
                        &localPort, &state, &uid, &inode) != 4)
            continue;
        if (int(localPort) == port && inode != 0 && (protocol == Protocol::Udp || state == kTcpListen))
            sockets[inode] = static_cast<uid_t>(uid);
    }
    return true;
}

// What the descriptor scan found: the program of each socket of interest, and the users
// of the processes named program whose descriptors could not be read.
struct Owners {
    std::map<unsigned long, std::string> names;
    std::vector<uid_t> hiddenProgramUsers;
};

// Listing a process's descriptors takes only its user; reading where they lead takes
// privilege over it. A process whose descriptors stay closed to us in either way is hidden.
void scanProcess(pid_t pid, const Sockets& sockets, const std::string& program, Owners& owners)
{
    Folder fds = openFolder("/proc/" + std::to_string(pid) + "/fd");
    bool hidden = !fds;
    while (dirent* entry = hidden ? nullptr : ::readdir(fds.get())) {
        char target[64];
        ssize_t n = ::readlinkat(::dirfd(fds.get()), entry->d_name, target, sizeof target - 1);
        unsigned long inode = 0;
        if (n <= 0) {
            hidden = errno == EACCES || errno == EPERM;
            continue;
        }
        target[n] = '\0';
        if (std::sscanf(target, "socket:[%lu]", &inode) == 1 && sockets.count(inode) != 0)
            owners.names[inode] = Proc::name(pid);
    }
    if (hidden && Proc::name(pid) == program)
        owners.hiddenProgramUsers.push_back(Proc::effectiveUid(pid));
}

Owners findOwners(const Sockets& sockets, const std::string& program)
{
    Owners owners;
    Folder proc = openFolder("/proc");
    while (dirent* entry = proc ? ::readdir(proc.get()) : nullptr) {
        char* end = nullptr;
        long pid = std::strtol(entry->d_name, &end, 10);
        if (pid > 0 && *end == '\0')
            scanProcess(static_cast<pid_t>(pid), sockets, program, owners);
    }
    return owners;
}

bool programMayHold(const Owners& owners, unsigned long inode, uid_t uid, const std::string& program)
{
    auto known = owners.names.find(inode);
    if (known != owners.names.end())
        return known->second == program;
    for (uid_t user : owners.hiddenProgramUsers)
        if (user == uid)
            return true;
    return false;
}

}  // namespace

bool freeOrHeldBy(Protocol protocol, int port, const std::string& program)
{
    Sockets sockets;
    const bool tcp = protocol == Protocol::Tcp;
    bool readable = readTable(tcp ? "/proc/net/tcp" : "/proc/net/udp", protocol, port, sockets);
    // IPv6 may be off: then that table is missing, which changes nothing.
    readTable(tcp ? "/proc/net/tcp6" : "/proc/net/udp6", protocol, port, sockets);
    if (!readable || sockets.empty())
        return true;
    Owners owners = findOwners(sockets, program);
    for (const auto& [inode, uid] : sockets)
        if (!programMayHold(owners, inode, uid, program))
            return false;
    return true;
}

}  // namespace PortProbe
}  // namespace Orvex
