// orvex-devsim: plays one remote storage device (legacy or token firmware family), or with
// --devices N that many, over HTTP or HTTPS for tests, benchmarks and demos. See --help and
// README.md.
#include <Poco/Exception.h>
#include <Poco/Net/SSLManager.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <pthread.h>
#include <thread>
#include <unistd.h>

#include "tools/devsim/fleet.h"
#include "tools/devsim/options.h"

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

// Waits for SIGTERM/SIGINT (blocked in every thread, see main).
void waitForStop(const Config& config)
{
    if (config.stdinWatch)
        watchStdin();
    sigset_t set = stopSignals();
    int signal = 0;
    sigwait(&set, &signal);
}

// One device is a fleet of one: the same accept loop and workers serve it.
int serve(Config config)
{
    config.devices = std::max(config.devices, 1);
    Fleet fleet(config);
    fleet.start();
    for (const auto& url : fleet.urls())
        std::cout << "orvex-devsim listening on " << url << "\n";
    std::cout << std::flush;
    waitForStop(config);
    fleet.stop();
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
    if (config.help || config.version) {
        std::cout << (config.help ? helpText() : std::string("orvex-devsim " ORVEX_VERSION "\n"));
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
