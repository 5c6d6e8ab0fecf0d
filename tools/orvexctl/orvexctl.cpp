// orvexctl: front end of the per-device session processes. Starts one for a device (or a
// fleet from a file) and signs it in, forwards a method call to one or many, stops one or
// all of them, shows them (list, status) from their lock and status files without calling
// them, forgets the ones that ended, shows one device's log lines, and hands a device to
// systemd's unit (enable, disable). Replies are printed as JSON: indented on a terminal,
// compact otherwise. The password is never printed, never on the command line
// (--pass-env, --pass-stdin, --pass-file, ORVEX_PASS), and never left in the daemon's
// environment.
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>

#include <jansson.h>

#include <Poco/Exception.h>

#include "client/control.h"
#include "client/fleet.h"
#include "common/exceptions.h"
#include "common/paths.h"
#include "common/raii.h"
#include "common/version.h"
#include "tools/orvexctl/ctl.h"
#include "zservice/channel.h"

namespace Orvex {
namespace ctl {

namespace {

JsonStyle g_style = JsonStyle::Auto;

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

// The value, which is then removed from our environment, so the daemon we launch does
// not inherit it.
std::string environmentPassword(const std::string& name)
{
    const char* value = std::getenv(name.c_str());
    if (!value)
        throw UsageError("environment variable " + name + " is not set");
    std::string pass = value;
    unsetenv(name.c_str());
    return pass;
}

int runStart(const Command& command)
{
    StartRequest request =
        startRequest(command, DeviceEntry{command.mac, command.ip, command.port, command.user, command.secure});
    request.pass = password(command);
    requireDaemon();
    return printOutcome(startDevice(request));
}

int runCall(const Command& command)
{
    JsonRef args = callArguments(command);
    return printOutcome(callDevice(command.mac, command.method, args.get(), command.timeoutSeconds));
}

// help answers with plain text, which the JSON call path would drop: ask the bus directly.
int runHelp(const Command& command)
{
    JsonRef args = callArguments(command);
    ZsIoPtr io = makeZsIo();
    char* body = json_dumps(args.get(), JSON_COMPACT);
    zs_io_write(io.get(), body, strlen(body));
    free(body);
    if (zs_call(Paths::busAddress(command.mac).c_str(), "help", io.get(), command.timeoutSeconds, -1) != 0)
        throw SessionNotFound(command.mac, 0);
    std::fwrite(zs_io_read(io.get(), 0), 1, zs_io_size(io.get()), stdout);
    return kExitDone;
}

JsonRef endedJson(const std::vector<Control::Ended>& list)
{
    JsonRef array = JsonRef::adopt(json_array());
    for (const Control::Ended& e : list)
        json_array_append_new(array.get(), json_pack("{ss si ss}", "mac", e.mac.c_str(), "pid", static_cast<int>(e.pid),
            "how", e.how.c_str()));
    return array;
}

// One line per session that ended (or one JSON object); survivors on standard error and in
// the exit code.
int reportStop(const Control::StopReport& report, const Command& command)
{
    if (command.jsonOutput) {
        printJson(JsonRef::adopt(json_pack("{so so}", "ended", endedJson(report.ended).release(), "survivors",
            endedJson(report.survivors).release())).get());
    } else {
        for (const Control::Ended& e : report.ended)
            std::printf("%s pid %d ended (%s)\n", e.mac.empty() ? "-" : e.mac.c_str(), static_cast<int>(e.pid),
                e.how.c_str());
    }
    for (const Control::Ended& e : report.survivors)
        std::fprintf(stderr, "orvexctl: %s pid %d still runs after %s\n", e.mac.empty() ? "-" : e.mac.c_str(),
            static_cast<int>(e.pid), e.how.c_str());
    std::fflush(stdout);
    return report.survivors.empty() ? kExitDone : kExitFailure;
}

std::chrono::milliseconds grace(const Command& command)
{
    return std::chrono::seconds(command.graceSeconds);
}

// The session processes run as root and answer root alone (and the files they share with
// us are root's), and enable and disable write root's configuration: say so instead of
// reporting the sessions absent or failing halfway.
void requireRoot(const Command& command)
{
    const char* name = nullptr;
    const char* why = "the session processes run as root and answer root alone";
    switch (command.action) {
    case Action::Start:
    case Action::StartFrom:
        name = "start";
        break;
    case Action::Call:
    case Action::CallMany:
        name = "call";
        break;
    case Action::Stop:
    case Action::StopAll:
        name = "stop";
        break;
    case Action::Forget:
        name = "forget";
        break;
    case Action::Enable:
    case Action::Disable:
        name = command.action == Action::Enable ? "enable" : "disable";
        why = "it changes the files of the unit's instance in /etc";
        break;
    default:
        return;
    }
    if (geteuid() != 0)
        throw NeedsRoot(std::string(name) + " needs root: " + why);
}

int runCommand(const Command& command)
{
    requireRoot(command);
    switch (command.action) {
    case Action::Start:
        return runStart(command);
    case Action::StartFrom:
        return runStartFrom(command);
    case Action::Call:
        return command.method == "help" ? runHelp(command) : runCall(command);
    case Action::CallMany:
        return runCallMany(command);
    case Action::Stop:
        return reportStop(Control::stopOne(command.mac, grace(command)), command);
    case Action::StopAll:
        return reportStop(Control::stopAll(grace(command)), command);
    case Action::List:
        return runList(command);
    case Action::Status:
        return runStatus(command);
    case Action::Forget:
        return runForget(command);
    case Action::Logs:
        return runLogs(command);
    case Action::Enable:
        return runEnable(command);
    case Action::Disable:
        return runDisable(command);
    case Action::Version:
        std::printf("orvexctl %s\n", version());
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
        setStyle(command.style);
        return runCommand(command);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "orvexctl: %s (orvexctl --help shows the usage)\n", e.what());
        return kExitUsage;
    } catch (const FleetFileError& e) {
        std::fprintf(stderr, "orvexctl: %s\n", e.what());
        return kExitUsage;
    } catch (const SessionNotFound&) {
        std::fprintf(stderr, "orvexctl: no session process answers for MAC %s\n", command.mac.c_str());
        return kExitNoSession;
    } catch (const NeedsRoot& e) {
        std::fprintf(stderr, "orvexctl: %s\n", e.what());
        return kExitNeedsRoot;
    } catch (const Poco::Exception& e) {
        std::fprintf(stderr, "orvexctl: %s\n", e.displayText().c_str());
        return kExitFailure;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orvexctl: %s\n", e.what());
        return kExitFailure;
    }
}

}  // namespace

void setStyle(JsonStyle style)
{
    g_style = style;
}

void printJson(json_t* value)
{
    bool pretty = g_style == JsonStyle::Pretty || (g_style == JsonStyle::Auto && isatty(STDOUT_FILENO));
    size_t flags = pretty ? JSON_INDENT(2) : JSON_COMPACT;
    char* text = json_dumps(value, flags);
    if (text) {
        std::printf("%s\n", text);
        std::fflush(stdout);
    }
    free(text);
}

int printOutcome(const Outcome& outcome)
{
    if (outcome.reply)
        printJson(outcome.reply.get());
    if (!outcome.message.empty())
        std::fprintf(stderr, "orvexctl: %s\n", outcome.message.c_str());
    return outcome.code;
}

std::string compactJson(json_t* value)
{
    char* text = json_dumps(value, JSON_COMPACT);
    std::string line = text ? text : "null";
    free(text);
    return line;
}

std::string password(const Command& command)
{
    std::string pass;
    if (command.passSource == PassSource::Environment)
        pass = environmentPassword(command.passVariable);
    else if (command.passSource == PassSource::Stdin)
        pass = readHiddenLine();
    else if (std::getenv("ORVEX_PASS"))
        pass = environmentPassword("ORVEX_PASS");
    else
        throw UsageError(std::string(command.action == Action::Enable ? "enable" : "start") +
                         " needs --pass-env VAR or --pass-stdin (or ORVEX_PASS)");
    unsetenv("ORVEX_PASS");
    return pass;
}

}  // namespace ctl
}  // namespace Orvex

int main(int argc, char** argv)
{
    // jansson's hash seed, once, before start --from and call --all make JSON on many threads.
    json_object_seed(0);
    return Orvex::ctl::runMain(argc, argv);
}
