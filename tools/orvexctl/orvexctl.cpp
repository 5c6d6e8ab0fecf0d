// orvexctl: front end of the per-device session processes. Starts one for a device and
// signs it in, forwards a method call to it, or stops one or all of them. Replies are
// printed as JSON: indented on a terminal, compact otherwise. The password is never
// printed and need not be on the command line (--pass-env, --pass-stdin, ORVEX_PASS).
#include <fcntl.h>
#include <sys/file.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>

#include <jansson.h>

#include <Poco/Exception.h>

#include "common/exceptions.h"
#include "common/misc.h"
#include "common/raii.h"
#include "option/option.h"
#include "session/session.h"
#include "tools/orvexctl/command_line.h"
#include "zservice/channel.h"

namespace Orvex {
namespace ctl {
namespace {

enum ExitCode { kExitDone = 0, kExitErrorReply = 1, kExitUsage = 2, kExitNoSession = 3 };

constexpr const char* kDaemonPath = "/usr/local/sbin/orvex-session";
constexpr const char* kBusDirectory = "/var/run/orvex";
constexpr const char* kLockFormat = "/var/lock/orvex-session@%s.pid";

// Runs op on a JSON value that it may replace, and keeps whatever it ends up holding.
template <typename Operation>
JsonRef withReply(json_t* initial, Operation op)
{
    json_t* value = initial;
    try {
        op(value);
    } catch (...) {
        json_decref(value);
        throw;
    }
    return JsonRef::adopt(value);
}

std::string readHiddenLine()
{
    bool terminal = isatty(STDIN_FILENO);
    termios saved{};
    if (terminal && tcgetattr(STDIN_FILENO, &saved) == 0) {
        std::fputs("Password: ", stderr);
        termios quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &quiet);
    }
    std::string line;
    bool got = static_cast<bool>(std::getline(std::cin, line));
    if (terminal) {
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved);
        std::fputs("\n", stderr);
    }
    if (!got)
        throw UsageError("no password on standard input");
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

std::string environmentPassword(const std::string& name)
{
    const char* value = std::getenv(name.c_str());
    if (!value)
        throw UsageError("environment variable " + name + " is not set");
    return value;
}

std::string password(const Command& command)
{
    switch (command.passSource) {
    case PassSource::Literal:
        return command.pass;
    case PassSource::Environment:
        return environmentPassword(command.pass);
    case PassSource::Stdin:
        return readHiddenLine();
    case PassSource::Default:
        break;
    }
    if (!std::getenv("ORVEX_PASS"))
        throw UsageError("start needs --pass, --pass-env VAR or --pass-stdin (or ORVEX_PASS)");
    return environmentPassword("ORVEX_PASS");
}

void printJson(json_t* value)
{
    size_t flags = isatty(STDOUT_FILENO) ? JSON_INDENT(2) : JSON_COMPACT;
    char* text = json_dumps(value, flags);
    if (text) {
        std::printf("%s\n", text);
        std::fflush(stdout);
    }
    free(text);
}

// Success unless "error_code" is present and not 0: replies of the methods carry the
// device's data and the status keys only when something failed.
int report(json_t* reply, const std::string& mac, const std::string& method)
{
    printJson(reply);
    json_int_t code = json_integer_value(json_object_get(reply, "error_code"));
    if (code == 0)
        return kExitDone;
    const char* message = json_string_value(json_object_get(reply, "error_message"));
    std::fprintf(stderr, "orvexctl: %s on %s failed: %s (error %lld)\n", method.c_str(), mac.c_str(),
        message && *message ? message : "no message", static_cast<long long>(code));
    return kExitErrorReply;
}

int runStart(const Command& command)
{
    std::string pass = password(command);
    if (access(kDaemonPath, X_OK) != 0)
        throw std::runtime_error(std::string(kDaemonPath) + " is not installed");
    JsonRef args = JsonRef::adopt(json_pack("{ss ss si ss ss sb}", "mac", command.mac.c_str(), "ip",
        command.ip.c_str(), "port", command.port, "user", command.user.c_str(), "pass", pass.c_str(),
        "secure", command.secure ? 1 : 0));
    DeviceOption option(args.get());
    JsonRef reply = withReply(json_object(), [&](json_t*& out) { Session::start(out, option); });
    return report(reply.get(), command.mac, "signin");
}

int runCall(const Command& command)
{
    json_t* parsed = json_loads(command.json.c_str(), 0, nullptr);
    if (!json_is_object(parsed)) {
        json_decref(parsed);
        throw UsageError("the arguments of " + command.method + " must be one JSON object");
    }
    JsonRef args = JsonRef::adopt(json_pack("{ss}", "mac", command.mac.c_str()));
    DeviceOption option(args.get());
    JsonRef reply = withReply(parsed, [&](json_t*& inout) { Session::call(inout, option, command.method); });
    return report(reply.get(), command.mac, command.method);
}

// help answers with plain text, which the JSON call path would drop: ask the bus directly.
int runHelp(const Command& command)
{
    JsonRef args = JsonRef::adopt(json_loads(command.json.c_str(), 0, nullptr));
    if (!json_is_object(args.get()))
        throw UsageError("the arguments of help must be one JSON object");
    ZsIoPtr io = makeZsIo();
    char* body = json_dumps(args.get(), JSON_COMPACT);
    zs_io_write(io.get(), body, strlen(body));
    free(body);
    std::string address = strformat("@%s/orvex-session@%s", kBusDirectory, command.mac.c_str());
    if (zs_call(address.c_str(), "help", io.get(), 30, -1) != 0)
        throw SessionNotFound(command.mac, 0);
    std::fwrite(zs_io_read(io.get(), 0), 1, zs_io_size(io.get()), stdout);
    return kExitDone;
}

// The process replies to signout before it exits; wait until its lock is free so that a
// following start for the same device does not find it still running.
void waitForExit(const std::string& mac)
{
    UniqueFd lock(open(strformat(kLockFormat, mac.c_str()).c_str(), O_RDONLY | O_CLOEXEC));
    if (!lock)
        return;
    for (int i = 0; i < 500; ++i) {
        if (flock(lock.get(), LOCK_SH | LOCK_NB) == 0)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    std::fprintf(stderr, "orvexctl: the session process for %s is still running after signout\n", mac.c_str());
}

int runStop(const Command& command)
{
    JsonRef args = JsonRef::adopt(json_pack("{ss}", "mac", command.mac.c_str()));
    MacOption option(args.get());
    JsonRef out = withReply(json_object(), [&](json_t*& value) { Session::stop(value, option); });
    waitForExit(command.mac);
    return kExitDone;
}

int runCommand(const Command& command)
{
    switch (command.action) {
    case Action::Start:
        return runStart(command);
    case Action::Call:
        return command.method == "help" ? runHelp(command) : runCall(command);
    case Action::Stop:
        return runStop(command);
    case Action::StopAll:
        Session::stop();
        return kExitDone;
    case Action::Help:
        break;
    }
    std::fputs(kUsage, stdout);
    return kExitDone;
}

int runMain(int argc, char** argv)
{
    Command command;
    try {
        command = parseCommandLine(argc, argv);
        return runCommand(command);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "orvexctl: %s (orvexctl --help shows the usage)\n", e.what());
        return kExitUsage;
    } catch (const SessionNotFound&) {
        std::fprintf(stderr, "orvexctl: no session process answers for MAC %s\n", command.mac.c_str());
        return kExitNoSession;
    } catch (const Poco::Exception& e) {
        std::fprintf(stderr, "orvexctl: %s\n", e.displayText().c_str());
        return kExitErrorReply;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orvexctl: %s\n", e.what());
        return kExitErrorReply;
    }
}

}  // namespace
}  // namespace ctl
}  // namespace Orvex

int main(int argc, char** argv)
{
    return Orvex::ctl::runMain(argc, argv);
}
