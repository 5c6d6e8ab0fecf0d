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
using session_detail::withQuery;

// Non-JSON text reads as null, which every unpack then refuses.
JsonRef parse(const std::string& reply)
{
    return JsonRef::adopt(json_loadb(reply.data(), reply.size(), 0, nullptr));
}

}  // namespace

bool Session::_zem_signin()
{
    ORVEX_TRACE();
    bool signedIn = checkedStep(Cause::BadAnswer, [&, step = __PRETTY_FUNCTION__] {
        Poco::URI uri = withQuery("/zem/oauth/token",
                                  {{"grant_type", "password"}, {"username", user}, {"password", btoa(password)}});
        JsonRef json = parse(answer(step, HTTPRequest::HTTP_GET, uri.getPathAndQuery()));
        const char* access = nullptr;
        const char* refresh = nullptr;
        if (json_unpack(json.get(), "{ss ss}", "access_token", &access, "refresh_token", &refresh) != 0)
            return failStep(lastStatus == 401 || lastStatus == 403 ? Cause::Credentials : Cause::BadAnswer);
        // The access token goes into the Authorization header, the refresh token into a query.
        if (!session_detail::headerSafe(access) || !session_detail::headerSafe(refresh))
            return failStep(Cause::BadAnswer);
        family = Zem;
        sid = access;
        accessToken = access;
        refreshToken = refresh;
        return true;
    });
    return signedIn && _zem_getSystemInfo() && _zem_getDeviceSerial();
}

// The firmware path carries no family prefix on the device; sent exactly so.
bool Session::_zem_getSystemInfo()
{
    ORVEX_TRACE();
    return checkedStep(Cause::BadAnswer, [&, step = __PRETTY_FUNCTION__] {
        JsonRef json = parse(answer(step, HTTPRequest::HTTP_GET, "/system/firmware/info"));
        const char* displayName = nullptr;
        const char* serverName = nullptr;
        const char* version = nullptr;
        if (json_unpack(json.get(), "{s{ss ss} s{ss}}", "model", "display_name", &displayName, "server_name",
                        &serverName, "firmware", "version", &version) != 0)
            return failStep(Cause::BadAnswer);
        model = displayName;
        hostname = serverName;
        firmware = version;
        return true;
    });
}

bool Session::_zem_getDeviceSerial()
{
    ORVEX_TRACE();
    return checkedStep(Cause::BadAnswer, [&, step = __PRETTY_FUNCTION__] {
        std::string target = withQuery("/zem/system", {{"sid", sid}}).getPathAndQuery();
        JsonRef json = parse(answer(step, HTTPRequest::HTTP_GET, target));
        const char* serialNo = nullptr;
        if (json_unpack(json.get(), "{s{ss}}", "model", "serial_no", &serialNo) != 0)
            return failStep(Cause::BadAnswer);
        serial = serialNo;
        return true;
    });
}

bool Session::_zem_alive()
{
    ORVEX_TRACE();
    // A keep-alive probe has no sign-in cause to record: anything thrown only means not alive.
    return family == Zem && checkedStep(Cause::None, [&, step = __PRETTY_FUNCTION__] {
        std::string target = withQuery("/zem/oauth/tokeninfo", {{"access_token", accessToken}}).getPathAndQuery();
        JsonRef json = parse(answer(step, HTTPRequest::HTTP_GET, target));
        const char* token = nullptr;
        return json_unpack(json.get(), "{ss}", "access_token", &token) == 0;
    });
}

// A transport failure is left to the caller, with the tokens still set.
bool Session::_zem_signout()
{
    ORVEX_TRACE();
    Poco::URI uri = withQuery("/zem/oauth/logout", {{"access_token", accessToken}, {"refresh_token", refreshToken}});
    answer(__PRETTY_FUNCTION__, HTTPRequest::HTTP_GET, uri.getPathAndQuery());
    sid.clear();
    accessToken.clear();
    refreshToken.clear();
    return true;
}

}  // namespace Orvex
