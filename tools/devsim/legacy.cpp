// The legacy firmware's CGI scripts: XML answers under VDocRoot, session ids.
#include <Poco/Base64Decoder.h>
#include <Poco/Exception.h>
#include <Poco/URI.h>

#include <sstream>

#include "tools/devsim/handler.h"

namespace Orvex::Devsim {

namespace {

const char* const kSessionCookies[] = {"NAS_SID", "NVX_SSID", "NVX_SSL_SSID"};

std::string base64Decode(const std::string& text)
{
    std::istringstream in(text);
    Poco::Base64Decoder decoder(in);
    std::string out;
    char c;
    while (decoder.get(c))
        out += c;
    return out;
}

// The real client posts the base64 raw; a browser or curl may percent-encode it. Either
// matches.
bool passwordMatches(const std::string& pwd, const std::string& expected)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            std::string text = pwd;
            if (attempt == 1) {
                text.clear();
                Poco::URI::decode(pwd, text);
            }
            if (base64Decode(text) == expected)
                return true;
        } catch (const Poco::Exception&) {
            // Not base64 in this reading; try the next one.
        }
    }
    return false;
}

// Query parameters (decoded) followed by the form body (raw: the client does not
// url-encode it).
Params cgiParams(const Exchange& exchange)
{
    Params params = exchange.query;
    Params form = splitParams(exchange.body, false);
    params.insert(params.end(), form.begin(), form.end());
    return params;
}

// The "sid" parameter when there is one, else the first session cookie that is alive,
// else the first one present.
std::string sessionOf(const Device& device, const Exchange& exchange, const Params& params)
{
    bool found = false;
    std::string sid = param(params, "sid", &found);
    if (found)
        return sid;
    std::string first;
    for (const char* name : kSessionCookies) {
        std::string value = exchange.cookies.get(name, "");
        if (device.sessions.alive(value))
            return value;
        if (first.empty())
            first = value;
    }
    return first;
}

json_t* passed(bool ok)
{
    return json_pack("{si}", "authPassed", ok ? 1 : 0);
}

Reply login(Device& device, const Params& params)
{
    const Config& config = device.config;
    if (param(params, "user") != config.user || !passwordMatches(param(params, "pwd"), config.pass))
        return Reply::xml(json_pack("{sisi}", "authPassed", 0, "errorValue", -1));
    std::string sid = device.sessions.openSession();
    return Reply::xml(json_pack("{sisssssisi}", "authPassed", 1, "authSid", sid.c_str(), "username",
                                config.user.c_str(), "isAdmin", 1, "ts", static_cast<int>(time(nullptr) % 1000000)));
}

json_t* systemInfo(const Identity& id)
{
    return json_pack("{sis{ssssss}s{ssssss}sssi}", "authPassed", 1,
                     "model", "modelName", id.model.c_str(), "internalModelName", id.model.c_str(),
                     "displayModelName", id.model.c_str(),
                     "firmware", "version", id.firmwareVersion.c_str(), "number", id.firmwareNumber.c_str(),
                     "build", "20240115",
                     "hostname", id.hostname.c_str(), "ts", static_cast<int>(time(nullptr) % 1000000));
}

Reply authLogin(Device& device, const Exchange& exchange)
{
    Params params = cgiParams(exchange);
    bool hasUser = false;
    param(params, "user", &hasUser);
    if (hasUser)
        return login(device, params);
    bool alive = device.sessions.alive(sessionOf(device, exchange, params));
    if (exchange.method == "POST" || !alive)
        return Reply::xml(passed(alive));
    return Reply::xml(systemInfo(device.config.identity));
}

Reply manaRequest(Device& device, const Exchange& exchange)
{
    Params params = cgiParams(exchange);
    if (!device.sessions.alive(sessionOf(device, exchange, params)))
        return Reply::xml(passed(false));
    std::string subfunc = param(params, "subfunc");
    if (subfunc != "sysinfo")
        return Reply::xml(json_pack("{sis{sssi}}", "authPassed", 1, "func", "name", subfunc.c_str(), "errorValue", -2));
    const Identity& id = device.config.identity;
    return Reply::xml(json_pack("{sis{sss{s{ssssss}}}}", "authPassed", 1, "func", "name", "sysinfo",
                                "ownContent", "root", "serial_number", id.serial.c_str(),
                                "model", id.model.c_str(), "hostname", id.hostname.c_str()));
}

Reply logout(Device& device, const Exchange& exchange)
{
    Params params = cgiParams(exchange);
    device.sessions.close(sessionOf(device, exchange, params));
    return Reply::xml(json_pack("{sisi}", "authPassed", 0, "logout", 1));
}

}  // namespace

Reply legacyPage(Device& device, const Exchange& exchange)
{
    if (exchange.path == "/cgi-bin/authLogin.cgi")
        return authLogin(device, exchange);
    if (exchange.path == "/cgi-bin/management/manaRequest.cgi")
        return manaRequest(device, exchange);
    if (exchange.path == "/cgi-bin/authLogout.cgi")
        return logout(device, exchange);
    return Reply::html404(exchange.path);
}

}  // namespace Orvex::Devsim
