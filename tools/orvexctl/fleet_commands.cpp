// start --from and call --all/--macs: one device's start or call for many devices, a few
// at a time, one JSON line per device as each is done (it carries the MAC), then a summary.
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "client/fleet.h"
#include "tools/orvexctl/ctl.h"

namespace Orvex {
namespace ctl {

namespace {

// {"mac":...,"exit":N[,"error":...][,"reply":{...}]}
std::string deviceLine(const std::string& mac, const Outcome& outcome)
{
    JsonRef line = JsonRef::adopt(json_pack("{ss si}", "mac", mac.c_str(), "exit", outcome.code));
    if (!outcome.message.empty())
        json_object_set_new(line.get(), "error", json_string(outcome.message.c_str()));
    if (outcome.reply)
        json_object_set(line.get(), "reply", outcome.reply.get());
    return compactJson(line.get());
}

// Runs job for every device, printing each line as it is done; exit 1 when any failed.
int runFleet(const std::vector<std::string>& macs, int parallel, const std::function<Outcome(size_t)>& job)
{
    std::mutex output;
    size_t failed = 0;
    forEachParallel(macs.size(), parallel, [&](size_t i) {
        Outcome outcome = job(i);
        std::string line = deviceLine(macs[i], outcome) + "\n";
        std::lock_guard<std::mutex> lock(output);
        failed += outcome.code != kExitDone ? 1 : 0;
        std::fputs(line.c_str(), stdout);
        std::fflush(stdout);
    });
    JsonRef summary = JsonRef::adopt(json_pack("{si si si}", "devices", static_cast<int>(macs.size()), "succeeded",
        static_cast<int>(macs.size() - failed), "failed", static_cast<int>(failed)));
    std::printf("%s\n", compactJson(summary.get()).c_str());
    return failed == 0 ? kExitDone : kExitFailure;
}

std::vector<std::string> runningMacs()
{
    std::vector<std::string> macs;
    for (const SessionInfo& s : listSessions())
        if (s.running())
            macs.push_back(s.mac);
    return macs;
}

}  // namespace

int runStartFrom(const Command& command)
{
    const std::vector<DeviceEntry> devices = readDeviceFile(command.file);
    std::map<std::string, std::string> passwords;
    std::string shared;
    if (command.passSource == PassSource::File)
        passwords = readPasswordFile(command.passFile);
    else
        shared = password(command);
    requireDaemon();
    std::vector<std::string> macs;
    for (const DeviceEntry& device : devices)
        macs.push_back(device.mac);
    return runFleet(macs, command.parallel, [&](size_t i) {
        StartRequest request = startRequest(command, devices[i]);
        request.pass = shared;
        if (command.passSource == PassSource::File) {
            auto found = passwords.find(devices[i].mac);
            if (found == passwords.end()) {
                Outcome missing;
                missing.code = kExitFailure;
                missing.message = "no password for " + devices[i].mac + " in " + command.passFile;
                return missing;
            }
            request.pass = found->second;
        }
        return startDevice(request);
    });
}

int runCallMany(const Command& command)
{
    callArguments(command);  // refused before any session is called
    const std::vector<std::string> macs = command.file.empty() ? runningMacs() : readMacFile(command.file);
    return runFleet(macs, command.parallel, [&](size_t i) {
        // Each thread its own copy: jansson values are not shared between threads.
        JsonRef mine = JsonRef::adopt(json_loads(command.json.c_str(), 0, nullptr));
        return callDevice(macs[i], command.method, mine.get(), command.timeoutSeconds);
    });
}

}  // namespace ctl
}  // namespace Orvex
