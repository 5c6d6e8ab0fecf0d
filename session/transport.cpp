#include "session/session.h"

#include "common/misc.h"
#include "common/trace.h"

#include <Poco/Logger.h>
#include <Poco/SingletonHolder.h>
#include <Poco/StreamCopier.h>
#include <Poco/Timespan.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/NameValueCollection.h>
#include <Poco/Net/NetSSL.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/Net/Session.h>

#include <openssl/ssl.h>

namespace Orvex {

namespace {

using Poco::Net::Context;

constexpr const char* kCipherList = "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH";
// X25519 first: its key share is the cheapest to make, and OpenSSL sends the first
// group's share in the hello, so a TLS 1.3 device needs no second round trip.
constexpr const char* kGroups = "X25519:P-256:X448:P-384:P-521";

Context::Ptr makeContext()
{
    Context::Ptr context = new Context(Context::TLSV1_CLIENT_USE, "", "", "", Context::VERIFY_NONE, 9, false,
                                       kCipherList);
    context->disableProtocols(Context::PROTO_SSLV2 | Context::PROTO_SSLV3 | Context::PROTO_TLSV1);
    context->enableSessionCache(true);
    SSL_CTX_set1_groups_list(context->sslContext(), kGroups);
    return context;
}

std::string roundTrip(Poco::Net::HTTPClientSession& client, Poco::Net::HTTPRequest& request,
                      const std::string& body)
{
    client.setTimeout(Poco::Timespan(10, 0));
    std::ostream& out = client.sendRequest(request);
    // Poco's streams turn a failed write or read into badbit; make it an exception again
    // so a broken exchange is never mistaken for a short reply.
    out.exceptions(std::ios::badbit);
    out.write(body.data(), static_cast<std::streamsize>(body.size()));
    out.flush();
    Poco::Net::HTTPResponse response;
    std::istream& in = client.receiveResponse(response);
    in.exceptions(std::ios::badbit);
    std::string reply;
    Poco::StreamCopier::copyToString(in, reply);
    return reply;
}

}  // namespace

// The TLS context is made once (the settings never change) and the last session of the
// current device is offered again, so a request costs a resumption instead of a full
// handshake. Guarded by the session lock.
struct Session::Tls {
    Context::Ptr context = makeContext();
    Poco::Net::Session::Ptr resumable;
    std::string peer;
};

Session::Session() = default;
Session::~Session() = default;

Session& Session::getInstance()
{
    // OpenSSL registers its own clean-up at exit when it starts; starting it before the
    // holder exists makes the session, and its TLS context, go first at exit.
    static const bool sslReady = (Poco::Net::initializeSSL(), true);
    (void)sslReady;
    static Poco::SingletonHolder<Session> holder;
    Session* session = holder.get();
    session->lastAccess.store(time(nullptr));
    return *session;
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
        return exchange(httpRequest, body);
    } catch (const Poco::Exception& e) {
        Poco::Logger::root().error(strformat("[Session] %s", e.displayText().c_str()));
    } catch (...) {
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

std::string Session::exchange(Poco::Net::HTTPRequest& httpRequest, const std::string& body)
{
    if (secure)
        return exchangeTls(httpRequest, body);
    Poco::Net::HTTPClientSession client(host, static_cast<Poco::UInt16>(port));
    return roundTrip(client, httpRequest, body);
}

std::string Session::exchangeTls(Poco::Net::HTTPRequest& httpRequest, const std::string& body)
{
    if (!tls)
        tls = std::make_unique<Tls>();
    std::string peer = host + ":" + std::to_string(port);
    if (peer != tls->peer) {
        tls->peer = peer;
        tls->resumable = nullptr;
    }
    Poco::Net::HTTPSClientSession client(host, static_cast<Poco::UInt16>(port), tls->context, tls->resumable);
    std::string reply = roundTrip(client, httpRequest, body);
    // Taken only now: a TLS 1.3 device sends its session tickets after the handshake,
    // and they have been read once the reply has.
    Poco::Net::SecureStreamSocket socket(client.socket());
    if (Poco::Net::Session::Ptr latest = socket.currentSession())
        tls->resumable = latest;
    return reply;
}

void Session::requireSignin() const
{
    if (sid.empty())
        throw SessionException("not signin", 403);
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

}  // namespace Orvex
