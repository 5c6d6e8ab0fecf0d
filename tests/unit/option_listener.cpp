// Test helper: listens on a free loopback port ("tcp" or "udp"), prints the port on one
// line and runs until its standard input reaches EOF.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv)
{
    bool udp = argc > 1 && std::strcmp(argv[1], "udp") == 0;
    int fd = socket(AF_INET, udp ? SOCK_DGRAM : SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), length) != 0 || (!udp && listen(fd, 1) != 0) ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &length) != 0)
        return 1;
    std::printf("%d\n", ntohs(addr.sin_port));
    std::fflush(stdout);
    char byte;
    while (read(0, &byte, 1) > 0) {
    }
    return 0;
}
