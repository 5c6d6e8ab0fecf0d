// Cost of one device call through Session::request() beside a bare POCO client doing the
// same request, over HTTP and HTTPS, and a full TLS handshake per request (a new context
// and no resumption) as the HTTPS baseline. Every call opens its own TCP connection.
//
//   session_bench [ITERATIONS]      (default 300 per case, after 20 unmeasured calls)
#include "bench/baseline_tls.h"
#include "common/raii.h"
#include "option/option.h"
#include "session/session.h"
#include "tests/unit/session_devsim.h"

#include <Poco/StreamCopier.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/SecureStreamSocket.h>

#include <openssl/ssl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

using namespace Orvex;
using Poco::Net::Context;
using Poco::Net::HTTPRequest;

namespace {

constexpr const char* kPath = "/orvex/v1/rsyslog/config";

struct Figures {
    double median;
    double p99;
};

Figures measure(int iterations, const std::function<void()>& call)
{
    for (int i = 0; i < 20; ++i)
        call();
    std::vector<double> micros;
    micros.reserve(static_cast<size_t>(iterations));
    for (int i = 0; i < iterations; ++i) {
        auto begin = std::chrono::steady_clock::now();
        call();
        micros.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - begin).count());
    }
    std::sort(micros.begin(), micros.end());
    size_t p99 = std::min(micros.size() - 1, static_cast<size_t>(micros.size() * 0.99));
    return {micros[micros.size() / 2], micros[p99]};
}

std::string bareCall(Poco::Net::HTTPClientSession& client, const std::string& bearer)
{
    HTTPRequest request(HTTPRequest::HTTP_GET, kPath, Poco::Net::HTTPMessage::HTTP_1_1);
    request.set("Authorization", bearer);
    request.setContentLength(0);
    client.setTimeout(Poco::Timespan(10, 0));
    client.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::string body;
    Poco::StreamCopier::copyToString(client.receiveResponse(response), body);
    return body;
}

// The bearer the session sends, as the device logged it.
std::string bearerOf(const Harness::Devsim& device)
{
    std::vector<Harness::Logged> log = device.requests();
    return log.empty() ? std::string() : log.back().header("Authorization");
}

void signin(const Harness::Devsim& device)
{
    Session& session = Session::getInstance();
    session.reset();
    JsonRef args = JsonRef::adopt(json_pack("{sssisssssb}", "ip", "127.0.0.1", "port", device.port(), "user", "admin",
                                            "pass", "secret", "secure", device.tls()));
    SigninOption option(args.get());
    json_t* out = json_object();
    JsonRef owner = JsonRef::adopt(out);
    session.signin(out, option);
    session.request(HTTPRequest::HTTP_GET, kPath);
}

void report(const char* name, const Figures& f)
{
    std::printf("%-34s median %8.1f us   p99 %8.1f us\n", name, f.median, f.p99);
}

}  // namespace

int main(int argc, char** argv)
{
    int iterations = argc > 1 ? std::max(1, std::atoi(argv[1])) : 300;
    Poco::Net::initializeSSL();
    Session& session = Session::getInstance();

    Harness::Devsim plain("token", false);
    signin(plain);
    std::string bearer = bearerOf(plain);
    Figures httpSession = measure(iterations, [&] { session.request(HTTPRequest::HTTP_GET, kPath); });
    Figures httpBare = measure(iterations, [&] {
        Poco::Net::HTTPClientSession client("127.0.0.1", static_cast<Poco::UInt16>(plain.port()));
        bareCall(client, bearer);
    });

    Harness::Devsim tls("token", true);
    signin(tls);
    bearer = bearerOf(tls);
    Figures httpsSession = measure(iterations, [&] { session.request(HTTPRequest::HTTP_GET, kPath); });
    Context::Ptr shared = bench::baselineContext(true);
    Poco::Net::Session::Ptr resumable;
    int reused = 0;
    Figures httpsBare = measure(iterations, [&] {
        Poco::Net::HTTPSClientSession client("127.0.0.1", static_cast<Poco::UInt16>(tls.port()), shared, resumable);
        bareCall(client, bearer);
        Poco::Net::SecureStreamSocket socket(client.socket());
        reused += socket.sessionWasReused() ? 1 : 0;
        resumable = socket.currentSession();
    });
    Figures httpsFull = measure(iterations, [&] {
        Poco::Net::HTTPSClientSession client("127.0.0.1", static_cast<Poco::UInt16>(tls.port()), bench::baselineContext(false));
        bareCall(client, bearer);
    });

    std::printf("one device call, %d iterations per case, one TCP connection per call\n", iterations);
    report("HTTP  Session::request()", httpSession);
    report("HTTP  bare POCO client", httpBare);
    report("HTTPS Session::request()", httpsSession);
    report("HTTPS bare POCO, resumed session", httpsBare);
    report("HTTPS full handshake per request", httpsFull);
    std::printf("bare resumed baseline: %d of %d calls resumed\n", reused, iterations + 20);
    std::printf("ratio HTTP  request()/bare            median %.2f  p99 %.2f\n", httpSession.median / httpBare.median,
                httpSession.p99 / httpBare.p99);
    std::printf("ratio HTTPS request()/bare resumed    median %.2f  p99 %.2f\n", httpsSession.median / httpsBare.median,
                httpsSession.p99 / httpsBare.p99);
    std::printf("ratio HTTPS request()/full handshake  median %.2f  p99 %.2f\n", httpsSession.median / httpsFull.median,
                httpsSession.p99 / httpsFull.p99);
    return 0;
}
