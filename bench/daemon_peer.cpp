// The bare processes the daemon benchmark compares against, linked with the same POCO
// libraries as the daemon:
//
//   orvex_bench_peer echo ADDRESS REPLY   bus baseline: a one-connection-at-a-time AF_UNIX
//                                         server answering every call frame with REPLY
//   orvex_bench_peer idle URL             footprint baseline: one GET to URL with a bare
//                                         POCO client, then idle until stdin reaches EOF
//   orvex_bench_peer bus ADDRESS REPLY direct|worker
//                                         the bus library alone, replying on the loop thread
//                                         or after handing the call to one worker thread
//                                         (where the daemon's round trip goes)
//
// Both print "ready" on stdout once they serve or are idle; exit status 1 on failure.
#include "bench/daemon_support.h"
#include "zservice/zservice.h"

#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <thread>
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

// ---- the bus library alone -----------------------------------------------------------------

std::string g_reply;
std::mutex g_mutex;
std::condition_variable g_ready;
std::deque<zs_io*> g_calls;

void answer(zs_io* io)
{
    zs_io_realloc(io, 0);
    zs_io_write(io, g_reply.data(), g_reply.size());
    zs_reply(io);
    zs_io_free(io);
}

void replyDirect(const char*, zs_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    answer(io);
}

void handOver(const char*, zs_io* io, int fd)
{
    if (fd >= 0)
        close(fd);
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        g_calls.push_back(io);
    }
    g_ready.notify_one();
}

void work()
{
    for (;;) {
        zs_io* io;
        {
            std::unique_lock<std::mutex> lock(g_mutex);
            g_ready.wait(lock, [] { return !g_calls.empty(); });
            io = g_calls.front();
            g_calls.pop_front();
        }
        answer(io);
    }
}

int bus(const std::string& address, const std::string& reply, bool worker)
{
    g_reply = reply;
    zs* service = zs_create(address.c_str(), 4, 1, worker ? handOver : replyDirect);
    if (!service) {
        std::fprintf(stderr, "orvex_bench_peer: cannot listen on %s\n", address.c_str());
        return 1;
    }
    if (worker)
        std::thread(work).detach();
    ready();
    zs_start(service);
    return 1;
}

// ---- idle POCO process ----------------------------------------------------------------------

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
    if (argc == 5 && std::strcmp(argv[1], "bus") == 0)
        return bus(argv[2], argv[3], std::strcmp(argv[4], "worker") == 0);
    std::fputs("usage: orvex_bench_peer echo ADDRESS REPLY | idle URL | bus ADDRESS REPLY direct|worker\n", stderr);
    return 2;
}
