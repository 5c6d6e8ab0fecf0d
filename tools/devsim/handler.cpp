#include "tools/devsim/handler.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerRequestImpl.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/String.h>
#include <Poco/URI.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace Orvex::Devsim {

namespace {

// Larger bodies are cut; nothing the clients send comes near it.
constexpr size_t kMaxBody = 4 * 1024 * 1024;
constexpr char kGarbage[] = "Service temporarily unavailable -- try again later ~~ #%!\n";
constexpr char kRsyslogPrefix[] = "/orvex/v1/rsyslog";

// Percent-decoding that keeps a malformed text as it came instead of failing the request.
std::string lenientDecode(const std::string& text)
{
    std::string decoded;
    try {
        Poco::URI::decode(text, decoded);
    } catch (const Poco::Exception&) {
        return text;
    }
    return decoded;
}

std::string readBody(Poco::Net::HTTPServerRequest& request)
{
    std::string body;
    std::istream& in = request.stream();
    char chunk[8192];
    while (body.size() < kMaxBody && in.read(chunk, sizeof chunk).gcount() > 0)
        body.append(chunk, static_cast<size_t>(in.gcount()));
    return body;
}

std::string bearerOf(const Poco::Net::HTTPServerRequest& request)
{
    const std::string value = request.get("Authorization", "");  // a copy: get() may return its default
    if (value.size() < 7 || Poco::icompare(value.substr(0, 7), "bearer ") != 0)
        return "";
    return Poco::trim(value.substr(7));
}

Exchange parseExchange(Poco::Net::HTTPServerRequest& request, const std::string& body)
{
    Exchange exchange;
    exchange.method = request.getMethod();
    const std::string& target = request.getURI();
    size_t mark = target.find('?');
    exchange.path = lenientDecode(target.substr(0, mark));
    if (mark != std::string::npos)
        exchange.query = splitParams(target.substr(mark + 1), true);
    exchange.body = body;
    request.getCookies(exchange.cookies);
    exchange.bearer = bearerOf(request);
    return exchange;
}

Reply route(Device& device, const Exchange& exchange)
{
    if (exchange.path.compare(0, sizeof kRsyslogPrefix - 1, kRsyslogPrefix) == 0)
        return rsyslogPage(device, exchange);
    if (device.config.family == Family::Legacy)
        return legacyPage(device, exchange);
    return tokenPage(device, exchange);
}

// Turns the reply into (content type, body), applying --omit and --json-array.
std::pair<std::string, std::string> render(Reply& reply, const Faults& faults, bool asArray)
{
    if (reply.kind == Reply::Text)
        return {reply.contentType, asArray ? "[]" : reply.text};
    omitKeys(reply.tree.get(), faults.omit);
    if (reply.kind == Reply::Xml)
        return {"text/xml; charset=utf-8", asArray ? "[]" : renderXml(reply.tree.get())};
    std::string json = renderJson(reply.tree.get());
    return {"application/json", asArray ? "[" + json + "]" : json};
}

void send(Poco::Net::HTTPServerResponse& response, int status, const std::string& type, const std::string& body)
{
    auto code = static_cast<Poco::Net::HTTPResponse::HTTPStatus>(status);
    response.setStatusAndReason(code, Poco::Net::HTTPResponse::getReasonForStatus(code));
    response.setContentType(type);
    response.setContentLength(static_cast<std::streamsize>(body.size()));
    response.send().write(body.data(), static_cast<std::streamsize>(body.size()));
}

void hangUp(Poco::Net::HTTPServerRequest& request)
{
    auto& impl = static_cast<Poco::Net::HTTPServerRequestImpl&>(request);
    Poco::Net::StreamSocket socket = impl.detachSocket();
    // Shut down only: the descriptor itself is closed by the server when the last
    // owner of the socket lets go, so no two threads ever close it.
    try {
        socket.shutdown();
    } catch (const Poco::Exception&) {
        // The peer may already be gone.
    }
}

Reply answer(Device& device, const Exchange& exchange)
{
    try {
        return route(device, exchange);
    } catch (const std::exception& e) {
        return Reply::error(500, std::string("internal error: ") + e.what());
    }
}

// The waits of --delay-ms, which a stop cuts short.
struct Delays {
    std::mutex mutex;
    std::condition_variable cut;
    bool stopping = false;
};

Delays& delays()
{
    static Delays shared;
    return shared;
}

void delay(std::chrono::milliseconds time)
{
    Delays& d = delays();
    std::unique_lock<std::mutex> lock(d.mutex);
    d.cut.wait_for(lock, time, [&d] { return d.stopping; });
}

class DeviceHandler : public Poco::Net::HTTPRequestHandler {
public:
    explicit DeviceHandler(Device& device) : device_(device) {}

    void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override
    {
        std::string body = readBody(request);
        device_.log.write(request, body);
        Exchange exchange = parseExchange(request, body);
        const Faults& faults = device_.config.faults;
        if (const int delayMs = answerDelayMs(faults, exchange.path))
            delay(std::chrono::milliseconds(delayMs));
        if (hasPrefix(faults.hangup, exchange.path))
            return hangUp(request);
        if (hasPrefix(faults.garbage, exchange.path))
            return send(response, 200, "text/plain", kGarbage);
        Reply reply = answer(device_, exchange);
        auto rendered = render(reply, faults, hasPrefix(faults.jsonArray, exchange.path));
        send(response, reply.status, rendered.first, rendered.second);
    }

private:
    Device& device_;
};

}  // namespace

void cutDelays()
{
    Delays& d = delays();
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.stopping = true;
    }
    d.cut.notify_all();
}

std::string param(const Params& params, const std::string& name, bool* found)
{
    for (const auto& p : params) {
        if (p.first == name) {
            if (found)
                *found = true;
            return p.second;
        }
    }
    if (found)
        *found = false;
    return "";
}

Params splitParams(const std::string& text, bool decode)
{
    Params params;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('&', start);
        if (end == std::string::npos)
            end = text.size();
        std::string item = text.substr(start, end - start);
        if (!item.empty()) {
            size_t eq = item.find('=');
            std::string name = item.substr(0, eq);
            std::string value = eq == std::string::npos ? "" : item.substr(eq + 1);
            if (decode)
                params.emplace_back(lenientDecode(name), lenientDecode(value));
            else
                params.emplace_back(name, value);
        }
        start = end + 1;
    }
    return params;
}

Poco::Net::HTTPRequestHandler* HandlerFactory::createRequestHandler(const Poco::Net::HTTPServerRequest&)
{
    return new DeviceHandler(device_);
}

}  // namespace Orvex::Devsim
