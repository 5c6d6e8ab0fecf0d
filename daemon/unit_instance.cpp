#include "daemon/unit_instance.h"

#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <thread>

#include <Poco/Logger.h>

#include "common/ending.h"
#include "common/exceptions.h"
#include "common/misc.h"
#include "common/paths.h"
#include "daemon/notify.h"
#include "methods/service_session.h"
#include "option/option.h"

namespace Orvex {

namespace {

void sayWhy(const std::string& reason)
{
    Poco::Logger::root().error("[Session] " + reason);
    Notify::status(reason);
}

// A start-up failure of a unit instance that a restart would only repeat.
[[noreturn]] void endNotConfigured(const std::string& reason)
{
    sayWhy(reason);
    Ending::aboutToEnd(Ending::Why::NotConfigured, reason);
    std::exit(UnitExit::kNotConfigured);
}

}  // namespace

UnitInstance::UnitInstance(const std::string& mac, Session& session) : session_(session), mac_(mac)
{
    setSignoutExitStatus(UnitExit::kSignedOut);
    try {
        configured_ = readDeviceConfig(mac, config_);
        if (!configured_)
            return;
        std::optional<std::string> pass = readPasswordCredential();
        if (!pass)
            endNotConfigured(Paths::configPath(mac) + " has no password credential with it (run orvexctl enable again)");
        signinArgs_ = JsonRef::adopt(json_pack("{ss si ss ss sb}", "ip", config_.ip.c_str(), "port", config_.port,
            "user", config_.user.c_str(), "pass", pass->c_str(), "secure", config_.secure));
        // The sign-in's own checks, once: an address it refuses would be refused on every try.
        SigninOption check(signinArgs_.get());
    } catch (const ConfigError& e) {
        endNotConfigured(e.what());
    } catch (const OptionException& e) {
        endNotConfigured(Paths::configPath(mac) + ": " + e.message());
    }
    session_.setIdleLimit(config_.idleSeconds);
}

UnitInstance::~UnitInstance()
{
    stop();
}

void UnitInstance::start()
{
    if (!configured_ || retries_)
        return;
    retrying_ = true;
    retries_ = std::make_shared<Retries>();
    std::thread([this, retries = retries_] { run(*retries); }).detach();
}

void UnitInstance::stop()
{
    if (!retries_)
        return;
    std::unique_lock<std::mutex> lock(retries_->mutex);
    retries_->stopping = true;
    retries_->wake.notify_all();
    retries_->wake.wait(lock, [this] { return retries_->finished; });
}

bool UnitInstance::tickMayRun()
{
    // A caller who signed in meanwhile ends the retries at the next wake-up; the tick
    // keeps that session alive from now on.
    if (retrying_ && !session_.status().signedIn)
        return false;
    if (configured_ || session_.status().signedIn)
        return true;
    std::string reason = "not signed in, and no settings in " + Paths::configPath(mac_) + " to sign in with (orvexctl enable)";
    sayWhy(reason);
    // As the tick's own ends: at once, from the tick's thread, without the orderly stop.
    Ending::aboutToEnd(Ending::Why::NotConfigured, reason);
    _exit(UnitExit::kNotConfigured);
}

void UnitInstance::run(Retries& retries)
{
    std::chrono::seconds pause = kFirstPause;
    std::unique_lock<std::mutex> lock(retries.mutex);
    while (!retries.stopping) {
        lock.unlock();
        bool done = attempt();
        lock.lock();
        if (done)
            break;
        reportFailure(pause);
        if (retries.wake.wait_for(lock, pause, [&retries] { return retries.stopping; }))
            break;
        pause = std::min(pause * 2, kLongestPause);
    }
    retrying_ = false;
    retries.finished = true;
    retries.wake.notify_all();
}

// True once the session is held, by this sign-in or a caller's.
bool UnitInstance::attempt()
{
    // An attempt is a use: a session that took long to come up is not idle at once.
    Session::getInstance();
    JsonRef out = JsonRef::adopt(json_object());
    json_t* reply = out.get();
    try {
        SigninOption option(signinArgs_.get());
        if (session_.signinUnlessSignedIn(reply, option))
            Poco::Logger::root().information(strformat("[Session] signed in to %s:%d with the settings of %s",
                config_.ip.c_str(), config_.port, Paths::configPath(mac_).c_str()));
        return true;
    } catch (const Poco::Exception&) {
        // The cause is in the session's status, and each family logged its own.
        return false;
    }
}

void UnitInstance::reportFailure(std::chrono::seconds pause)
{
    std::string cause = session_.status().failure;
    std::string text = strformat("sign-in to %s:%d failed: %s; next try in %lld s", config_.ip.c_str(), config_.port,
        cause.empty() ? "no answer" : cause.c_str(), static_cast<long long>(pause.count()));
    Poco::Logger::root().warning("[Session] " + text);
    Notify::status(text);
}

}  // namespace Orvex
