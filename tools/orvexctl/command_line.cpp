#include "tools/orvexctl/command_line.h"

#include <vector>

#include <Poco/NumberParser.h>

#include "common/paths.h"

namespace Orvex {
namespace ctl {

const char* const kUsage =
    "usage: orvexctl start MAC --ip IP --port PORT --user USER [--pass-env VAR | --pass-stdin]\n"
    "                [--secure] [--level N]\n"
    "       orvexctl call MAC METHOD [JSON]\n"
    "       orvexctl stop MAC [--grace SECONDS]\n"
    "       orvexctl stop --all [--grace SECONDS]\n"
    "       orvexctl list [--json]\n"
    "       orvexctl status MAC [--json]\n"
    "       orvexctl enable MAC --ip IP --port PORT --user USER [--pass-env VAR | --pass-stdin]\n"
    "                [--secure] [--idle SECONDS] [--timeout SECONDS]\n"
    "       orvexctl disable MAC\n"
    "       orvexctl --help | --version\n"
    "Anywhere: --json=short|pretty (or --pretty) sets how JSON is printed; the default is\n"
    "indented on a terminal, compact otherwise.\n"
    "start: without --pass-env or --pass-stdin the password is read from ORVEX_PASS; the\n"
    "daemon never sees it in its environment. --level sets the daemon's log level (0-8).\n"
    "stop: asks the session to sign out; one that does not end gets SIGTERM, and SIGKILL\n"
    "after the grace period (default 5 s). Each session that ended is reported.\n"
    "list, status: MAC, pid, state (running, exited, stale binary), uptime and, for a\n"
    "running session, family, device, identity and seconds since last use; read from the\n"
    "status files, so looking does not count as use.\n"
    "enable (root, under systemd): stores the device's settings in /etc/orvex and its\n"
    "password as the unit's credential (encrypted by systemd-creds where it can), then\n"
    "enables and starts orvex-session@MAC, which signs itself in, again after every\n"
    "restart, and comes back after every end but a signout or a stop. --idle ends an\n"
    "unused session after SECONDS (default 600, 0: never; it then comes back); enable\n"
    "waits up to --timeout SECONDS (default 15, 0: not at all) for the first sign-in.\n"
    "disable: stops the instance (it signs out), disables it and removes its files.\n"
    "Exit status:\n"
    "  0  done (list, status: every session listed runs)\n"
    "  1  the session answered with an error, a stop left survivors, or another failure\n"
    "  2  bad command line\n"
    "  3  no session process answers for the MAC (list, status: a session does not run)\n"
    "  4  start, enable: the device is unreachable (refused, no route, time-out, TLS\n"
    "     mismatch)\n"
    "  5  start, enable: the device rejected the credentials\n";

namespace {

using Args = std::vector<std::string>;

std::string requireValue(const Args& args, size_t& i, const std::string& name)
{
    if (i + 1 >= args.size())
        throw UsageError("option " + name + " needs a value");
    return args[++i];
}

int parseNumber(const std::string& text, int low, int high, const char* what)
{
    int value = 0;
    if (!Poco::NumberParser::tryParse(text, value) || value < low || value > high)
        throw UsageError(std::string(what) + " '" + text + "' is not a number from " + std::to_string(low) + " to " +
                         std::to_string(high));
    return value;
}

void setPass(Command& command, PassSource source, const std::string& variable)
{
    if (command.passSource != PassSource::Default)
        throw UsageError("give only one of --pass-env and --pass-stdin");
    command.passSource = source;
    command.passVariable = variable;
}

// "--name value" and "--name=value" both work.
struct Word {
    std::string name, value;
    bool hasValue = false;
    explicit Word(const std::string& text) : name(text)
    {
        size_t eq = text.find('=');
        if (eq != std::string::npos && text.compare(0, 2, "--") == 0) {
            hasValue = true;
            name = text.substr(0, eq);
            value = text.substr(eq + 1);
        }
    }
};

void applyStartOption(Command& command, const Args& args, size_t& i)
{
    Word word(args[i]);
    auto take = [&]() { return word.hasValue ? word.value : requireValue(args, i, word.name); };
    const bool enable = command.action == Action::Enable;
    if (enable && word.name == "--idle")
        command.idleSeconds = parseNumber(take(), 0, 365 * 24 * 3600, "idle");
    else if (enable && word.name == "--timeout")
        command.timeoutSeconds = parseNumber(take(), 0, 3600, "timeout");
    else if (enable && word.name == "--level")
        throw UsageError("unknown option '" + args[i] + "' for enable");
    else if (word.name == "--ip")
        command.ip = take();
    else if (word.name == "--port")
        command.port = parseNumber(take(), 1, 65535, "port");
    else if (word.name == "--user")
        command.user = take();
    else if (word.name == "--pass")
        throw UsageError("--pass would show the password to every user in the process list; use --pass-env VAR "
                         "or --pass-stdin");
    else if (word.name == "--pass-env")
        setPass(command, PassSource::Environment, take());
    else if (word.name == "--pass-stdin" && !word.hasValue)
        setPass(command, PassSource::Stdin, "");
    else if (word.name == "--secure" && !word.hasValue)
        command.secure = true;
    else if (word.name == "--level")
        command.level = parseNumber(take(), 0, 8, "level");
    else
        throw UsageError("unknown option '" + args[i] + "' for " + args[0]);
}

// start and enable: a device, where it is and who signs in.
Command parseStart(const Args& args, Action action)
{
    const std::string& verb = args[0];
    if (args.size() < 2)
        throw UsageError(verb + " needs a MAC address");
    Command command;
    command.action = action;
    command.mac = normaliseMac(args[1]);
    for (size_t i = 2; i < args.size(); ++i)
        applyStartOption(command, args, i);
    if (command.ip.empty())
        throw UsageError(verb + " needs --ip");
    if (command.port == 0)
        throw UsageError(verb + " needs --port");
    if (command.user.empty())
        throw UsageError(verb + " needs --user");
    return command;
}

Command parseDisable(const Args& args)
{
    if (args.size() != 2)
        throw UsageError("disable needs one MAC address");
    Command command;
    command.action = Action::Disable;
    command.mac = normaliseMac(args[1]);
    return command;
}

Command parseCall(const Args& args)
{
    if (args.size() < 3 || args.size() > 4)
        throw UsageError("call needs a MAC address, a method and at most one JSON argument");
    Command command;
    command.action = Action::Call;
    command.mac = normaliseMac(args[1]);
    command.method = args[2];
    if (command.method.empty())
        throw UsageError("call needs a method name");
    if (args.size() == 4)
        command.json = args[3];
    return command;
}

Command parseStop(const Args& args)
{
    Command command;
    command.action = Action::Stop;
    bool target = false;
    for (size_t i = 1; i < args.size(); ++i) {
        Word word(args[i]);
        if (word.name == "--grace")
            command.graceSeconds = parseNumber(word.hasValue ? word.value : requireValue(args, i, word.name), 0,
                3600, "grace");
        else if (target)
            throw UsageError("stop takes one MAC address or --all");
        else if (args[i] == "--all")
            target = true, command.action = Action::StopAll;
        else
            target = true, command.mac = normaliseMac(args[i]);
    }
    if (!target)
        throw UsageError("stop needs a MAC address or --all");
    return command;
}

Command parseListing(const Args& args, Action action)
{
    Command command;
    command.action = action;
    size_t macs = 0;
    for (size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "--json")
            command.jsonOutput = true;
        else if (action == Action::Status && macs++ == 0)
            command.mac = normaliseMac(args[i]);
        else
            throw UsageError("unexpected '" + args[i] + "' for " + args[0]);
    }
    if (action == Action::Status && macs == 0)
        throw UsageError("status needs a MAC address");
    return command;
}

// Takes --pretty and --json=short|pretty out of args, wherever they stand.
JsonStyle takeStyle(Args& args)
{
    JsonStyle style = JsonStyle::Auto;
    for (auto it = args.begin(); it != args.end();) {
        if (*it == "--pretty" || *it == "--json=pretty")
            style = JsonStyle::Pretty;
        else if (*it == "--json=short")
            style = JsonStyle::Short;
        else if (it->compare(0, 7, "--json=") == 0)
            throw UsageError("--json takes short or pretty, not '" + it->substr(7) + "'");
        else {
            ++it;
            continue;
        }
        it = args.erase(it);
    }
    return style;
}

Command parseAction(const Args& args)
{
    const std::string& verb = args[0];
    if (verb == "-h" || verb == "--help" || verb == "help")
        return Command{};
    if (verb == "--version") {
        Command command;
        command.action = Action::Version;
        return command;
    }
    if (verb == "start")
        return parseStart(args, Action::Start);
    if (verb == "enable")
        return parseStart(args, Action::Enable);
    if (verb == "disable")
        return parseDisable(args);
    if (verb == "call")
        return parseCall(args);
    if (verb == "stop")
        return parseStop(args);
    if (verb == "list")
        return parseListing(args, Action::List);
    if (verb == "status")
        return parseListing(args, Action::Status);
    throw UsageError("unknown command '" + verb + "'");
}

}  // namespace

std::string normaliseMac(const std::string& text)
{
    std::string mac = Paths::normaliseMac(text);
    if (!Paths::validMac(mac))
        throw UsageError("'" + text + "' is not a MAC address (six hex pairs joined by ':')");
    return mac;
}

Command parseCommandLine(int argc, const char* const* argv)
{
    Args args(argv + (argc > 0 ? 1 : 0), argv + argc);
    JsonStyle style = takeStyle(args);
    if (args.empty())
        throw UsageError("no command given");
    Command command = parseAction(args);
    command.style = style;
    if (style != JsonStyle::Auto)
        command.jsonOutput = true;
    return command;
}

}  // namespace ctl
}  // namespace Orvex
