// Sign-in, sign-out, the device identity and the keep-alive tick; and the forwarders of the
// client-side operations on per-device processes.
#include "session/session.h"

#include "common/ending.h"
#include "common/misc.h"
#include "common/trace.h"
#include "client/control.h"
#include "session/exchange.h"

#include <Poco/Logger.h>

#include <unistd.h>

#include <algorithm>

namespace Orvex {

using session_detail::Cause;

namespace {

[[noreturn]] void endProcess(Session& session, const char* reason, Ending::Why why, const std::string& detail = "")
{
    Poco::Logger::root().warning(strformat("[Session] %s", reason));
    try {
        session.signout();
    } catch (const Poco::Exception& e) {
        // The device is gone or refuses us: the process ends all the same, or it would
        // linger with a dead session and retry on every tick.
        Poco::Logger::root().warning(strformat("[Session] signout: %s", e.displayText().c_str()));
    }
    Ending::aboutToEnd(why, detail);
    _exit(1);
}

}  // namespace

// Publishes the status when a sign-in attempt or a sign-out ends, however it ends.
struct Session::Published {
    Session& session;
    ~Published() { session.publish(true); }
};

bool Session::signin(json_t*& out, SigninOption& opt)
{
    ORVEX_TRACE();
    Lock lock(mutex);
    Published published{*this};
    signedOut = false;
    stepFailure = Cause::None;
    try {
        signoutFamily();
    } catch (...) {
        signinFailure = stepFailure == Cause::None ? Cause::Unreachable : stepFailure;
        throw;
    }
    host = opt.ip;
    port = static_cast<uint32_t>(opt.port);
    secure = opt.secure;
    user = opt.user;
    password = opt.pass;
    // What the device spoke before does not decide the TLS 1.1 fallback of a new sign-in.
    tls.reset();
    Cause legacy = attempt(&Session::_nvx_signin);
    Cause token = legacy == Cause::None ? Cause::None : attempt(&Session::_zem_signin);
    signinFailure = std::min(legacy, token) == Cause::None ? Cause::None : std::max(legacy, token);
    logSignin(legacy, token);
    if (signinFailure != Cause::None)
        throw SessionException("signin fail", 403);
    getSystemInfo(out);
    return true;
}

Session::Cause Session::attempt(bool (Session::*step)())
{
    stepFailure = Cause::None;
    if ((this->*step)())
        return Cause::None;
    return stepFailure == Cause::None ? Cause::BadAnswer : stepFailure;
}

// Each family that failed is a warning when the sign-in fails. A legacy attempt that fails
// before the token family signs in is how the family is found, not a fault.
void Session::logSignin(Cause legacy, Cause token)
{
    Poco::Logger& log = Poco::Logger::root();
    auto failed = [this](const char* familyName, Cause cause) {
        return strformat("[Session] %s sign-in at %s:%u failed: %s", familyName, host.c_str(), port,
                         session_detail::causeText(cause));
    };
    if (legacy != Cause::None && token == Cause::None)
        log.debug(failed("legacy", legacy));
    else if (legacy != Cause::None)
        log.warning(failed("legacy", legacy));
    if (token != Cause::None)
        log.warning(failed("token", token));
    else
        log.information(strformat("[Session] signed in to %s device %s:%u (%s)", legacy == Cause::None ? "legacy" : "token",
                                  host.c_str(), port, secure ? "https" : "http"));
}

bool Session::signinUnlessSignedIn(json_t*& out, SigninOption& opt)
{
    ORVEX_TRACE();
    Lock lock(mutex);
    if (holdsSession())
        return false;
    return signin(out, opt);
}

bool Session::signout()
{
    ORVEX_TRACE();
    Lock lock(mutex);
    Published published{*this};
    signedOut = true;
    return signoutFamily();
}

bool Session::signoutFamily()
{
    if (family == Zem)
        return _zem_signout();
    if (family == Nvx)
        return _nvx_signout();
    return false;
}

void Session::getSystemInfo(json_t*& out)
{
    ORVEX_TRACE();
    Lock lock(mutex);
    requireSignin();
    // A value that is not UTF-8 has no JSON string, so its key stays out.
    json_object_set_nocheck(out, "model", modelJson.of(model));
    json_object_set_nocheck(out, "serial", serialJson.of(serial));
    json_object_set_nocheck(out, "firmware", firmwareJson.of(firmware));
    json_object_set_nocheck(out, "hostname", hostnameJson.of(hostname));
}

json_t* Session::IdentityJson::of(const std::string& current)
{
    if (!made || value != current) {
        value = current;
        json = JsonRef::adopt(json_string(current.c_str()));
        made = true;
    }
    return json.get();
}

void Session::alive(Poco::Timer&)
{
    ORVEX_TRACE();
    Lock lock(mutex);
    const time_t limit = idleLimit.load();
    if (limit > 0 && time(nullptr) - lastAccess.load() > limit)
        endProcess(*this, "timeout", Ending::Why::Idle, strformat("idle over %lld s", static_cast<long long>(limit)));
    if (!sid.empty() && (_zem_alive() || _nvx_alive()))
        return;
    endProcess(*this, "not signin", Ending::Why::DeadSession);
}

void Session::setIdleLimit(time_t seconds)
{
    idleLimit.store(seconds);
}

// The client side lives apart from the device protocols (bus clients link only that).
void Session::start(json_t*& out, const DeviceOption& opt)
{
    Control::start(out, opt);
}

void Session::stop()
{
    Control::stop();
}

void Session::stop(json_t*& out, const MacOption& opt)
{
    Control::stop(out, opt);
}

void Session::call(json_t*& inout, const DeviceOption& opt, std::string method)
{
    Control::call(inout, opt, method);
}

}  // namespace Orvex
