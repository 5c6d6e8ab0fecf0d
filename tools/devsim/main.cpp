// orvex-devsim: plays one remote storage device (legacy or token firmware family), or with
// --devices N that many, over HTTP or HTTPS for tests, benchmarks and demos. See --help and
// README.md.
#include <Poco/Exception.h>
#include <Poco/Net/HTTPServer.h>
#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/SSLManager.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/ThreadPool.h>

#include <csignal>
#include <cstdio>
#include <iostream>
#include <memory>
#include <pthread.h>
#include <thread>
#include <unistd.h>

#include "tools/devsim/fleet.h"
#include "tools/devsim/handler.h"
#include "tools/devsim/options.h"
#include "tools/devsim/tls.h"

using namespace Orvex::Devsim;

namespace {

// Blocked in every thread (the mask is inherited), taken by sigwait in main alone.
sigset_t stopSignals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

// With --stdin-watch, EOF on stdin (the parent test died or closed the pipe) stops us.
void watchStdin()
{
    std::thread([] {
        char buffer[256];
        while (true) {
            ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
            if (n == 0 || (n < 0 && errno != EINTR))
                break;
        }
        kill(getpid(), SIGTERM);
    }).detach();
}

Poco::Net::ServerSocket makeSocket(const Config& config)
{
    Poco::Net::SocketAddress address(config.host, config.port);
    if (config.tls)
        return Poco::Net::SecureServerSocket(address, 64, makeServerContext(config));
    return Poco::Net::ServerSocket(address, 64);
}

Poco::Net::HTTPServerParams::Ptr serverParams()
{
    Poco::Net::HTTPServerParams::Ptr params = new Poco::Net::HTTPServerParams;
    params->setMaxQueued(256);
    params->setMaxThreads(32);
    params->setKeepAlive(true);
    params->setTimeout(Poco::Timespan(30, 0));
    return params;
}

// Waits for SIGTERM/SIGINT (blocked in every thread, see main).
void waitForStop(const Config& config)
{
    if (config.stdinWatch)
        watchStdin();
    sigset_t set = stopSignals();
    int signal = 0;
    sigwait(&set, &signal);
}

int serveFleet(const Config& config)
{
    Fleet fleet(config);
    fleet.start();
    for (const auto& url : fleet.urls())
        std::cout << "orvex-devsim listening on " << url << "\n";
    std::cout << std::flush;
    waitForStop(config);
    fleet.stop();
    return 0;
}

int serve(const Config& config)
{
    if (config.devices > 0)
        return serveFleet(config);
    RequestLog log(config.logFile);
    Device device(config, log);
    Poco::Net::ServerSocket socket = makeSocket(config);
    Poco::ThreadPool pool(2, 32);
    Poco::Net::HTTPServer server(new HandlerFactory(device), pool, socket, serverParams());
    server.start();
    std::cout << "orvex-devsim listening on " << (config.tls ? "https" : "http") << "://" << config.host << ":"
              << socket.address().port() << std::endl;
    waitForStop(config);
    server.stopAll(true);
    pool.joinAll();
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    Config config;
    try {
        config = parseCommandLine(argc, argv);
    } catch (const std::invalid_argument& e) {
        std::cerr << "orvex-devsim: " << e.what() << "\n(see orvex-devsim --help)\n";
        return 2;
    }
    if (config.help) {
        std::cout << helpText();
        return 0;
    }
    sigset_t set = stopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    // A client that drops its connection must not end the device.
    std::signal(SIGPIPE, SIG_IGN);
    Poco::Net::initializeSSL();
    int status = 1;
    try {
        status = serve(config);
    } catch (const Poco::Exception& e) {
        std::cerr << "orvex-devsim: " << e.displayText() << "\n";
    } catch (const std::exception& e) {
        std::cerr << "orvex-devsim: " << e.what() << "\n";
    }
    Poco::Net::uninitializeSSL();
    return status;
}
