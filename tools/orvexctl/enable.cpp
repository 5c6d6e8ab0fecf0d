// enable and disable: a device handed to systemd's unit and taken back (systemd_unit.h
// does the work), and what the operator is told, as lines or one JSON object.
#include <chrono>
#include <cstdio>
#include <string>

#include <jansson.h>

#include "client/fleet.h"
#include "common/misc.h"
#include "common/paths.h"
#include "tools/orvexctl/ctl.h"
#include "tools/orvexctl/systemd_unit.h"

namespace Orvex {
namespace ctl {

namespace {

// A session that orvexctl start runs holds the MAC's lock, which the unit's instance would
// then fail to take. The unit's own instance is restarted with the new settings instead.
Outcome makeRoomForInstance(const Command& command)
{
    SessionInfo info;
    if (findSession(command.mac, info) && info.hasStatus && info.status.systemd)
        return Outcome{};
    return makeRoom(command.mac, command.replace);
}

// How the first sign-in went, as the instance's status file tells; code kExitDone when it
// signed in (or nobody waited), else the code and the reason.
Outcome firstSignin(const Command& command, StatusRecord& record)
{
    Outcome outcome;
    const std::string unit = Paths::unitName(command.mac);
    if (command.timeoutSeconds == 0)
        return outcome;
    if (!waitForSignin(command.mac, std::chrono::seconds(command.timeoutSeconds), record)) {
        outcome.code = kExitFailure;
        outcome.message = strformat("%s: no sign-in within %d s (orvexctl status %s)", command.mac.c_str(),
            command.timeoutSeconds, command.mac.c_str());
    } else if (!record.signedIn) {
        const std::string why = record.failure.empty() ? record.reason : record.failure;
        outcome.code = record.failure.empty() ? kExitFailure : signinExitCode(record.failure);
        outcome.message = strformat("sign-in to %s:%u for %s failed: %s; %s keeps trying", record.host.c_str(),
            record.port, command.mac.c_str(), why.c_str(), unit.c_str());
    }
    return outcome;
}

}  // namespace

int runEnable(const Command& command)
{
    const std::string pass = password(command);
    requireSystemd("enable");
    Outcome room = makeRoomForInstance(command);
    if (room.code != kExitDone)
        return printOutcome(room);
    const DeviceConfig config{command.mac, command.ip, command.port, command.user, command.secure, command.idleSeconds};
    const Stored stored = enableInstance(config, pass);
    const std::string unit = Paths::unitName(command.mac);
    if (!command.jsonOutput)
        std::printf("%s enabled as %s (password %s)\n", command.mac.c_str(), unit.c_str(),
            stored == Stored::Encrypted ? "encrypted by systemd-creds" : "in a root-only file");
    std::fflush(stdout);
    StatusRecord record;
    Outcome first = firstSignin(command, record);
    if (command.jsonOutput)
        printJson(JsonRef::adopt(json_pack("{ss ss ss sb si ss}", "mac", command.mac.c_str(), "unit", unit.c_str(),
            "credential", stored == Stored::Encrypted ? "encrypted" : "plain", "signed_in", record.signedIn, "pid",
            static_cast<int>(record.pid), "failure", record.failure.c_str())).get());
    else if (record.signedIn)
        std::printf("%s signed in to %s device %s:%u (pid %d)\n", command.mac.c_str(), familyName(record.family),
            record.host.c_str(), record.port, static_cast<int>(record.pid));
    return printOutcome(first);
}

int runDisable(const Command& command)
{
    disableInstance(command.mac);
    const std::string unit = Paths::unitName(command.mac);
    if (command.jsonOutput)
        printJson(JsonRef::adopt(json_pack("{ss ss sb}", "mac", command.mac.c_str(), "unit", unit.c_str(), "disabled", 1)).get());
    else
        std::printf("%s disabled, stopped, its settings and password removed\n", command.mac.c_str());
    return kExitDone;
}

}  // namespace ctl
}  // namespace Orvex
