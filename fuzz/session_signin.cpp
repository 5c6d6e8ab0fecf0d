// Sign-in against a device whose every answer is the input: a small HTTP server on loopback
// (background threads) replies with the input as the body to each request, so the same
// bytes meet the legacy XML parsing, the token JSON unpacking and, once signed in, the
// merge of a syslog answer into a reply. Sign-in either succeeds and reports the four
// identity strings, or fails with "signin fail"; nothing else may escape.
#include "common/raii.h"
#include "fuzz/fuzz_support.h"
#include "option/option.h"
#include "session/session.h"

#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/HTTPServerRequest.h>
#include <Poco/Net/HTTPServerResponse.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/StreamCopier.h>
#include <Poco/ThreadPool.h>

#include <jansson.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

using namespace Orvex;

namespace {

std::mutex answerMutex;
std::string answer;

std::string currentAnswer()
{
    std::lock_guard<std::mutex> lock(answerMutex);
    return answer;
}

class AnswerHandler : public Poco::Net::HTTPRequestHandler {
public:
    void handleRequest(Poco::Net::HTTPServerRequest& request, Poco::Net::HTTPServerResponse& response) override
    {
        std::string ignored;
        Poco::StreamCopier::copyToString(request.stream(), ignored);
        std::string body = currentAnswer();
        response.setContentLength(static_cast<std::streamsize>(body.size()));
        response.send().write(body.data(), static_cast<std::streamsize>(body.size()));
    }
};

class AnswerFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override
    {
        return new AnswerHandler;
    }
};

// The device for the whole run; stopped before its pool at exit.
struct Device {
    Poco::ThreadPool pool{2, 4};
    Poco::Net::ServerSocket socket{Poco::Net::SocketAddress("127.0.0.1", 0)};
    Poco::Net::HTTPServer server{new AnswerFactory, pool, socket, new Poco::Net::HTTPServerParams};
    Device() { server.start(); }
    ~Device()
    {
        server.stopAll(true);
        pool.joinAll();
    }
    int port() const { return socket.address().port(); }
};

bool isString(json_t* object, const char* key)
{
    return json_is_string(json_object_get(object, key));
}

bool signin(Session& session, int port)
{
    JsonRef args = JsonRef::adopt(json_pack("{s:s, s:i, s:s, s:s, s:b}", "ip", "127.0.0.1", "port", port, "user",
                                            "admin", "pass", "secret", "secure", 0));
    SigninOption option(args.get());
    JsonRef out = JsonRef::adopt(json_object());
    json_t* raw = out.get();
    try {
        FUZZ_CHECK(session.signin(raw, option), "signin reports success by returning");
    } catch (const SessionException& e) {
        FUZZ_CHECK(e.code() == 403 && e.message() == "signin fail", e.message().c_str());
        return false;
    }
    for (const char* key : {"model", "serial", "firmware", "hostname"})
        FUZZ_CHECK(isString(raw, key), key);
    FUZZ_CHECK(session.getFamily() != None, "a signed-in session knows its family");
    return true;
}

// The syslog answer replaces the reply's content when it is a JSON object, else empties it.
void readSyslogConfig(Session& session, const uint8_t* data, size_t size)
{
    JsonRef reply = JsonRef::adopt(json_pack("{s:s}", "stale", "member"));
    json_t* raw = reply.get();
    session.getRsyslogConfig(raw);
    JsonRef parsed = JsonRef::adopt(json_loadb(reinterpret_cast<const char*>(data), size, 0, nullptr));
    if (json_is_object(parsed.get()))
        FUZZ_CHECK(json_equal(raw, parsed.get()), "object answer becomes the reply");
    else
        FUZZ_CHECK(json_object_size(raw) == 0, "other answers leave the reply empty");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Device device;
    {
        std::lock_guard<std::mutex> lock(answerMutex);
        answer.assign(reinterpret_cast<const char*>(data), size);
    }
    Session& session = Session::getInstance();
    session.reset();
    if (!signin(session, device.port()))
        return 0;
    readSyslogConfig(session, data, size);
    try {
        session.signout();
    } catch (const SessionException& e) {
        FUZZ_CHECK(e.code() == 400, e.message().c_str());
    }
    return 0;
}
