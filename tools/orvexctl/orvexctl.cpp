// orvexctl: front end of the per-device session processes. Starts one for a device and
// signs it in, forwards a method call to it, stops one or all of them, and shows them
// (list, status) from their lock and status files without calling them. Replies are
// printed as JSON: indented on a terminal, compact otherwise. The password is never
// printed, never on the command line (--pass-env, --pass-stdin, ORVEX_PASS), and never
// left in the daemon's environment.
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <jansson.h>

#include <Poco/Exception.h>

#include "common/exceptions.h"
#include "common/misc.h"
#include "common/paths.h"
#include "common/raii.h"
#include "common/version.h"
#include "client/control.h"
#include "client/fleet.h"
#include "option/option.h"
#include "tools/orvexctl/command_line.h"
#include "tools/orvexctl/systemd_unit.h"
#include "zservice/channel.h"

namespace Orvex {
namespace ctl {
namespace {

enum ExitCode {
    kExitDone = 0,
    kExitErrorReply = 1,
    kExitUsage = 2,
    kExitNoSession = 3,
    kExitUnreachable = 4,
    kExitCredentials = 5,
};

JsonStyle g_style = JsonStyle::Auto;

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

// The cause the daemon recorded for its last failed sign-in, with the matching exit code.
int signinFailure(const std::string& mac)
{
    SessionInfo info;
    if (!findSession(mac, info) || !info.hasStatus || info.status.failure.empty())
        return kExitErrorReply;
    const std::string& cause = info.status.failure;
    std::fprintf(stderr, "orvexctl: sign-in to %s:%u for %s failed: %s\n", info.status.host.c_str(),
        info.status.port, mac.c_str(), cause.c_str());
    if (cause == "credentials")
        return kExitCredentials;
    if (cause == "refused" || cause == "unreachable" || cause == "tls-mismatch")
        return kExitUnreachable;
    return kExitErrorReply;
}

int runStart(const Command& command)
{
    std::string pass = password(command);
    if (access(Paths::kDaemonPath, X_OK) != 0)
        throw std::runtime_error(std::string(Paths::kDaemonPath) + " is not installed");
    JsonRef args = JsonRef::adopt(json_pack("{ss ss si ss ss sb}", "mac", command.mac.c_str(), "ip",
        command.ip.c_str(), "port", command.port, "user", command.user.c_str(), "pass", pass.c_str(),
        "secure", command.secure ? 1 : 0));
    DeviceOption option(args.get());
    Control::LaunchOptions launch;
    launch.level = command.level;
    JsonRef reply = withReply(json_object(), [&](json_t*& out) { Control::start(out, option, launch); });
    int code = report(reply.get(), command.mac, "signin");
    return code == kExitDone ? code : signinFailure(command.mac);
}

// The instance keeps trying after a failed first sign-in; the exit code says why it failed.
int runEnable(const Command& command)
{
    DeviceConfig config{command.mac, command.ip, command.port, command.user, command.secure, command.idleSeconds};
    Stored stored = enableInstance(config, password(command));
    std::printf("%s enabled as %s (password %s)\n", command.mac.c_str(), Paths::unitName(command.mac).c_str(),
        stored == Stored::Encrypted ? "encrypted by systemd-creds" : "in a root-only file");
    StatusRecord record;
    if (command.timeoutSeconds == 0)
        return kExitDone;
    if (!waitForSignin(command.mac, std::chrono::seconds(command.timeoutSeconds), record)) {
        std::fprintf(stderr, "orvexctl: %s: no sign-in within %d s (orvexctl status %s)\n", command.mac.c_str(),
            command.timeoutSeconds, command.mac.c_str());
        return kExitErrorReply;
    }
    if (record.signedIn) {
        std::printf("%s signed in to %s device %s:%u (pid %d)\n", command.mac.c_str(), familyName(record.family),
            record.host.c_str(), record.port, static_cast<int>(record.pid));
        return kExitDone;
    }
    int code = signinFailure(command.mac);
    std::fprintf(stderr, "orvexctl: %s keeps trying to sign in\n", Paths::unitName(command.mac).c_str());
    return code;
}

int runDisable(const Command& command)
{
    disableInstance(command.mac);
    std::printf("%s disabled, stopped, its settings and password removed\n", command.mac.c_str());
    return kExitDone;
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
    JsonRef reply = withReply(parsed, [&](json_t*& inout) { Control::call(inout, option, command.method); });
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
    if (zs_call(Paths::busAddress(command.mac).c_str(), "help", io.get(), 30, -1) != 0)
        throw SessionNotFound(command.mac, 0);
    std::fwrite(zs_io_read(io.get(), 0), 1, zs_io_size(io.get()), stdout);
    return kExitDone;
}

// One line per session that ended; survivors on standard error and in the exit code.
int reportStop(const Control::StopReport& report)
{
    for (const Control::Ended& e : report.ended)
        std::printf("%s pid %d ended (%s)\n", e.mac.empty() ? "-" : e.mac.c_str(), static_cast<int>(e.pid),
            e.how.c_str());
    for (const Control::Ended& e : report.survivors)
        std::fprintf(stderr, "orvexctl: %s pid %d still runs after %s\n", e.mac.empty() ? "-" : e.mac.c_str(),
            static_cast<int>(e.pid), e.how.c_str());
    std::fflush(stdout);
    return report.survivors.empty() ? kExitDone : kExitErrorReply;
}

std::chrono::milliseconds grace(const Command& command)
{
    return std::chrono::seconds(command.graceSeconds);
}

JsonRef sessionJson(const SessionInfo& s, time_t now)
{
    JsonRef o = JsonRef::adopt(json_pack("{ss si ss sb sI}", "mac", s.mac.c_str(), "pid", static_cast<int>(s.pid),
        "state", stateName(s.state), "stopped", s.stopped, "uptime", static_cast<json_int_t>(s.uptime)));
    if (s.state == SessionState::Exited || !s.hasStatus)
        return o;
    const StatusRecord& r = s.status;
    json_object_update(o.get(), JsonRef::adopt(json_pack("{ss ss si sb ss ss ss ss sb ss sI}", "family",
        familyName(r.family), "host", r.host.c_str(), "port", static_cast<int>(r.port), "secure", r.secure, "model",
        r.model.c_str(), "serial", r.serial.c_str(), "firmware", r.firmware.c_str(), "hostname", r.hostname.c_str(),
        "signed_in", r.signedIn, "failure", r.failure.c_str(), "idle",
        static_cast<json_int_t>(r.lastUse > 0 ? now - r.lastUse : -1))).get());
    return o;
}

std::string sessionLine(const SessionInfo& s, time_t now)
{
    std::string line = strformat("%s pid %d %s", s.mac.c_str(), static_cast<int>(s.pid), stateName(s.state));
    if (s.state == SessionState::Exited)
        return line;
    if (s.stopped)
        line += " (stopped)";
    if (s.uptime >= 0)
        line += strformat(" up %lds", s.uptime);
    if (!s.hasStatus)
        return line;
    const StatusRecord& r = s.status;
    if (!r.host.empty())
        line += strformat(" %s %s:%u%s", familyName(r.family), r.host.c_str(), r.port, r.secure ? " https" : "");
    if (r.signedIn)
        line += strformat(" model=%s serial=%s firmware=%s hostname=%s", r.model.c_str(), r.serial.c_str(),
            r.firmware.c_str(), r.hostname.c_str());
    else
        line += r.failure.empty() ? " not signed in" : " sign-in failed: " + r.failure;
    if (r.lastUse > 0)
        line += strformat(" idle %lds", static_cast<long>(now - r.lastUse));
    return line;
}

int printSessions(const std::vector<SessionInfo>& sessions, bool json, bool array)
{
    time_t now = time(nullptr);
    bool allRun = true;
    JsonRef list = JsonRef::adopt(json_array());
    std::string text;
    for (const SessionInfo& s : sessions) {
        allRun = allRun && s.state != SessionState::Exited;
        if (json)
            json_array_append_new(list.get(), sessionJson(s, now).release());
        else
            text += sessionLine(s, now) + "\n";
    }
    if (json)
        printJson(array ? list.get() : json_array_get(list.get(), 0));
    else
        std::fputs(text.c_str(), stdout);
    return allRun ? kExitDone : kExitNoSession;
}

int runStatus(const Command& command)
{
    SessionInfo info;
    if (!findSession(command.mac, info)) {
        std::fprintf(stderr, "orvexctl: no session was started for MAC %s\n", command.mac.c_str());
        return kExitNoSession;
    }
    return printSessions({info}, command.jsonOutput, false);
}

int runCommand(const Command& command)
{
    switch (command.action) {
    case Action::Start:
        return runStart(command);
    case Action::Call:
        return command.method == "help" ? runHelp(command) : runCall(command);
    case Action::Stop:
        return reportStop(Control::stopOne(command.mac, grace(command)));
    case Action::StopAll:
        return reportStop(Control::stopAll(grace(command)));
    case Action::List:
        return printSessions(listSessions(), command.jsonOutput, true);
    case Action::Status:
        return runStatus(command);
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
        g_style = command.style;
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
