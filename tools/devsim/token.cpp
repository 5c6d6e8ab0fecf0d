// The token firmware's REST pages: OAuth-style password grant, JSON answers, bearer tokens.
#include <Poco/Base64Decoder.h>

#include <sstream>

#include "tools/devsim/handler.h"

namespace Orvex::Devsim {

namespace {

Reply oauthError(int status, const char* error, const char* description)
{
    return Reply::json(status, json_pack("{ssss}", "error", error, "error_description", description));
}

bool passwordMatches(const std::string& encoded, const std::string& expected)
{
    std::istringstream in(encoded);
    Poco::Base64Decoder decoder(in);
    std::string decoded;
    char c;
    while (decoder.get(c))
        decoded += c;
    return !decoder.bad() && decoded == expected;
}

Reply tokenAnswer(const Device& device, const TokenPair& pair)
{
    return Reply::json(200, json_pack("{sssssssiss}", "access_token", pair.access.c_str(), "refresh_token",
                                      pair.refresh.c_str(), "token_type", "bearer", "expires_in",
                                      device.sessions.lifetime(), "scope", "all"));
}

Reply token(Device& device, const Exchange& exchange)
{
    std::string grant = param(exchange.query, "grant_type");
    if (grant == "refresh_token") {
        TokenPair pair;
        if (!device.sessions.refresh(param(exchange.query, "refresh_token"), pair))
            return oauthError(401, "invalid_grant", "Invalid refresh token");
        return tokenAnswer(device, pair);
    }
    if (grant != "password")
        return oauthError(400, "unsupported_grant_type", "Unsupported grant type");
    if (param(exchange.query, "username") != device.config.user ||
        !passwordMatches(param(exchange.query, "password"), device.config.pass))
        return oauthError(401, "invalid_grant", "Bad credentials");
    return tokenAnswer(device, device.sessions.openTokens());
}

// The bearer token, or else the "sid" parameter.
std::string credentialOf(const Exchange& exchange)
{
    return exchange.bearer.empty() ? param(exchange.query, "sid") : exchange.bearer;
}

Reply firmwareInfo(const Device& device)
{
    const Identity& id = device.config.identity;
    return Reply::json(200, json_pack("{s{ssssss}s{ssss}}", "model", "name", id.model.c_str(), "display_name",
                                      id.model.c_str(), "server_name", id.hostname.c_str(), "firmware", "version",
                                      id.firmwareVersion.c_str(), "build", "20240611"));
}

Reply systemPage(const Device& device)
{
    const Identity& id = device.config.identity;
    return Reply::json(200, json_pack("{s{ssss}}", "model", "serial_no", id.serial.c_str(), "display_name",
                                      id.model.c_str()));
}

Reply tokenInfo(const Device& device, const Exchange& exchange)
{
    std::string access = param(exchange.query, "access_token");
    if (!device.sessions.alive(access))
        return oauthError(401, "invalid_token", "Invalid access token");
    return Reply::json(200, json_pack("{sssIssss}", "access_token", access.c_str(), "expires_in",
                                      static_cast<json_int_t>(device.sessions.secondsLeft(access)), "username",
                                      device.config.user.c_str(), "scope", "all"));
}

Reply logout(Device& device, const Exchange& exchange)
{
    device.sessions.close(param(exchange.query, "access_token"));
    device.sessions.close(param(exchange.query, "refresh_token"));
    return Reply::json(200, json_pack("{sb}", "success", 1));
}

// Pages that need a live token; 401 otherwise.
Reply guarded(Device& device, const Exchange& exchange, Reply (*page)(const Device&))
{
    if (!device.sessions.alive(credentialOf(exchange)))
        return oauthError(401, "invalid_token", "Full authentication is required to access this resource");
    return page(device);
}

}  // namespace

Reply tokenPage(Device& device, const Exchange& exchange)
{
    if (exchange.path == "/zem/oauth/token")
        return token(device, exchange);
    if (exchange.path == "/zem/oauth/tokeninfo")
        return tokenInfo(device, exchange);
    if (exchange.path == "/zem/oauth/logout")
        return logout(device, exchange);
    if (exchange.path == "/system/firmware/info")
        return guarded(device, exchange, firmwareInfo);
    if (exchange.path == "/zem/system")
        return guarded(device, exchange, systemPage);
    return Reply::html404(exchange.path);
}

}  // namespace Orvex::Devsim
