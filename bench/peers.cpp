// The bare baselines: raw AF_UNIX echo, bus library alone, D-Bus, idle POCO process, and
// the bare POCO device client.
#include "bench/bench.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include <Poco/Exception.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/NetSSL.h>
#include <Poco/Net/SecureStreamSocket.h>
#include <Poco/StreamCopier.h>
#include <jansson.h>
#include <openssl/ssl.h>
#include <systemd/sd-bus.h>

#include "common/raii.h"
#include "service/misc.h"
#include "tests/support/bus.h"
#include "zservice/internal.h"

namespace Orvex::Bench {

namespace {

constexpr const char* kDbusName = "org.orvex.Bench";
constexpr const char* kDbusPath = "/org/orvex/Bench";
std::string g_reply;

// Reads one whole frame; body gets its body.
bool readFrame(int fd, std::string& body)
{
    uint8_t header[ZS_HEADER_SIZE];
    Bus::Header h;
    if (::recv(fd, header, sizeof header, MSG_WAITALL) != sizeof header || !Bus::decodeHeader(header, h))
        return false;
    std::string rest(h.nameLength + h.bodyLength, '\0');
    if (!rest.empty() && ::recv(fd, &rest[0], rest.size(), MSG_WAITALL) != static_cast<ssize_t>(rest.size()))
        return false;
    body = rest.substr(h.nameLength);
    return true;
}

int echo(const std::string& address, const std::string& reply)
{
    Poco::Net::initializeSSL();  // the daemon starts OpenSSL before it serves; so does its start-up baseline
    UniqueFd listening(Test::rawListen(address));
    const std::string answer = Test::frame(ZS_KIND_REPLY, "", reply);
    std::string request;
    while (listening) {
        UniqueFd fd(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (fd && readFrame(fd.get(), request))
            Test::sendAll(fd.get(), answer);
    }
    return 1;
}

// The bus library alone, replying on its loop thread: the floor of a bus call.
void answer(const char*, zs_io* io, int fd)
{
    if (fd >= 0)
        ::close(fd);
    zs_io_realloc(io, 0);
    zs_io_write(io, g_reply.data(), g_reply.size());
    zs_reply(io);
    zs_io_free(io);
}

// The same plus the work a daemon call cannot skip: the arguments parsed, the reply object
// built (copied from a parsed template), the caller's liveness checked as every reply
// function does, and the reply dumped as the daemon dumps it.
json_t* g_template = nullptr;

void answerJson(const char*, zs_io* io, int fd)
{
    if (fd >= 0)
        ::close(fd);
    JsonRef args = JsonRef::adopt(json_loadb(zs_io_read(io, 0), zs_io_size(io), 0, nullptr));
    JsonRef reply = JsonRef::adopt(json_deep_copy(g_template));
    if (!zs_io_alive(io)) {
        zs_io_free(io);
        return;
    }
    char text[4096];
    const size_t size = json_dumpb(reply.get(), text, sizeof text, ORVEX_JSON_FLAGS);
    zs_io_realloc(io, 0);
    zs_io_write(io, text, std::min(size, sizeof text));
    zs_reply(io);
    zs_io_free(io);
}

int busAlone(const std::string& address, bool json)
{
    g_template = json_loads(g_reply.c_str(), 0, nullptr);
    zs* service = zs_create(address.c_str(), 4, 1, json ? answerJson : answer);
    return service ? zs_start(service) : 1;
}

// An idle bare POCO process after one HTTPS sign-in and request, as a signed-in session:
// it makes a keep-alive tick's exchange (one request over the resumed TLS session) 30 s
// after it is ready and every 60 s after that, as a daemon does, until its input ends.
int idle(int port)
{
    Poco::Net::initializeSSL();
    BareDevice device(port, true, clientContext(true));
    if (!device.signin() || !device.readConfig())
        return 1;
    std::puts("ready");
    std::fflush(stdout);
    for (int waitMs = 30000;; waitMs = 60000) {
        pollfd input{0, POLLIN, 0};
        const int ready = ::poll(&input, 1, waitMs);
        char byte;
        if (ready > 0 && ::read(0, &byte, 1) <= 0)
            return 0;
        if (ready == 0)
            device.readConfig();
    }
}

int onEcho(sd_bus_message* message, void*, sd_bus_error*)
{
    const char* body = nullptr;
    const int r = sd_bus_message_read(message, "s", &body);
    return r < 0 ? r : sd_bus_reply_method_return(message, "s", g_reply.c_str());
}

const sd_bus_vtable kVtable[] = {SD_BUS_VTABLE_START(0),
                                 SD_BUS_METHOD("Echo", "s", "s", onEcho, SD_BUS_VTABLE_UNPRIVILEGED),
                                 SD_BUS_VTABLE_END};

}  // namespace

sd_bus* dbusConnect(const std::string& address)
{
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0)
        return nullptr;
    if (sd_bus_set_address(bus, address.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0)
        return sd_bus_unref(bus);
    return bus;
}

namespace {

int dbusPeer(const std::string& address)
{
    sd_bus* bus = dbusConnect(address);
    if (!bus || sd_bus_add_object_vtable(bus, nullptr, kDbusPath, kDbusName, kVtable, nullptr) < 0 ||
        sd_bus_request_name(bus, kDbusName, 0) < 0)
        return 1;
    for (;;) {
        const int r = sd_bus_process(bus, nullptr);
        if (r < 0 || (r == 0 && sd_bus_wait(bus, UINT64_MAX) < 0))
            return 1;
    }
}

}  // namespace

bool dbusCall(sd_bus* bus, size_t expected)
{
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const char* text = nullptr;
    const bool ok = sd_bus_call_method(bus, kDbusName, kDbusPath, kDbusName, "Echo", &error, &reply, "s", "{}") >= 0 &&
                    sd_bus_message_read(reply, "s", &text) >= 0 && text && std::strlen(text) == expected;
    sd_bus_message_unref(reply);
    sd_bus_error_free(&error);
    return ok;
}

int peerMain(int argc, char** argv)
{
    const std::string mode = argv[1];
    g_reply = argc > 3 ? argv[3] : "";
    if (mode == "echo" && argc == 4)
        return echo(argv[2], argv[3]);
    if ((mode == "direct" || mode == "json") && argc == 4)
        return busAlone(argv[2], mode == "json");
    if (mode == "idle" && argc == 3)
        return idle(std::atoi(argv[2]));
    if (mode == "dbus" && argc == 4)
        return dbusPeer(argv[2]);
    std::fputs("usage: orvex_bench echo|direct|json|dbus ADDRESS REPLY | idle PORT\n", stderr);
    return 2;
}

std::unique_ptr<Test::Child> idlePeer(const Settings& s, int port, const std::string& outPath)
{
    Test::Spawn spawn = command({s.self, "idle", std::to_string(port)});
    spawn.stdinPipe = true;
    spawn.stdoutPath = outPath;
    return std::make_unique<Test::Child>(spawn);
}

bool rawCall(const std::string& address, const std::string& frame, std::string& reply)
{
    UniqueFd fd(Test::rawConnect(address));
    return fd && Test::sendAll(fd.get(), frame) && readFrame(fd.get(), reply);
}


// ---- the bare POCO device client ------------------------------------------------------------

Poco::Net::Context::Ptr clientContext(bool resumable)
{
    using Poco::Net::Context;
    Context::Ptr context = new Context(Context::TLSV1_CLIENT_USE, "", "", "", Context::VERIFY_NONE, 9, false,
                                       "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH");
    context->disableProtocols(Context::PROTO_SSLV2 | Context::PROTO_SSLV3 | Context::PROTO_TLSV1);
    context->enableSessionCache(resumable);
    if (resumable)
        SSL_CTX_set1_groups_list(context->sslContext(), "X25519:P-256:X448:P-384:P-521");
    return context;
}

BareDevice::BareDevice(int port, bool tls, Poco::Net::Context::Ptr context) : port_(port), tls_(tls), context_(context)
{
}

int BareDevice::request(const std::string& method, const std::string& path, const std::string& body,
                        Poco::Net::Context::Ptr fresh)
{
    using namespace Poco::Net;
    try {
        std::unique_ptr<HTTPClientSession> client;
        const auto port = static_cast<Poco::UInt16>(port_);
        if (tls_)
            client = std::make_unique<HTTPSClientSession>("127.0.0.1", port, fresh ? fresh : context_,
                                                          fresh ? nullptr : session_);
        else
            client = std::make_unique<HTTPClientSession>("127.0.0.1", port);
        client->setTimeout(Poco::Timespan(10, 0));
        // The credential as a "sid" parameter, which both families take.
        HTTPRequest request(method, path + (sid_.empty() ? "" : (path.find('?') == std::string::npos ? "?" : "&") +
                                                                    ("sid=" + sid_)), HTTPMessage::HTTP_1_1);
        request.setContentLength(static_cast<std::streamsize>(body.size()));
        client->sendRequest(request) << body;
        HTTPResponse response;
        reply_.clear();
        Poco::StreamCopier::copyToString(client->receiveResponse(response), reply_);
        if (tls_ && !fresh) {
            SecureStreamSocket socket(client->socket());
            resumed += socket.sessionWasReused() ? 1 : 0;
            if (Session::Ptr latest = socket.currentSession())
                session_ = latest;
        }
        return response.getStatus();
    } catch (const Poco::Exception&) {
        return -1;
    }
}

bool BareDevice::signin()
{
    sid_.clear();
    // "c2VjcmV0" is "secret" in Base64, as the daemon sends it.
    if (request("POST", "/cgi-bin/authLogin.cgi", "user=admin&pwd=c2VjcmV0") == 200) {
        const size_t at = reply_.find("<authSid>"), end = reply_.find("</authSid>");
        if (at == std::string::npos || end == std::string::npos)
            return false;
        sid_ = reply_.substr(at + 9, end - at - 9);
        return request("GET", "/cgi-bin/authLogin.cgi", "") == 200 &&
               request("GET", "/cgi-bin/management/manaRequest.cgi?subfunc=sysinfo", "") == 200;
    }
    if (request("GET", "/zem/oauth/token?grant_type=password&username=admin&password=c2VjcmV0", "") != 200)
        return false;
    JsonRef json = JsonRef::adopt(json_loads(reply_.c_str(), 0, nullptr));
    const char* token = json_string_value(json_object_get(json.get(), "access_token"));
    sid_ = token ? token : "";
    return token && request("GET", "/system/firmware/info", "") == 200 && request("GET", "/zem/system", "") == 200;
}

bool BareDevice::readConfig(bool fullHandshake)
{
    return request("GET", "/orvex/v1/rsyslog/config", "", fullHandshake ? clientContext(false) : nullptr) == 200;
}

bool BareDevice::changeConfig()
{
    return request("PUT", "/orvex/v1/rsyslog/client/config", "{\"bsd\":true,\"orvex\":false}") == 200;
}

}  // namespace Orvex::Bench
