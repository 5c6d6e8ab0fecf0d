#include "tools/orvexctl/command_line.h"

#include <cstring>
#include <vector>

#include <Poco/NumberParser.h>
#include <Poco/RegularExpression.h>
#include <Poco/String.h>

namespace Orvex {
namespace ctl {

const char* const kUsage =
    "usage: orvexctl start MAC --ip IP --port PORT --user USER\n"
    "                (--pass PASS | --pass-env VAR | --pass-stdin) [--secure]\n"
    "       orvexctl call MAC METHOD [JSON]\n"
    "       orvexctl stop MAC\n"
    "       orvexctl stop --all\n"
    "Without a --pass option the password is read from ORVEX_PASS.\n"
    "Exit status: 0 done, 1 the session answered with an error (or the daemon is not\n"
    "installed), 2 bad command line, 3 no session process answers for the MAC.\n";

namespace {

using Args = std::vector<std::string>;

std::string requireValue(const Args& args, size_t& i, const std::string& name)
{
    if (i + 1 >= args.size())
        throw UsageError("option " + name + " needs a value");
    return args[++i];
}

int parsePort(const std::string& text)
{
    int port = 0;
    if (!Poco::NumberParser::tryParse(text, port) || port < 1 || port > 65535)
        throw UsageError("port '" + text + "' is not a number from 1 to 65535");
    return port;
}

void setPass(Command& command, PassSource source, const std::string& value)
{
    if (command.passSource != PassSource::Default)
        throw UsageError("give only one of --pass, --pass-env and --pass-stdin");
    command.passSource = source;
    command.pass = value;
}

// "--name value" and "--name=value" both work.
void splitInline(std::string& name, std::string& inlineValue, bool& hasInline)
{
    size_t eq = name.find('=');
    hasInline = eq != std::string::npos;
    if (hasInline) {
        inlineValue = name.substr(eq + 1);
        name.erase(eq);
    }
}

void applyStartOption(Command& command, const Args& args, size_t& i)
{
    std::string name = args[i], value;
    bool hasInline = false;
    splitInline(name, value, hasInline);
    auto take = [&]() { return hasInline ? value : requireValue(args, i, name); };
    if (name == "--ip")
        command.ip = take();
    else if (name == "--port")
        command.port = parsePort(take());
    else if (name == "--user")
        command.user = take();
    else if (name == "--pass")
        setPass(command, PassSource::Literal, take());
    else if (name == "--pass-env")
        setPass(command, PassSource::Environment, take());
    else if (name == "--pass-stdin" && !hasInline)
        setPass(command, PassSource::Stdin, "");
    else if (name == "--secure" && !hasInline)
        command.secure = true;
    else
        throw UsageError("unknown option '" + args[i] + "' for start");
}

Command parseStart(const Args& args)
{
    if (args.size() < 2)
        throw UsageError("start needs a MAC address");
    Command command;
    command.action = Action::Start;
    command.mac = normaliseMac(args[1]);
    for (size_t i = 2; i < args.size(); ++i)
        applyStartOption(command, args, i);
    if (command.ip.empty())
        throw UsageError("start needs --ip");
    if (command.port == 0)
        throw UsageError("start needs --port");
    if (command.user.empty())
        throw UsageError("start needs --user");
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
    if (args.size() != 2)
        throw UsageError("stop needs a MAC address or --all");
    Command command;
    if (args[1] == "--all") {
        command.action = Action::StopAll;
        return command;
    }
    command.action = Action::Stop;
    command.mac = normaliseMac(args[1]);
    return command;
}

}  // namespace

std::string normaliseMac(const std::string& text)
{
    static const Poco::RegularExpression pattern("^([0-9a-f]{2}:){5}([0-9a-f]{2})$");
    std::string mac = Poco::toLower(Poco::trim(text));
    if (!pattern.match(mac))
        throw UsageError("'" + text + "' is not a MAC address (six hex pairs joined by ':')");
    return mac;
}

Command parseCommandLine(int argc, const char* const* argv)
{
    Args args(argv + (argc > 0 ? 1 : 0), argv + argc);
    if (args.empty())
        throw UsageError("no command given");
    const std::string& verb = args[0];
    if (verb == "-h" || verb == "--help" || verb == "help")
        return Command{};
    if (verb == "start")
        return parseStart(args);
    if (verb == "call")
        return parseCall(args);
    if (verb == "stop")
        return parseStop(args);
    throw UsageError("unknown command '" + verb + "'");
}

}  // namespace ctl
}  // namespace Orvex
