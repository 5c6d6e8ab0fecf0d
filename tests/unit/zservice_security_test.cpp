// The bus against hostile neighbours: a listener of another user, a flood of idle callers,
// and zs-call's exit codes for scripts.
#include "tests/support/daemon.h"
#include "zservice/internal.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

using namespace Orvex::Test;

namespace {


bool readByte(int fd, char& byte)
{
    return read(fd, &byte, 1) == 1;
}

// A listener of uid 65534 on address: bound here and put to listen by a child that dropped
// to that user (a listening socket carries the credentials of the process that called
// listen), so that this process can count what callers send it. Invalid when that fails.
Orvex::UniqueFd listenerOfNobody(const std::string& address)
{
    Orvex::Bus::Address parsed;
    Orvex::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!Orvex::Bus::parseAddress(address.c_str(), parsed) ||
        bind(fd.get(), reinterpret_cast<sockaddr*>(&parsed.addr), parsed.length) != 0)
        return Orvex::UniqueFd();
    const int listening = fd.get();
    const int status = inChild([listening] {
        _exit(setgid(kNobody) == 0 && setuid(kNobody) == 0 && listen(listening, 16) == 0 ? 0 : 1);
    });
    return status == 0 ? std::move(fd) : Orvex::UniqueFd();
}

// Bytes the callers queued so far sent before they hung up.
long bytesQueued(int listener)
{
    fcntl(listener, F_SETFL, O_NONBLOCK);
    long total = 0;
    for (int fd; (fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK)) >= 0; close(fd)) {
        char buffer[4096];
        for (ssize_t n; (n = recv(fd, buffer, sizeof(buffer), 0)) > 0;)
            total += n;
    }
    return total;
}

}  // namespace

// Only the listener's user is checked: a caller of another user is served like any other.
TEST(ZserviceTrust, AListenerOfAnotherUserGetsNotOneByteOfTheCallButACallerOfAnotherUserIsServed)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to play a user of another uid";
    const std::string address = uniqueAddress("impostor");
    const Orvex::UniqueFd impostor = listenerOfNobody(address);
    ASSERT_TRUE(impostor);

    const BusReply reply = busCall(address, "signin", "{\"pass\":\"secret\"}", -1, 5);
    EXPECT_EQ(-1, reply.rc);
    EXPECT_EQ(EACCES, reply.error);

    const RunResult run = ::Orvex::Test::run({zsCallBinary(), "-t", "5", address, "signin", "{\"pass\":\"secret\"}"});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ("zs-call: the listener at " + address + " runs as uid 65534, neither root nor us: nothing sent\n",
        run.err);
    EXPECT_EQ(0, bytesQueued(impostor.get()));

    TestService service;  // policy 0: admits every local user
    const int status = inChild([&] {
        if (setgid(kNobody) != 0 || setuid(kNobody) != 0)
            _exit(2);
        const BusReply reply = busCall(service.address(), "m", "{}", -1, 5);
        _exit(reply.rc == 0 && reply.body == "echo:m:{}" ? 0 : 1);
    });
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

// The service runs in a child whose descriptor limit is 256; a flood of idle callers must
// leave it enough descriptors for its own work, and it serves again once they leave.
TEST(ZserviceCaps, AFloodOfIdleCallersLeavesDescriptorsForTheServicesOwnWork)
{
    int report[2];
    int go[2];
    ASSERT_EQ(0, pipe(report));
    ASSERT_EQ(0, pipe(go));
    const std::string address = uniqueAddress("flood");
    const pid_t pid = fork();
    if (pid == 0) {
        const rlimit limit{256, 256};
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
            _exit(2);
        TestService service({}, 30, 0, address);
        char byte = 0;
        if (write(report[1], "r", 1) != 1 || !readByte(go[0], byte))
            _exit(3);
        char opened = 0;  // of the new sockets a device request needs
        for (int i = 0; i < 16; ++i)
            opened += socket(AF_INET, SOCK_STREAM, 0) >= 0;
        if (write(report[1], &opened, 1) != 1 || !readByte(go[0], byte))
            _exit(4);
        _exit(0);
    }
    char byte = 0;
    ASSERT_TRUE(readByte(report[0], byte));
    std::vector<int> flood;
    for (int i = 0; i < 400; ++i)
        flood.push_back(rawConnect(address));
    EXPECT_EQ(0, std::count(flood.begin(), flood.end(), -1));
    std::this_thread::sleep_for(500ms);  // the loop accepts what it will
    ASSERT_EQ(1, write(go[1], "g", 1));
    char opened = 0;
    EXPECT_TRUE(readByte(report[0], opened));
    EXPECT_EQ(16, opened) << "the flood took the descriptors a device request needs";
    for (int fd : flood)
        close(fd);
    EXPECT_EQ("echo:m:", busCall(address, "m", "", -1, 10).body);
    ASSERT_EQ(1, write(go[1], "g", 1));
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    for (int fd : {report[0], report[1], go[0], go[1]})
        close(fd);
}

TEST(ZsCallExit, AnErrorReplyExitsFourAndJsonIsPrintedShortOrPrettyButOtherTextAsItCame)
{
    TestService service([](const char* method, zs_io* io, int fd) {
        zs_io_realloc(io, 0);
        zs_io_printf(io, "%s", strcmp(method, "bad") == 0    ? "{\"error_code\":403,\"error_message\":\"\"}"
                               : strcmp(method, "text") == 0 ? "\nplain text\n"
                                                             : "{\"error_code\":0,\"a\":[1]}");
        TestService::echo("raw", io, fd);  // replies with the bare body
    });
    RunResult run = ::Orvex::Test::run({zsCallBinary(), "--json=short", service.address(), "bad"});
    EXPECT_EQ(4, run.status);
    EXPECT_EQ("{\"error_code\":403,\"error_message\":\"\"}\n", run.out);
    run = ::Orvex::Test::run({zsCallBinary(), "--json=pretty", service.address(), "good"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("{\n  \"error_code\": 0,\n  \"a\": [\n    1\n  ]\n}\n", run.out);
    run = ::Orvex::Test::run({zsCallBinary(), "--pretty", service.address(), "text"});
    EXPECT_EQ("\nplain text\n", run.out);
    // Compact as it came when not asked and not on a terminal.
    run = ::Orvex::Test::run({zsCallBinary(), service.address(), "good"});
    EXPECT_EQ("{\"error_code\":0,\"a\":[1]}\n", run.out);
    run = ::Orvex::Test::run({zsCallBinary(), "--json=long", service.address(), "good"});
    EXPECT_EQ(2, run.status);
    run = ::Orvex::Test::run({zsCallBinary(), "--version"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ(std::string("zs-call ") + ORVEX_VERSION + "\n", run.out);
}
