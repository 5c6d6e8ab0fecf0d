// The token firmware family: a REST interface answering JSON, with an OAuth-style password
// grant. Every parameter travels percent-encoded in the query of a GET (the password too:
// that is how the device takes it).
#include "session/session.h"

#include "common/misc.h"
#include "common/raii.h"
#include "common/trace.h"
#include "session/exchange.h"

#include <Poco/URI.h>
#include <Poco/Net/HTTPRequest.h>

namespace Orvex {

namespace {

using Poco::Net::HTTPRequest;
using session_detail::Cause;

// Non-JSON text reads as null, which every unpack then refuses.
JsonRef parse(const std::string& reply)
{
    return JsonRef::adopt(json_loadb(reply.data(), reply.size(), 0, nullptr));
}

}  // namespace

bool Session::_zem_signin()
{
    ORVEX_TRACE();
    try {
        Poco::URI uri("/zem/oauth/token");
        uri.addQueryParameter("grant_type", "password");
        uri.addQueryParameter("username", user);
        uri.addQueryParameter("password", btoa(password));
        std::string reply = request(HTTPRequest::HTTP_GET, uri.getPathAndQuery());
        ORVEX_TRACE_TEXT("[Session] %s", redacted(reply).c_str());
        const char* access = nullptr;
        const char* refresh = nullptr;
        JsonRef json = parse(reply);
        if (json_unpack(json.get(), "{ss ss}", "access_token", &access, "refresh_token", &refresh) != 0)
            return failStep(lastStatus == 401 || lastStatus == 403 ? Cause::Credentials : Cause::BadAnswer);
        // The access token goes into the Authorization header, the refresh token into a query.
        if (!session_detail::headerSafe(access) || !session_detail::headerSafe(refresh))
            return failStep(Cause::BadAnswer);
        family = Zem;
        sid = access;
        accessToken = access;
        refreshToken = refresh;
    } catch (...) {
        return failStep(Cause::BadAnswer);
    }
    if (!_zem_getSystemInfo())
        return false;
    return _zem_getDeviceSerial();
}

// The firmware path carries no family prefix on the device; sent exactly so.
bool Session::_zem_getSystemInfo()
{
    ORVEX_TRACE();
    try {
        std::string reply = request(HTTPRequest::HTTP_GET, "/system/firmware/info");
        ORVEX_TRACE_TEXT("[Session] %s", redacted(reply).c_str());
        const char* displayName = nullptr;
        const char* serverName = nullptr;
        const char* version = nullptr;
        JsonRef json = parse(reply);
        if (json_unpack(json.get(), "{s{ss ss} s{ss}}", "model", "display_name", &displayName, "server_name",
                        &serverName, "firmware", "version", &version) != 0)
            return failStep(Cause::BadAnswer);
        model = displayName;
        hostname = serverName;
        firmware = version;
        return true;
    } catch (...) {
        return failStep(Cause::BadAnswer);
    }
}

bool Session::_zem_getDeviceSerial()
{
    ORVEX_TRACE();
    try {
        Poco::URI uri("/zem/system");
        uri.addQueryParameter("sid", sid);
        std::string reply = request(HTTPRequest::HTTP_GET, uri.getPathAndQuery());
        ORVEX_TRACE_TEXT("[Session] %s", redacted(reply).c_str());
        const char* serialNo = nullptr;
        JsonRef json = parse(reply);
        if (json_unpack(json.get(), "{s{ss}}", "model", "serial_no", &serialNo) != 0)
            return failStep(Cause::BadAnswer);
        serial = serialNo;
        return true;
    } catch (...) {
        return failStep(Cause::BadAnswer);
    }
}

bool Session::_zem_alive()
{
    ORVEX_TRACE();
    if (family != Zem)
        return false;
    try {
        Poco::URI uri("/zem/oauth/tokeninfo");
        uri.addQueryParameter("access_token", accessToken);
        std::string reply = request(HTTPRequest::HTTP_GET, uri.getPathAndQuery());
        ORVEX_TRACE_TEXT("[Session] %s", redacted(reply).c_str());
        const char* token = nullptr;
        JsonRef json = parse(reply);
        return json_unpack(json.get(), "{ss}", "access_token", &token) == 0;
    } catch (...) {
        return false;
    }
}

// A transport failure is left to the caller, with the tokens still set.
bool Session::_zem_signout()
{
    ORVEX_TRACE();
    Poco::URI uri("/zem/oauth/logout");
    uri.addQueryParameter("access_token", accessToken);
    uri.addQueryParameter("refresh_token", refreshToken);
    std::string reply = request(HTTPRequest::HTTP_GET, uri.getPathAndQuery());
    ORVEX_TRACE_TEXT("[Session] %s", redacted(reply).c_str());
    sid.clear();
    accessToken.clear();
    refreshToken.clear();
    return true;
}

}  // namespace Orvex
