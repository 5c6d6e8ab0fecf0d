// One device's start or call, as an outcome: what both the one-device commands and the
// fleet commands run.
#include <unistd.h>

#include <exception>
#include <stdexcept>

#include <Poco/Exception.h>

#include "client/control.h"
#include "client/fleet.h"
#include "common/exceptions.h"
#include "common/misc.h"
#include "common/paths.h"
#include "option/option.h"
#include "tools/orvexctl/ctl.h"

namespace Orvex {
namespace ctl {

namespace {

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

Outcome failed(int code, const std::string& message, JsonRef reply = JsonRef())
{
    Outcome outcome;
    outcome.code = code;
    outcome.message = message;
    outcome.reply = std::move(reply);
    return outcome;
}

// Runs op, turning what it throws into the outcome of a failure.
template <typename Operation>
Outcome guarded(const std::string& mac, const std::string& step, int timeoutSeconds, Operation op)
{
    try {
        return op();
    } catch (const Control::NoAnswer&) {
        return failed(kExitNoSession,
            strformat("the session for MAC %s did not answer %s within %d s", mac.c_str(), step.c_str(), timeoutSeconds));
    } catch (const SessionNotFound&) {
        return failed(kExitNoSession, "no session process answers for MAC " + mac);
    } catch (const Control::BusSquatter& e) {
        return failed(kExitNoSession, e.what());
    } catch (const Poco::Exception& e) {
        return failed(kExitFailure, e.displayText());
    } catch (const std::exception& e) {
        return failed(kExitFailure, e.what());
    }
}

// "error_code" present and not 0: the session's own error reply.
bool errorReply(json_t* reply, std::string& message)
{
    json_int_t code = json_integer_value(json_object_get(reply, "error_code"));
    if (code == 0)
        return false;
    const char* text = json_string_value(json_object_get(reply, "error_message"));
    message = strformat("%s (error %lld)", text && *text ? text : "no message", static_cast<long long>(code));
    return true;
}

// The cause the daemon recorded for its last failed sign-in, with the matching exit code.
Outcome signinFailure(const std::string& mac, const std::string& replyMessage, JsonRef reply)
{
    SessionInfo info;
    if (!findSession(mac, info) || !info.hasStatus || info.status.failure.empty())
        return failed(kExitFailure, "signin on " + mac + " failed: " + replyMessage, std::move(reply));
    const std::string& cause = info.status.failure;
    std::string message =
        strformat("sign-in to %s:%u for %s failed: %s", info.status.host.c_str(), info.status.port, mac.c_str(), cause.c_str());
    return failed(signinExitCode(cause), message, std::move(reply));
}

std::string deviceOf(const SessionInfo& info)
{
    if (!info.hasStatus || info.status.host.empty())
        return "";
    return strformat(", %s device %s:%u", familyName(info.status.family), info.status.host.c_str(), info.status.port);
}

}  // namespace

int signinExitCode(const std::string& cause)
{
    if (cause == "credentials")
        return kExitCredentials;
    if (cause == "refused" || cause == "unreachable" || cause == "tls-mismatch")
        return kExitUnreachable;
    return kExitFailure;
}

// A session that runs is kept unless the caller asked to replace it.
Outcome makeRoom(const std::string& mac, bool replace)
{
    SessionInfo info;
    if (!findSession(mac, info) || !info.running())
        return Outcome{};
    if (!replace)
        return failed(kExitRunning, strformat("a session already runs for MAC %s (pid %d%s); stop it first or give "
                                              "--replace", mac.c_str(), static_cast<int>(info.pid), deviceOf(info).c_str()));
    Control::StopReport stopped = Control::stopOne(mac, Control::kDefaultGrace);
    if (!stopped.survivors.empty())
        return failed(kExitFailure, strformat("the session for MAC %s (pid %d) did not stop; nothing started", mac.c_str(),
                                              static_cast<int>(info.pid)));
    return Outcome{};
}

StartRequest startRequest(const Command& command, const DeviceEntry& device)
{
    StartRequest request;
    request.device = device;
    request.level = command.level;
    request.timeoutSeconds = command.timeoutSeconds;
    request.replace = command.replace;
    return request;
}

void requireDaemon()
{
    if (::access(Paths::kDaemonPath, X_OK) != 0)
        throw std::runtime_error(std::string(Paths::kDaemonPath) + " is not installed");
}

Outcome startDevice(const StartRequest& request)
{
    const DeviceEntry& d = request.device;
    return guarded(d.mac, "the sign-in", request.timeoutSeconds, [&] {
        Outcome room = makeRoom(d.mac, request.replace);
        if (room.code != kExitDone)
            return room;
        JsonRef args = JsonRef::adopt(json_pack("{ss ss si ss ss sb}", "mac", d.mac.c_str(), "ip", d.ip.c_str(), "port",
            d.port, "user", d.user.c_str(), "pass", request.pass.c_str(), "secure", d.secure ? 1 : 0));
        DeviceOption option(args.get());
        Control::LaunchOptions launch;
        launch.level = request.level;
        launch.timeoutSeconds = request.timeoutSeconds;
        JsonRef reply = withReply(json_object(), [&](json_t*& out) { Control::start(out, option, launch); });
        std::string message;
        if (errorReply(reply.get(), message))
            return signinFailure(d.mac, message, std::move(reply));
        Outcome outcome;
        outcome.reply = std::move(reply);
        return outcome;
    });
}

JsonRef callArguments(const Command& command)
{
    JsonRef args = JsonRef::adopt(json_loads(command.json.c_str(), 0, nullptr));
    if (!json_is_object(args.get()))
        throw UsageError("the arguments of " + command.method + " must be one JSON object");
    return args;
}

Outcome callDevice(const std::string& mac, const std::string& method, json_t* args, int timeoutSeconds)
{
    return guarded(mac, method, timeoutSeconds, [&] {
        JsonRef address = JsonRef::adopt(json_pack("{ss}", "mac", mac.c_str()));
        DeviceOption option(address.get());
        JsonRef reply = withReply(json_deep_copy(args),
            [&](json_t*& inout) { Control::call(inout, option, method, timeoutSeconds); });
        std::string message;
        if (errorReply(reply.get(), message))
            return failed(kExitFailure, method + " on " + mac + " failed: " + message, std::move(reply));
        // The device's own refusal, passed on as data: the call itself went through.
        if (json_is_false(json_object_get(reply.get(), "success"))) {
            const char* why = json_string_value(json_object_get(reply.get(), "error"));
            return failed(kExitDeviceRefused, method + " on " + mac + " failed: the device answered \"success\":false" +
                                                  (why && *why ? std::string(" (") + why + ")" : ""),
                std::move(reply));
        }
        Outcome outcome;
        outcome.reply = std::move(reply);
        return outcome;
    });
}

}  // namespace ctl
}  // namespace Orvex
