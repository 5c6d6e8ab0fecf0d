// zs-call run as a program: output, exit status and messages.
#include "tests/unit/zservice_support.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <vector>

using namespace Orvex::Test;

namespace {

struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;
};

// Collects both outputs until the program closes them, for at most 10 s; false on time-out.
bool drain(std::vector<pollfd>& fds, std::string* sinks[2])
{
    char buffer[4096];
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while ((fds[0].fd >= 0 || fds[1].fd >= 0) && std::chrono::steady_clock::now() < end) {
        if (poll(fds.data(), 2, 1000) <= 0)
            continue;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || !fds[i].revents)
                continue;
            const ssize_t n = read(fds[i].fd, buffer, sizeof(buffer));
            if (n > 0) {
                sinks[i]->append(buffer, static_cast<size_t>(n));
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;
            }
        }
    }
    bool closed = true;
    for (auto& p : fds) {
        if (p.fd >= 0) {
            close(p.fd);
            closed = false;
        }
    }
    return closed;
}

// Runs zs-call with `input` on a pipe as standard input, or with the given descriptor.
ToolRun runTool(std::vector<std::string> args, const std::string& input = "", int stdinFd = -1)
{
    int in[2], out[2], err[2];
    EXPECT_EQ(0, pipe2(in, O_CLOEXEC));
    EXPECT_EQ(0, pipe2(out, O_CLOEXEC));
    EXPECT_EQ(0, pipe2(err, O_CLOEXEC));
    args.insert(args.begin(), ZS_CALL_PATH);
    std::vector<char*> argv;
    for (auto& arg : args)
        argv.push_back(arg.data());
    argv.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(stdinFd >= 0 ? stdinFd : in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(in[0]);
    close(out[1]);
    close(err[1]);
    EXPECT_EQ(static_cast<ssize_t>(input.size()), write(in[1], input.data(), input.size()));
    close(in[1]);
    ToolRun run;
    std::vector<pollfd> fds{{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string* sinks[2] = {&run.out, &run.err};
    int status = 0;
    if (!drain(fds, sinks)) {
        ADD_FAILURE() << "zs-call did not finish in time";
        kill(child, SIGKILL);
    }
    waitpid(child, &status, 0);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return run;
}

void replyWith(zs_io* io, int fd, const char* body)
{
    zs_io_realloc(io, 0);
    zs_io_printf(io, "%s", body);
    zs_reply(io);
    zs_io_free(io);
    if (fd >= 0)
        close(fd);
}

}  // namespace

TEST(ZsCallTool, SendsTheBodyFromArgumentOrStdinAndPrintsTheReplyWithANewline)
{
    TestService service;
    ToolRun run = runTool({service.address(), "get", "{\"a\": 1}"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("echo:get:{\"a\": 1}\n", run.out);
    EXPECT_EQ("", run.err);

    run = runTool({service.address(), "get", "-"}, "[1,2]\n");
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("echo:get:[1,2]\n", run.out);

    run = runTool({"-t", "5", service.address(), "help"});
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
    const ToolRun run = runTool({service.address(), "m", "-"}, "", terminal);
    close(terminal);
    close(master);
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("zs-call: waiting for JSON on standard input (end it with Ctrl-D)\n", run.err);
    EXPECT_EQ("echo:m:{\"t\":1}\n", run.out);
}

TEST(ZsCallTool, PrettyPrintsJsonRepliesAndLeavesOtherTextAlone)
{
    TestService service([](const char* method, zs_io* io, int fd) {
        replyWith(io, fd, strcmp(method, "json") == 0 ? "{\"a\":1,\"b\":[true]}" : "\nplain text\n");
    });
    ToolRun run = runTool({"--pretty", service.address(), "json"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("{\n  \"a\": 1,\n  \"b\": [\n    true\n  ]\n}\n", run.out);
    run = runTool({"--pretty", service.address(), "text"});
    EXPECT_EQ("\nplain text\n", run.out);
    // Compact as it came when not asked and not on a terminal.
    run = runTool({service.address(), "json"});
    EXPECT_EQ("{\"a\":1,\"b\":[true]}\n", run.out);
}

TEST(ZsCallTool, FdHandsStandardOutputToTheService)
{
    TestService service([](const char* method, zs_io* io, int fd) {
        const bool haveFd = fd >= 0;
        if (haveFd) {
            EXPECT_EQ(7, write(fd, "direct\n", 7));
        }
        replyWith(io, fd, strcmp(method, "both") == 0 ? "bus" : haveFd ? "" : "no descriptor");
    });
    ToolRun run = runTool({"--fd", service.address(), "only"});
    EXPECT_EQ(0, run.status);
    EXPECT_EQ("direct\n", run.out);
    run = runTool({"--fd", service.address(), "both"});
    EXPECT_EQ("direct\nbus\n", run.out);
}

TEST(ZsCallTool, BusFailuresExitOneWithOneLineNamingTheAddress)
{
    const std::string secret = "{\"pass\":\"s3cr3t-value\"}";
    const std::string nobody = uniqueAddress("nobody");
    ToolRun run = runTool({nobody, "signin", secret});
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
    run = runTool({"-t", "1", service.address(), "park", secret});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ("zs-call: no reply from " + service.address() + " within 1 s\n", run.err);
    run = runTool({service.address(), "drop", secret});
    EXPECT_EQ(1, run.status);
    EXPECT_EQ("zs-call: " + service.address() + " closed the call without a valid reply\n", run.err);
    service.stop();
    for (zs_io* io : parked)
        zs_io_free(io);

    const std::string tooLong = "@" + std::string(200, 'a');
    run = runTool({tooLong, "m"});
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
        const ToolRun run = runTool(args);
        EXPECT_EQ(2, run.status) << run.err;
        EXPECT_NE(std::string::npos, run.err.find("usage: zs-call")) << run.err;
        EXPECT_EQ(std::string::npos, run.err.find("s3cr3t")) << run.err;
        EXPECT_EQ("", run.out);
    }
    const ToolRun run = runTool({address, "signin", "-"}, "{\"pass\": s3cr3t-value}");
    EXPECT_EQ(2, run.status);
    EXPECT_EQ(0u, run.err.find("zs-call: standard input is not valid JSON (line 1, column")) << run.err;
    EXPECT_EQ(std::string::npos, run.err.find("s3cr3t"));

    const ToolRun help = runTool({"--help"});
    EXPECT_EQ(0, help.status);
    EXPECT_EQ(0u, help.out.find("usage: zs-call"));
}
