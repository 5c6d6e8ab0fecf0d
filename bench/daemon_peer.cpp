// The bare processes the daemon benchmark compares against, linked with the same POCO
// libraries as the daemon:
//
//   orvex_bench_peer echo ADDRESS REPLY   bus baseline: a one-connection-at-a-time AF_UNIX
//                                         server answering every call frame with REPLY
//   orvex_bench_peer idle URL             footprint baseline: one GET to URL with a bare
//                                         POCO client, then idle until stdin reaches EOF
//
// Both print "ready" on stdout once they serve or are idle; exit status 1 on failure.
#include "bench/daemon_support.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include <Poco/Exception.h>
#include <Poco/StreamCopier.h>
#include <Poco/URI.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/HTTPSClientSession.h>
#include <Poco/Net/NetSSL.h>

namespace {

using namespace Orvex::Bench;
using Poco::Net::Context;

void ready()
{
    std::fputs("ready\n", stdout);
    std::fflush(stdout);
}

int echo(const std::string& address, const std::string& reply)
{
    // The daemon starts OpenSSL before it serves; so does its start-up baseline.
    Poco::Net::initializeSSL();
    const int fd = listenAbstract(address);
    if (fd < 0) {
        std::fprintf(stderr, "orvex_bench_peer: cannot listen on %s\n", address.c_str());
        return 1;
    }
    ready();
    serveEcho(fd, encodeFrame('R', "", reply));
    return 1;
}

void get(Poco::Net::HTTPClientSession& client, const std::string& path)
{
    Poco::Net::HTTPRequest request(Poco::Net::HTTPRequest::HTTP_GET, path, Poco::Net::HTTPMessage::HTTP_1_1);
    client.setTimeout(Poco::Timespan(10, 0));
    client.sendRequest(request);
    Poco::Net::HTTPResponse response;
    std::string body;
    Poco::StreamCopier::copyToString(client.receiveResponse(response), body);
}

void waitForEof()
{
    char byte;
    while (read(0, &byte, 1) > 0) {
    }
}

// The context and the client stay alive while idle, as a signed-in session keeps them.
int idle(const std::string& url)
{
    Poco::Net::initializeSSL();
    try {
        Poco::URI uri(url);
        Context::Ptr context;
        std::unique_ptr<Poco::Net::HTTPClientSession> client;
        if (uri.getScheme() == "https") {
            context = new Context(Context::TLSV1_CLIENT_USE, "", "", "", Context::VERIFY_NONE, 9, false,
                                  "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH");
            context->enableSessionCache(true);
            client.reset(new Poco::Net::HTTPSClientSession(uri.getHost(), uri.getPort(), context));
        } else {
            client.reset(new Poco::Net::HTTPClientSession(uri.getHost(), uri.getPort()));
        }
        get(*client, uri.getPathAndQuery());
        ready();
        waitForEof();
    } catch (const Poco::Exception& e) {
        std::fprintf(stderr, "orvex_bench_peer: %s: %s\n", url.c_str(), e.displayText().c_str());
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::strcmp(argv[1], "echo") == 0)
        return echo(argv[2], argv[3]);
    if (argc == 3 && std::strcmp(argv[1], "idle") == 0)
        return idle(argv[2]);
    std::fputs("usage: orvex_bench_peer echo ADDRESS REPLY | idle URL\n", stderr);
    return 2;
}
