// zs-call run as a program: output, exit status and messages.
#include "tests/support/daemon.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

using namespace Orvex::Test;

namespace {

// zs-call with these arguments and `input` on standard input.
RunResult zsCall(std::vector<std::string> args, const std::string& input = "")
{
    args.insert(args.begin(), zsCallBinary());
    return run(args, {}, input, 10s);
}

}  // namespace

TEST(ZsCallTool, SendsTheBodyFromArgumentOrStdinAndPrintsTheReplyWithANewline)
{
    TestService service;
    RunResult run = zsCall({service.address(), "get", "{\"a\": 1}"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("echo:get:{\"a\": 1}\n", run.out);
    EXPECT_EQ("", run.err);

    run = zsCall({service.address(), "get", "-"}, "[1,2]\n");
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("echo:get:[1,2]\n", run.out);

    run = zsCall({"-t", "5", service.address(), "help"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("echo:help:\n", run.out);
}

TEST(ZsCallTool, SaysItWaitsWhenReadingJsonFromATerminal)
{
    TestService service;
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(master, 0);
    ASSERT_EQ(0, grantpt(master));
    ASSERT_EQ(0, unlockpt(master));
    const int terminal = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(terminal, 0);
    // One line, then end of input (Ctrl-D), already typed.
    const std::string typed = "{\"t\":1}\n\x04";
    ASSERT_EQ(static_cast<ssize_t>(typed.size()), write(master, typed.data(), typed.size()));
    TempDir dir;
    Spawn spawn{{zsCallBinary(), service.address(), "m", "-"}, {}, dir.file("out"), dir.file("err")};
    spawn.stdinFd = terminal;
    EXPECT_EQ(0, Child(spawn).wait());
    close(terminal);
    close(master);
    EXPECT_EQ("zs-call: waiting for JSON on standard input (end it with Ctrl-D)\n", readFile(dir.file("err")));
    EXPECT_EQ("echo:m:{\"t\":1}\n", readFile(dir.file("out")));
}

TEST(ZsCallTool, FdHandsStandardOutputToTheService)
{
    TestService service([](const char* method, zs_io* io, int fd) {
        if (fd >= 0) {
            EXPECT_EQ(7, write(fd, "direct\n", 7));
        }
        zs_io_realloc(io, 0);
        zs_io_printf(io, "%s", strcmp(method, "both") == 0 ? "bus" : fd >= 0 ? "" : "no descriptor");
        TestService::echo("raw", io, fd);  // replies with the bare body
    });
    RunResult run = zsCall({"--fd", service.address(), "only"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("direct\n", run.out);
    run = zsCall({"--fd", service.address(), "both"});
    EXPECT_EQ("direct\nbus\n", run.out);
}

TEST(ZsCallTool, BusFailuresExitOneWithOneLineNamingTheAddress)
{
    const std::string secret = "{\"pass\":\"s3cr3t-value\"}";
    const std::string nobody = uniqueAddress("nobody");
    RunResult run = zsCall({nobody, "signin", secret});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ("zs-call: no service listening at " + nobody + "\n", run.err);
    EXPECT_EQ("", run.out);

    std::vector<zs_io*> parked;
    TestService service([&parked](const char* method, zs_io* io, int) {
        if (strcmp(method, "drop") == 0)
            zs_io_free(io);
        else
            parked.push_back(io);  // never answered within the caller's time
    });
    run = zsCall({"-t", "1", service.address(), "park", secret});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ("zs-call: no reply from " + service.address() + " within 1 s\n", run.err);
    run = zsCall({service.address(), "drop", secret});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ("zs-call: " + service.address() + " closed the call without a valid reply\n", run.err);
    service.stop();
    for (zs_io* io : parked)
        zs_io_free(io);

    const std::string tooLong = "@" + std::string(200, 'a');
    run = zsCall({tooLong, "m"});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ("zs-call: address too long for a Unix socket: " + tooLong + "\n", run.err);
}

TEST(ZsCallTool, UsageErrorsExitTwoWithoutEchoingTheBody)
{
    const std::string address = uniqueAddress("usage");
    const std::vector<std::vector<std::string>> cases = {
        {},
        {address},
        {address, "m", "{}", "extra"},
        {"-t", "soon", address, "m"},
        {"--bogus", address, "m"},
        {address, std::string(256, 'm')},
        {address, "signin", "{\"pass\":\"s3cr3t-value"},
    };
    for (const auto& args : cases) {
        const RunResult run = zsCall(args);
        EXPECT_EQ(2, run.status) << run.err;
        EXPECT_NE(std::string::npos, run.err.find("usage: zs-call")) << run.err;
        EXPECT_EQ(std::string::npos, run.err.find("s3cr3t")) << run.err;
        EXPECT_EQ("", run.out);
    }
    const RunResult run = zsCall({address, "signin", "-"}, "{\"pass\": s3cr3t-value}");
    EXPECT_EQ(2, run.status);
    EXPECT_EQ(0u, run.err.find("zs-call: standard input is not valid JSON (line 1, column")) << run.err;
    EXPECT_EQ(std::string::npos, run.err.find("s3cr3t"));

    const RunResult help = zsCall({"--help"});
    EXPECT_EQ(0, help.status);
    EXPECT_EQ(0u, help.out.find("usage: zs-call"));
}
