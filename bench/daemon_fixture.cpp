#include "bench/daemon_fixture.h"

#include "bench/baseline_tls.h"

#include "common/raii.h"
#include "zservice/channel.h"
#include "zservice/zservice.h"

#include <time.h>

#include <cstdio>
#include <stdexcept>
#include <thread>

#include <jansson.h>

#include <Poco/StreamCopier.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/SecureStreamSocket.h>

#include <openssl/ssl.h>

namespace Orvex {
namespace Bench {

namespace {

using Clock = std::chrono::steady_clock;
using Poco::Net::Context;

constexpr const char* kConfigPath = "/orvex/v1/rsyslog/config";
const std::chrono::milliseconds kStartTimeout(10000);

std::string get(Poco::Net::HTTPClientSession& client, const std::string& path, const std::string& bearer,
                int& status)
{
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, path, Poco::Net::HTTPMessage::HTTP_1_1);
    if (!bearer.empty())
        request.set("Authorization", "Bearer " + bearer);
    request.setContentLength(0);
    client.setTimeout(Poco::Timespan(10, 0));
    client.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::string body;
    Poco::StreamCopier::copyToString(client.receiveResponse(response), body);
    status = response.getStatus();
    return body;
}

// The "error_code" of a reply, 0 when it has none; -1 for a reply that is no object.
long errorCode(const std::string& reply)
{
    JsonRef json = JsonRef::adopt(json_loads(reply.c_str(), 0, nullptr));
    if (!json || !json_is_object(json.get()))
        return -1;
    return static_cast<long>(json_integer_value(json_object_get(json.get(), "error_code")));
}

}  // namespace

// ---- simulator ---------------------------------------------------------------------------

Devsim::Devsim(const Programs& programs, bool tls) : tls_(tls)
{
    std::vector<std::string> argv = {programs.devsim, "--family", "token", "--port", "0", "--stdin-watch"};
    if (tls)
        argv.push_back("--tls");
    SpawnOptions options;
    options.stdinPipe = true;
    options.stdoutPipe = true;
    process_.reset(new Process(argv, options));
    std::string line;
    const std::string marker = "://127.0.0.1:";
    if (!process_->readLine(line, kStartTimeout) || line.find(marker) == std::string::npos)
        throw std::runtime_error("orvex-devsim did not start: \"" + line + "\"");
    port_ = std::stoi(line.substr(line.find(marker) + marker.size()));
}

std::string Devsim::url(const std::string& path) const
{
    return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_) + path;
}

// ---- bus -----------------------------------------------------------------------------------

std::string macAddress(int index)
{
    char text[32];
    std::snprintf(text, sizeof text, "02:00:00:00:%02x:%02x", (index >> 8) & 0xff, index & 0xff);
    return text;
}

std::string busAddressOf(const std::string& mac)
{
    return "@/var/run/orvex/orvex-session@" + mac;
}

bool busCall(const std::string& address, const std::string& method, const std::string& body, std::string* reply,
             int timeoutSeconds)
{
    ZsIoPtr io = makeZsIo();
    if (!io || zs_io_write(io.get(), body.data(), body.size()) < 0)
        return false;
    if (zs_call(address.c_str(), method.c_str(), io.get(), timeoutSeconds, -1) != 0)
        return false;
    if (reply)
        reply->assign(zs_io_read(io.get(), 0), zs_io_size(io.get()));
    return true;
}

bool waitForAnswer(const std::string& address, std::chrono::milliseconds timeout)
{
    const auto deadline = Clock::now() + timeout;
    const timespec pause = {0, 100 * 1000};
    while (Clock::now() < deadline) {
        // An unknown method is answered by the bus thread itself ("help" runs in a forked
        // process in the daemon and would add its own cost to the start-up figure).
        if (zs_call(address.c_str(), "orvex_bench_ready", nullptr, 1, -1) == 0)
            return true;
        nanosleep(&pause, nullptr);
    }
    return false;
}

