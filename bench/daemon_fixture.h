// The real programs the daemon benchmark drives (device simulator, session daemons, the
// bare peers) and the calls it times: bus calls through zs_call and bare POCO device
// requests. Must run under tests/isolate.sh: daemons take lock files in /run/lock.
// Errors: start-up failures throw std::runtime_error naming the program and the reason;
// the timed calls return false instead.
#pragma once

#include "bench/daemon_support.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <Poco/Net/Context.h>
#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Net/Session.h>

namespace Orvex {
namespace Bench {

struct Programs {
    std::string daemon;     // orvex-session
    std::string devsim;     // orvex-devsim
    std::string peer;       // orvex_bench_peer
    std::string dbusPeer;   // orvex_bench_dbus_peer (empty: not built)
    std::string dbusDaemon; // dbus-daemon (empty: not installed)
};

// orvex-devsim of the token family on a free loopback port; ends with the object.
class Devsim {
public:
    Devsim(const Programs& programs, bool tls);
    int port() const { return port_; }
    bool tls() const { return tls_; }
    std::string url(const std::string& path) const;
    // Ends the simulator now; its port refuses from then on.
    void stop() { process_->stop(); }

private:
    std::unique_ptr<Process> process_;
    int port_ = 0;
    bool tls_ = false;
};

std::string macAddress(int index);  // 02:00:00:00:HH:LL
std::string busAddressOf(const std::string& mac);

// One bus call; reply (if given) gets the reply body. false on any bus failure.
bool busCall(const std::string& address, const std::string& method, const std::string& body, std::string* reply,
             int timeoutSeconds = 10);
// Polls with a call until something answers at address; false after timeout.
bool waitForAnswer(const std::string& address, std::chrono::milliseconds timeout);

// orvex-session -m MAC -d as a child (console log to /dev/null).
class Daemon {
public:
    Daemon(const Programs& programs, const std::string& mac);
    const std::string& address() const { return address_; }
    const std::string& mac() const { return mac_; }
    Process& process() { return *process_; }
    bool ready(std::chrono::milliseconds timeout = std::chrono::milliseconds(10000));
    // Signs in to the simulator; throws with the reply when that fails.
    void signin(const Devsim& device);

private:
    std::string mac_;
    std::string address_;
    std::unique_ptr<Process> process_;
};

// A peer that prints "ready" when it serves or idles; throws if it does not.
std::unique_ptr<Process> startPeer(const std::vector<std::string>& argv);

// Bare POCO requests to the simulator's remote-syslog configuration, one connection each,
// with a token of their own. The call functions may run on several threads at once as long
// as each thread uses its own slot.
class BareClient {
public:
    BareClient(const Devsim& device, int slots);
    bool callHttp();
    // HTTPS on one shared context offering the slot's last session again, like the daemon.
    bool callResumed(int slot);
    // HTTPS with a context made for this request: a full handshake every time.
    bool callFullHandshake();
    long resumed() const { return resumed_.load(); }

private:
    bool exchange(Poco::Net::HTTPClientSession& client);

    const Devsim& device_;
    std::string bearer_;
    Poco::Net::Context::Ptr shared_;
    std::vector<Poco::Net::Session::Ptr> sessions_;
    std::atomic<long> resumed_{0};
};

}  // namespace Bench
}  // namespace Orvex
