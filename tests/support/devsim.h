// The device simulator (orvex-devsim, path from the build as ORVEX_DEVSIM) as a child
// process on 127.0.0.1 and an ephemeral port, with its request log. The child watches its
// standard input, so it also ends when the test process dies. For one thread at a time.
#pragma once

#include "tests/support/process.h"

#include <memory>
#include <string>
#include <vector>

namespace Orvex::Test {

// One logged request of the simulator; record is the whole log line.
struct Logged {
    std::string method;
    std::string target;
    std::string body;
    JsonRef headers;
    JsonRef record;

    std::string header(const char* name) const;
    bool hasHeader(const char* name) const { return json_object_get(headers.get(), name) != nullptr; }
};

// Starts the simulator with these words (its standard input a pipe: it ends when that
// closes; its standard output taken for the ready lines, "orvex-devsim listening on
// <scheme>://<host>:<port>", one per device) into child. Returns the ports in device order;
// throws when a line does not come within 20 s.
std::vector<int> startDevsim(std::vector<std::string> argv, size_t devices, std::unique_ptr<Child>& child);
// One simulator playing `devices` devices on 127.0.0.1, legacy and token in turn, over
// TLS when tls is set; their ports in device order.
std::vector<int> startFleet(size_t devices, std::unique_ptr<Child>& child, bool tls = false);

class Devsim {
public:
    // family: "legacy" or "token"; extra: further command-line words (fault knobs).
    // Throws when the simulator does not print its ready line.
    Devsim(const std::string& family, bool tls, const std::vector<std::string>& extra = {});
    ~Devsim();
    Devsim(const Devsim&) = delete;
    Devsim& operator=(const Devsim&) = delete;

    int port() const { return port_; }
    bool tls() const { return tls_; }
    pid_t pid() const { return child_->pid(); }

    // Closes its standard input (it ends on that) and returns its exit status (as
    // Child::wait); one that has not ended within 5 s is killed.
    int stop();

    // Every request logged so far, in arrival order.
    std::vector<Logged> requests() const;
    // The requests logged after the first `from`.
    std::vector<Logged> requestsFrom(size_t from) const;
    // Requests with this HTTP method (any when empty) whose target starts with prefix.
    std::vector<Logged> requestsTo(const std::string& method, const std::string& prefix) const;
    // Arguments of "signin" for this device.
    std::string signinArgs(const std::string& pass = "secret") const;

private:
    bool tls_;
    TempDir dir_;
    std::unique_ptr<Child> child_;
    int port_ = 0;
    int status_ = -1;
};

}  // namespace Orvex::Test