Daemon::Daemon(const Programs& programs, const std::string& mac)
    : mac_(mac), address_(busAddressOf(mac)), process_(new Process({programs.daemon, "-m", mac, "-d"}))
{
}

bool Daemon::ready(std::chrono::milliseconds timeout)
{
    return waitForAnswer(address_, timeout);
}

void Daemon::signin(const Devsim& device)
{
    JsonRef args = JsonRef::adopt(json_pack("{ss si ss ss sb}", "ip", "127.0.0.1", "port", device.port(), "user",
                                            "admin", "pass", "secret", "secure", device.tls() ? 1 : 0));
    char* text = json_dumps(args.get(), JSON_COMPACT);
    const std::string body = text ? text : "{}";
    free(text);
    std::string reply;
    if (!busCall(address_, "signin", body, &reply, 30) || errorCode(reply) != 0)
        throw std::runtime_error("signin of " + mac_ + " failed: \"" + reply + "\"");
}

std::unique_ptr<Process> startPeer(const std::vector<std::string>& argv)
{
    SpawnOptions options;
    options.stdinPipe = true;
    options.stdoutPipe = true;
    std::unique_ptr<Process> peer(new Process(argv, options));
    std::string line;
    if (!peer->readLine(line, kStartTimeout) || line != "ready")
        throw std::runtime_error(argv[0] + " " + argv[1] + " did not start");
    return peer;
}

// ---- bare device client --------------------------------------------------------------------

BareClient::BareClient(const Devsim& device, int slots)
    : device_(device), shared_(bench::baselineContext(true)), sessions_(static_cast<size_t>(slots))
{
    std::unique_ptr<Poco::Net::HTTPClientSession> client;
    if (device.tls())
        client.reset(new Poco::Net::HTTPSClientSession("127.0.0.1", static_cast<Poco::UInt16>(device.port()), shared_));
    else
        client.reset(new Poco::Net::HTTPClientSession("127.0.0.1", static_cast<Poco::UInt16>(device.port())));
    int status = 0;
    // "c2VjcmV0" is "secret" in Base64, as the daemon sends it.
    const std::string grant =
        get(*client, "/zem/oauth/token?grant_type=password&username=admin&password=c2VjcmV0", "", status);
    JsonRef json = JsonRef::adopt(json_loads(grant.c_str(), 0, nullptr));
    const char* token = json_string_value(json_object_get(json.get(), "access_token"));
    if (status != 200 || !token)
        throw std::runtime_error("bare client sign-in failed: \"" + grant + "\"");
    bearer_ = token;
}

bool BareClient::exchange(Poco::Net::HTTPClientSession& client)
{
    try {
        int status = 0;
        get(client, kConfigPath, bearer_, status);
        return status == 200;
    } catch (const Poco::Exception&) {
        return false;
    }
}

bool BareClient::callHttp()
{
    Poco::Net::HTTPClientSession client("127.0.0.1", static_cast<Poco::UInt16>(device_.port()));
    return exchange(client);
}

bool BareClient::callResumed(int slot)
{
    Poco::Net::Session::Ptr& session = sessions_[static_cast<size_t>(slot)];
    Poco::Net::HTTPSClientSession client("127.0.0.1", static_cast<Poco::UInt16>(device_.port()), shared_, session);
    if (!exchange(client))
        return false;
    // Taken after the reply: TLS 1.3 tickets arrive after the handshake.
    Poco::Net::SecureStreamSocket socket(client.socket());
    resumed_ += socket.sessionWasReused() ? 1 : 0;
    if (Poco::Net::Session::Ptr latest = socket.currentSession())
        session = latest;
    return true;
}

bool BareClient::callFullHandshake()
{
    Poco::Net::HTTPSClientSession client("127.0.0.1", static_cast<Poco::UInt16>(device_.port()), bench::baselineContext(false));
    return exchange(client);
}

}  // namespace Bench
}  // namespace Orvex
