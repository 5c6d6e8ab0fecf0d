#include "tools/orvexctl/command_line.h"

#include <vector>

#include <Poco/NumberParser.h>

#include "common/paths.h"

namespace Orvex {
namespace ctl {

const char* const kUsage =
    "usage: orvexctl start MAC --ip IP --port PORT --user USER [--pass-env VAR | --pass-stdin]\n"
    "                [--secure] [--level N] [--timeout SECONDS] [--replace]\n"
    "       orvexctl start --from FILE [--pass-env VAR | --pass-stdin | --pass-file FILE]\n"
    "                [--level N] [--timeout SECONDS] [--replace] [--parallel N]\n"
    "       orvexctl call MAC METHOD [JSON] [--timeout SECONDS]\n"
    "       orvexctl call --all | --macs FILE METHOD [JSON] [--timeout SECONDS]\n"
    "                [--parallel N]\n"
    "       orvexctl stop MAC [--grace SECONDS]\n"
    "       orvexctl stop --all [--grace SECONDS]\n"
    "       orvexctl list [--all]\n"
    "       orvexctl status MAC\n"
    "       orvexctl forget MAC | --ended\n"
    "       orvexctl logs MAC [-n N] [-f]\n"
    "       orvexctl enable MAC --ip IP --port PORT --user USER [--pass-env VAR | --pass-stdin]\n"
    "                [--secure] [--idle SECONDS] [--timeout SECONDS] [--replace]\n"
    "       orvexctl disable MAC\n"
    "       orvexctl --help | --version\n"
    "Anywhere: --json prints JSON (list, status, stop, forget, enable, disable; start and\n"
    "call always print it); --json=short|pretty (or --pretty) also says how: indented on a\n"
    "terminal by default, compact otherwise.\n"
    "start: without --pass-env or --pass-stdin the password is read from ORVEX_PASS; the\n"
    "daemon never sees it in its environment. --level sets the daemon's log level (0-8),\n"
    "--timeout how long the sign-in may take (default 30 s). A MAC whose session runs is\n"
    "refused unless --replace, which stops that session first.\n"
    "start --from FILE: one device a line, \"MAC IP PORT USER [secure]\" (blanks or commas\n"
    "between, '#' comments); one password for all (ORVEX_PASS, --pass-env, --pass-stdin)\n"
    "or one per device from --pass-file FILE (\"MAC PASSWORD\" lines, a file that only its\n"
    "owner may read); --parallel devices at a time (default 8). One JSON line per device\n"
    "({\"mac\":...,\"exit\":N,...}, N as below), then a summary line.\n"
    "call --all (every running session) or --macs FILE (the first field of each line): one\n"
    "method on many sessions, a few at a time; one JSON line per device, then a summary.\n"
    "--timeout: how long the reply may take (default 30 s).\n"
    "stop: asks the session to sign out; one that does not end gets SIGTERM, and SIGKILL\n"
    "after the grace period (default 5 s). Each session that ended is reported.\n"
    "list, status: MAC, pid, state and, for a running session, uptime, family, device,\n"
    "identity and seconds since last use; for one that no longer runs, how it ended\n"
    "(stopped, ended: REASON, crashed) and when. Read from the status files, so looking\n"
    "does not count as use. list shows the running and the abnormally ended sessions,\n"
    "--all every one.\n"
    "forget: clears the record of a session that no longer runs (--ended: of every one).\n"
    "logs: the device's lines of the shared log (of the journal for a systemd instance).\n"
    "enable (under systemd): stores the device's settings in /etc/orvex and its password\n"
    "as the unit's credential (encrypted by systemd-creds where it can), then enables and\n"
    "starts orvex-session@MAC, which signs itself in, again after every restart, and\n"
    "comes back after every end but a signout or a stop. --idle ends an unused session\n"
    "after SECONDS (default 600, 0: never; it then comes back); enable waits up to\n"
    "--timeout SECONDS (default 30, 0: not at all) for the first sign-in. A session that\n"
    "orvexctl start runs for the MAC is refused unless --replace.\n"
    "disable: stops the instance (it signs out), disables it and removes its files.\n"
    "Exit status:\n"
    "  0  done (list, status: no session listed ended abnormally)\n"
    "  1  the session answered with an error, a stop left survivors, a device of\n"
    "     start --from or call --all/--macs failed, or another failure\n"
    "  2  bad command line\n"
    "  3  no session process answers for the MAC, or not in time (list, status: a\n"
    "     session listed ended abnormally or crashed)\n"
    "  4  start, enable: the device is unreachable (refused, no route, time-out, TLS\n"
    "     mismatch)\n"
    "  5  start, enable: the device rejected the credentials\n"
    "  6  call: the device answered \"success\":false\n"
    "  7  start, enable: a session already runs for the MAC (--replace replaces it)\n"
    "  8  the command needs root (start, call, stop, forget, enable, disable)\n";

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

void setPass(Command& command, PassSource source, const std::string& value)
{
    if (command.passSource != PassSource::Default)
        throw UsageError("give only one of --pass-env, --pass-stdin and --pass-file");
    command.passSource = source;
    (source == PassSource::File ? command.passFile : command.passVariable) = value;
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
    // The option's value: after its "=", else the next word (args[++i]).
    std::string take(const Args& args, size_t& i) const { return hasValue ? value : requireValue(args, i, name); }
};

// The options that start and call share; false when args[i] is none of them.
bool applyCommonOption(Command& command, const Args& args, size_t& i, bool many)
{
    Word word(args[i]);
    if (word.name == "--timeout")
        command.timeoutSeconds = parseNumber(word.take(args, i), 1, 3600, "timeout");
    else if (word.name == "--parallel" && many)
        command.parallel = parseNumber(word.take(args, i), 1, 64, "parallel");
    else
        return false;
    return true;
}

// enable's own options: the idle limit, and a wait for the first sign-in that may be none.
bool applyEnableOption(Command& command, const Args& args, size_t& i)
{
    Word word(args[i]);
    if (word.name == "--idle")
        command.idleSeconds = parseNumber(word.take(args, i), 0, Idle::kMaxSeconds, "idle");
    else if (word.name == "--timeout")
        command.timeoutSeconds = parseNumber(word.take(args, i), 0, 3600, "timeout");
    else
        return false;
    return true;
}

// start, start --from and enable.
void applyStartOption(Command& command, const Args& args, size_t& i)
{
    const bool many = command.action == Action::StartFrom;
    const bool enable = command.action == Action::Enable;
    if (enable ? applyEnableOption(command, args, i) : applyCommonOption(command, args, i, many))
        return;
    Word word(args[i]);
    if (word.name == "--ip" && !many)
        command.ip = word.take(args, i);
    else if (word.name == "--port" && !many)
        command.port = parseNumber(word.take(args, i), 1, 65535, "port");
    else if (word.name == "--user" && !many)
        command.user = word.take(args, i);
    else if (word.name == "--pass")
        throw UsageError("--pass would show the password to every user in the process list; use --pass-env VAR "
                         "or --pass-stdin");
    else if (word.name == "--pass-env")
        setPass(command, PassSource::Environment, word.take(args, i));
    else if (word.name == "--pass-stdin" && !word.hasValue)
        setPass(command, PassSource::Stdin, "");
    else if (word.name == "--pass-file" && many)
        setPass(command, PassSource::File, word.take(args, i));
    else if (word.name == "--secure" && !word.hasValue && !many)
        command.secure = true;
    else if (word.name == "--level" && !enable)
        command.level = parseNumber(word.take(args, i), 0, 8, "level");
    else if (word.name == "--replace" && !word.hasValue)
        command.replace = true;
    else
        throw UsageError("unknown option '" + args[i] + "' for " + args[0] + (many ? " --from" : ""));
}

// start and enable: a device, where it is and who signs in.
Command parseStart(const Args& args, Action action)
{
    const std::string& verb = args[0];
    if (args.size() < 2)
        throw UsageError(action == Action::Enable ? "enable needs a MAC address" : "start needs a MAC address or --from FILE");
    Command command;
    command.action = action;
    Word first(args[1]);
    size_t i = 1;
    if (action == Action::Start && first.name == "--from") {
        command.action = Action::StartFrom;
        command.file = first.take(args, i);
    } else {
        command.mac = normaliseMac(args[1]);
    }
    for (++i; i < args.size(); ++i)
        applyStartOption(command, args, i);
    if (command.action == Action::StartFrom)
        return command;
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

// Options anywhere; the words left are [MAC] METHOD [JSON].
Command parseCall(const Args& args)
{
    Command command;
    command.action = Action::Call;
    bool many = false;
    Args words;
    for (size_t i = 1; i < args.size(); ++i) {
        Word word(args[i]);
        if (applyCommonOption(command, args, i, true))
            continue;
        if (args[i] == "--all" || word.name == "--macs") {
            if (many)
                throw UsageError("call takes one of a MAC address, --all and --macs FILE");
            many = true;
            command.action = Action::CallMany;
            if (word.name == "--macs")
                command.file = word.take(args, i);
        } else {
            words.push_back(args[i]);
        }
    }
    if (command.action == Action::Call && command.parallel != Command{}.parallel)
        throw UsageError("--parallel goes with call --all or --macs");
    size_t first = many ? 0 : 1;
    if (words.size() < first + 1 || words.size() > first + 2)
        throw UsageError(many ? "call --all/--macs needs a method and at most one JSON argument"
                              : "call needs a MAC address, a method and at most one JSON argument");
    if (!many)
        command.mac = normaliseMac(words[0]);
    command.method = words[first];
    if (command.method.empty())
        throw UsageError("call needs a method name");
    if (words.size() == first + 2)
        command.json = words[first + 1];
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
            command.graceSeconds = parseNumber(word.take(args, i), 0, 3600, "grace");
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

// list [--all], status MAC, forget MAC|--ended: one target word at most.
Command parseListing(const Args& args, Action action)
{
    Command command;
    command.action = action;
    const char* flag = action == Action::List ? "--all" : action == Action::Forget ? "--ended" : "";
    size_t targets = 0;
    for (size_t i = 1; i < args.size(); ++i) {
        if (targets++ > 0)
            throw UsageError("unexpected '" + args[i] + "' for " + args[0]);
        if (args[i] == flag)
            (action == Action::List ? command.all : command.ended) = true;
        else if (action != Action::List)
            command.mac = normaliseMac(args[i]);
        else
            throw UsageError("unexpected '" + args[i] + "' for list");
    }
    if (action == Action::Status && targets == 0)
        throw UsageError("status needs a MAC address");
    if (action == Action::Forget && targets == 0)
        throw UsageError("forget needs a MAC address or --ended");
    return command;
}

Command parseLogs(const Args& args)
{
    Command command;
    command.action = Action::Logs;
    for (size_t i = 1; i < args.size(); ++i) {
        if (args[i] == "-n" || args[i] == "--lines")
            command.lines = parseNumber(requireValue(args, i, args[i]), 0, 1000000, "lines");
        else if (args[i] == "-f" || args[i] == "--follow")
            command.follow = true;
        else if (command.mac.empty())
            command.mac = normaliseMac(args[i]);
        else
            throw UsageError("unexpected '" + args[i] + "' for logs");
    }
    if (command.mac.empty())
        throw UsageError("logs needs a MAC address");
    return command;
}

// Takes --json, --pretty and --json=short|pretty out of args, wherever they stand.
JsonStyle takeStyle(Args& args, bool& json)
{
    JsonStyle style = JsonStyle::Auto;
    for (auto it = args.begin(); it != args.end();) {
        if (*it == "--json")
            json = true;
        else if (*it == "--pretty" || *it == "--json=pretty")
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
    if (verb == "forget")
        return parseListing(args, Action::Forget);
    if (verb == "logs")
        return parseLogs(args);
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
    bool json = false;
    JsonStyle style = takeStyle(args, json);
    if (args.empty())
        throw UsageError("no command given");
    Command command = parseAction(args);
    command.style = style;
    command.jsonOutput = json || style != JsonStyle::Auto;
    return command;
}

}  // namespace ctl
}  // namespace Orvex
