#include "session/session.h"

#include "common/misc.h"
#include "common/trace.h"
#include "session/exchange.h"

#include <Poco/Logger.h>
#include <Poco/SingletonHolder.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/NameValueCollection.h>
#include <Poco/Net/NetSSL.h>

#include <algorithm>

namespace Orvex {

using session_detail::Cause;
using session_detail::ExchangeError;

namespace {

constexpr const char* kHidden = "<hidden>";

void replaceAll(std::string& text, const std::string& secret)
{
    // Very short values would hide ordinary text; ids and tokens are never that short.
    if (secret.size() < 4)
        return;
    for (size_t at = text.find(secret); at != std::string::npos; at = text.find(secret, at + 1))
        text.replace(at, secret.size(), kHidden);
}

// Hides the value after each occurrence of key (a JSON key or an XML start tag), up to the
// next quote or '<', so a new id or token is hidden before it is known.
void hideValues(std::string& text, const std::string& key)
{
    for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
        size_t start = text.find_first_not_of(" \t\r\n:", at + key.size());
        if (start != std::string::npos && text[start] == '"')
            ++start;
        size_t end = start == std::string::npos ? std::string::npos : text.find_first_of("\"<", start);
        if (end != std::string::npos && end > start)
            text.replace(start, end - start, kHidden);
    }
}

}  // namespace

std::atomic<Session*> Session::current{nullptr};

Session::Session() = default;

Session::~Session()
{
    Session* self = this;
    current.compare_exchange_strong(self, nullptr);
}

Session& Session::getInstance()
{
    // OpenSSL registers its own clean-up at exit when it starts; starting it before the
    // holder exists makes the session, and its TLS context, go first at exit.
    static const bool sslReady = (Poco::Net::initializeSSL(), true);
    (void)sslReady;
    static Poco::SingletonHolder<Session> holder;
    Session* session = holder.get();
    current.store(session);
    session->lastAccess.store(time(nullptr));
    return *session;
}

time_t Session::lastUse()
{
    Session* session = current.load();
    return session != nullptr ? session->lastAccess.load() : 0;
}

std::string Session::request(const std::string& method, const std::string& path)
{
    return request(method, path, std::string(), false);
}

std::string Session::request(const std::string& method, const std::string& path, const std::string& body, bool json)
{
    ORVEX_TRACE();
    Lock lock(mutex);
    Poco::Net::HTTPRequest httpRequest(method, path, Poco::Net::HTTPMessage::HTTP_1_1);
    addCredentials(httpRequest);
    if (json)
        httpRequest.setContentType("application/json");
    httpRequest.setContentLength(static_cast<std::streamsize>(body.size()));
    try {
        if (secure && !tls)
            tls = std::make_unique<session_detail::TlsClient>();
        session_detail::Answer answer = session_detail::exchange(host, static_cast<uint16_t>(port),
                                                                 secure ? tls.get() : nullptr, httpRequest, body);
        lastStatus = answer.status;
        return std::move(answer.body);
    } catch (const ExchangeError& e) {
        failStep(e.cause());
        Poco::Logger::root().error(strformat("[Session] %s", e.displayText().c_str()));
    } catch (const Poco::Exception& e) {
        failStep(Cause::BadAnswer);
        Poco::Logger::root().error(strformat("[Session] %s:%u: %s", host.c_str(), port, e.displayText().c_str()));
    } catch (...) {
        failStep(Cause::BadAnswer);
    }
    throw SessionException("connection fail", 400);
}

void Session::addCredentials(Poco::Net::HTTPRequest& httpRequest) const
{
    if (sid.empty())
        return;
    if (family == Nvx) {
        Poco::Net::NameValueCollection cookies;
        cookies.add("NAS_SID", sid);
        cookies.add(secure ? "NVX_SSL_SSID" : "NVX_SSID", sid);
        httpRequest.setCookies(cookies);
        return;
    }
    httpRequest.set("Authorization", strformat("Bearer %s", sid.c_str()));
}

std::string Session::redacted(std::string text) const
{
    for (const std::string* secret : {&sid, &accessToken, &refreshToken, &password})
        replaceAll(text, *secret);
    for (const char* key : {"<authSid>", "\"access_token\"", "\"refresh_token\""})
        hideValues(text, key);
    return text;
}

bool Session::failStep(Cause cause)
{
    if (stepFailure == Cause::None)
        stepFailure = cause;
    return false;
}

bool Session::checkedStep(Cause onThrow, const std::function<bool()>& rules)
{
    try {
        return rules();
    } catch (...) {
        return failStep(onThrow);
    }
}

std::string Session::answer(const char* step, const std::string& method, const std::string& path,
                            const std::string& body, const char* file, int line)
{
    std::string reply = request(method, path, body, false);
    if (trace::enabled())
        trace::writef(trace::baseName(file), line, step, "[Session] %s", redacted(reply).c_str());
    return reply;
}

void Session::requireSignin() const
{
    if (sid.empty())
        throw SessionException("not signin", 403);
}

bool Session::holdsSession() const
{
    return !sid.empty() && !signedOut;
}

FirmwareFamily Session::getFamily() const
{
    Lock lock(mutex);
    return family;
}

void Session::setLastAccess(time_t stamp)
{
    lastAccess.store(stamp);
}

void Session::reset()
{
    Lock lock(mutex);
    clearFields();
    tls.reset();
    signedOut = false;
    signinFailure = Cause::None;
    publish(false);
}

void Session::clearFields()
{
    host.clear();
    port = 0;
    secure = false;
    user.clear();
    password.clear();
    family = None;
    sid.clear();
    accessToken.clear();
    refreshToken.clear();
    model.clear();
    serial.clear();
    firmware.clear();
    hostname.clear();
}

SessionStatus Session::status() const
{
    std::lock_guard<std::mutex> guard(statusMutex);
    return published;
}

void Session::setObserver(std::function<void(const SessionStatus&)> fn)
{
    std::lock_guard<std::mutex> guard(statusMutex);
    observer = std::move(fn);
}

void Session::publish(bool notify)
{
    SessionStatus now{int(family), host,     port,     secure,   model,
                      serial,      firmware, hostname, holdsSession(),
                      session_detail::causeName(signinFailure)};
    std::function<void(const SessionStatus&)> fn;
    {
        std::lock_guard<std::mutex> guard(statusMutex);
        published = now;
        if (notify)
            fn = observer;
    }
    try {
        if (fn)
            fn(now);
    } catch (...) {
        // A failing observer must not turn a sign-in or sign-out into a failure.
    }
}

}  // namespace Orvex
