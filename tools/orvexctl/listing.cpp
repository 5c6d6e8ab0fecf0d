// list, status and forget: the sessions as their lock and status files show them.
#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "client/fleet.h"
#include "common/misc.h"
#include "common/utf8.h"
#include "tools/orvexctl/ctl.h"

namespace Orvex {
namespace ctl {

namespace {

// Characters of device text shown per field; the status file keeps more.
constexpr size_t kShownCharacters = 64;

// Characters that would move the cursor, change the terminal or reorder the line.
bool invisible(uint32_t c)
{
    return c < 0x20 || (c >= 0x7f && c <= 0x9f) || c == 0x200e || c == 0x200f || (c >= 0x2028 && c <= 0x202e) ||
           (c >= 0x2066 && c <= 0x2069) || c == 0xfeff;
}

void escapeInto(std::string& out, uint32_t c)
{
    if (c == '\n')
        out += "\\n";
    else if (c == '\t')
        out += "\\t";
    else if (c == '\r')
        out += "\\r";
    else
        out += strformat(c <= 0xff ? "\\x%02x" : "\\u%04x", static_cast<unsigned>(c));
}

// Text from a device as one harmless field of a line: what could act on the terminal,
// backslashes and bytes that are not UTF-8 escaped; at most kShownCharacters characters,
// then "..."; in double quotes when it holds blanks or quotes (quote), so no field can
// pass for another or for another line.
std::string shown(const std::string& text, bool quote = true)
{
    std::string out;
    size_t characters = 0;
    bool needsQuotes = false;
    for (size_t i = 0; i < text.size(); ++characters) {
        if (characters == kShownCharacters) {
            out += "...";
            break;
        }
        uint32_t c = 0;
        const size_t length = utf8Character(text, i, c);
        if (length == 0)
            escapeInto(out, static_cast<unsigned char>(text[i]));
        else if (invisible(c))
            escapeInto(out, c);
        else if (c == '\\' || (quote && c == '"'))
            out += std::string("\\") + static_cast<char>(c);
        else
            out.append(text, i, length);
        needsQuotes = needsQuotes || (length != 0 && (c == ' ' || c == '"'));
        i += length == 0 ? 1 : length;
    }
    return quote && needsQuotes ? "\"" + out + "\"" : out;
}

std::string clock(time_t when)
{
    char text[32];
    struct tm local{};
    if (when <= 0 || localtime_r(&when, &local) == nullptr || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) == 0)
        return "an unknown time";
    return text;
}

std::string deviceText(const StatusRecord& r)
{
    if (r.host.empty())
        return "";
    // The family is known once a sign-in got that far.
    std::string family = r.family != 0 ? std::string(" ") + familyName(r.family) : "";
    return strformat("%s %s:%u%s", family.c_str(), shown(r.host).c_str(), r.port, r.secure ? " https" : "");
}

std::string reasonOf(const SessionInfo& s)
{
    return s.hasStatus && s.status.end.empty() ? "no end record (killed or crashed)" : s.reason;
}

JsonRef sessionJson(const SessionInfo& s, time_t now)
{
    JsonRef o = JsonRef::adopt(json_pack("{ss si ss sb sb sI}", "mac", s.mac.c_str(), "pid", static_cast<int>(s.pid),
        "state", stateName(s.state), "abnormal", !s.running() && s.abnormal, "suspended", s.suspended, "uptime",
        static_cast<json_int_t>(s.uptime)));
    if (!s.running())
        json_object_update(o.get(), JsonRef::adopt(json_pack("{ss sI}", "reason", reasonOf(s).c_str(), "ended",
            static_cast<json_int_t>(s.ended))).get());
    if (!s.hasStatus)
        return o;
    const StatusRecord& r = s.status;
    json_object_update(o.get(), JsonRef::adopt(json_pack("{ss ss si sb ss ss ss ss sb ss sI}", "family",
        familyName(r.family), "host", r.host.c_str(), "port", static_cast<int>(r.port), "secure", r.secure, "model",
        r.model.c_str(), "serial", r.serial.c_str(), "firmware", r.firmware.c_str(), "hostname", r.hostname.c_str(),
        "signed_in", r.signedIn && s.running(), "failure", r.failure.c_str(), "idle",
        static_cast<json_int_t>(r.lastUse > 0 && s.running() ? now - r.lastUse : -1))).get());
    return o;
}

// "stopped: SIGTERM (at 2026-11-25 10:00:00)", "crashed: no end record ... (last seen at ...)"
std::string endLine(const SessionInfo& s)
{
    std::string line = strformat("%s pid %d %s: %s", s.mac.c_str(), static_cast<int>(s.pid), stateName(s.state),
        shown(reasonOf(s), false).c_str());
    line += strformat(" (%s %s)", s.status.end.empty() ? "last seen at" : "at", clock(s.ended).c_str());
    return line + (s.hasStatus ? deviceText(s.status) : "");
}

std::string sessionLine(const SessionInfo& s, time_t now)
{
    if (!s.running())
        return endLine(s);
    std::string line = strformat("%s pid %d %s", s.mac.c_str(), static_cast<int>(s.pid), stateName(s.state));
    if (s.suspended)
        line += " (suspended)";
    if (s.uptime >= 0)
        line += strformat(" up %lds", s.uptime);
    if (!s.hasStatus)
        return line;
    const StatusRecord& r = s.status;
    line += deviceText(r);
    if (r.signedIn)
        line += " model=" + shown(r.model) + " serial=" + shown(r.serial) + " firmware=" + shown(r.firmware) +
                " hostname=" + shown(r.hostname);
    else
        line += r.failure.empty() ? " not signed in" : " sign-in failed: " + shown(r.failure);
    if (r.lastUse > 0)
        line += strformat(" idle %lds", static_cast<long>(now - r.lastUse));
    return line;
}

// Exit code 3 when one of them ended abnormally.
int printSessions(const std::vector<SessionInfo>& sessions, bool json, bool array)
{
    time_t now = time(nullptr);
    bool abnormal = false;
    JsonRef list = JsonRef::adopt(json_array());
    std::string text;
    for (const SessionInfo& s : sessions) {
        abnormal = abnormal || (!s.running() && s.abnormal);
        if (json)
            json_array_append_new(list.get(), sessionJson(s, now).release());
        else
            text += sessionLine(s, now) + "\n";
    }
    if (json)
        printJson(array ? list.get() : json_array_get(list.get(), 0));
    else
        std::fputs(text.c_str(), stdout);
    return abnormal ? kExitNoSession : kExitDone;
}

void printForgotten(const std::vector<std::string>& macs, bool json)
{
    JsonRef list = JsonRef::adopt(json_array());
    for (const std::string& mac : macs) {
        if (json)
            json_array_append_new(list.get(), json_string(mac.c_str()));
        else
            std::printf("%s forgotten\n", mac.c_str());
    }
    if (json)
        printJson(list.get());
}

}  // namespace

int runList(const Command& command)
{
    std::vector<SessionInfo> shownSessions;
    for (SessionInfo& s : listSessions())
        if (command.all || s.running() || s.abnormal)
            shownSessions.push_back(std::move(s));
    return printSessions(shownSessions, command.jsonOutput, true);
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

int runForget(const Command& command)
{
    std::vector<std::string> forgotten;
    if (command.ended) {
        for (const SessionInfo& s : listSessions())
            if (!s.running() && forgetSession(s.mac) == Forget::Forgotten)
                forgotten.push_back(s.mac);
        printForgotten(forgotten, command.jsonOutput);
        return kExitDone;
    }
    switch (forgetSession(command.mac)) {
    case Forget::Running:
        std::fprintf(stderr, "orvexctl: the session for MAC %s runs; stop it first\n", command.mac.c_str());
        return kExitFailure;
    case Forget::Unknown:
        std::fprintf(stderr, "orvexctl: nothing is recorded for MAC %s\n", command.mac.c_str());
        return kExitNoSession;
    case Forget::Forgotten:
        break;
    }
    printForgotten({command.mac}, command.jsonOutput);
    return kExitDone;
}

}  // namespace ctl
}  // namespace Orvex
