// Shared test support for the service bus: calls through zs_call, a service served on its
// own thread, raw caller sockets that send whatever they are given, and a reply pipe.
// Addresses are abstract ("@name"). Errors are reported as results, not thrown.
#pragma once

#include "tests/support/process.h"
#include "zservice/zservice.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace Orvex::Test {

struct BusReply {
    int rc = -1;
    int error = 0;  // errno of a failed call
    std::string body;
    JsonRef json() const { return parseJson(body); }
};

// An error reply as the service writes it (a message without characters to escape).
inline std::string errorReply(int code, const std::string& message)
{
    return "{\"error_code\":" + std::to_string(code) + ",\"error_message\":\"" + message + "\"}";
}

BusReply busCall(const std::string& address, const std::string& method, const std::string& body = "{}",
    int fd = -1, int timeoutSeconds = 30);

// "@orvex-test-<pid>-<n>-<tag>": parallel test runs never share a name.
std::string uniqueAddress(const char* tag);

// zs_create + zs_start_threads on a thread of its own; zs_stop, join and zs_free at
// destruction.
class ServedBus {
public:
    ServedBus(const std::string& address, zs_handler handler, int recvTimeout = 4, int policy = 0,
              int threads = 1);
    // On a fresh private address.
    explicit ServedBus(zs_handler handler) : ServedBus(uniqueAddress("bus"), handler) {}
    ~ServedBus();
    ServedBus(const ServedBus&) = delete;
    ServedBus& operator=(const ServedBus&) = delete;

    bool ok() const { return bus_ != nullptr; }
    zs* bus() const { return bus_; }
    const std::string& address() const { return address_; }
    BusReply call(const std::string& method, const std::string& body = "", int fd = -1, int timeoutSeconds = 10) const
    {
        return busCall(address_, method, body, fd, timeoutSeconds);
    }
    // Stops the loop (once) and returns what zs_start returned.
    int stop();

private:
    std::string address_;
    zs* bus_ = nullptr;
    std::thread loop_;
    int result_ = -2;
};

// A frame as bytes, built by the bus's own encoder.
std::string frame(uint8_t kind, const std::string& name, const std::string& body);
std::string callFrame(const std::string& method, const std::string& body);

// A raw connection to a bus address; -1 when nobody listens.
int rawConnect(const std::string& address);
// A raw listening socket on a bus address (a stand-in service); -1 when taken.
int rawListen(const std::string& address);
bool sendAll(int fd, const std::string& bytes);
// One call sent on a connection of its own and already read whole by the server, its reply
// still to come: calls sent one after another this way reach the server in that order,
// however the machine schedules the callers.
class SentCall {
public:
    SentCall(const std::string& address, const std::string& method, const std::string& body);
    // The server took every byte of the call within the time-out.
    bool read() const { return read_; }
    // The reply's body once the server answers and hangs up; rc -1 when it does not.
    BusReply reply(int timeoutMs = 30000);

private:
    UniqueFd fd_;
    bool read_ = false;
};

// A caller that sends one whole call (with passFd as its reply descriptor when >= 0) and
// hangs up at once, without waiting for the reply; false when it could not send.
bool callAndHangUp(const std::string& address, const std::string& method, const std::string& body,
    int passFd = -1);
// Everything the server sends until it closes (or timeoutMs passes; then closed=false).
std::string readUntilClosed(int fd, int timeoutMs, bool& closed);

// A pipe to pass as a reply descriptor. readAll closes our write end and reads to end of
// file, which only comes once every other copy of the write end is closed too.
class Pipe {
public:
    Pipe();
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    int writeEnd() const { return fds_[1]; }
    void closeWriteEnd();
    std::string readAll();

private:
    int fds_[2] = {-1, -1};
};

// One bus service on its own thread whose handler is any callable (run on the loop
// thread). The default handler replies "echo:<method>:<body>" (the bare body for method
// "raw") and closes the descriptor. One TestService at a time.
class TestService {
public:
    using Handler = std::function<void(const char* method, zs_io* io, int fd)>;
    explicit TestService(Handler onCall = {}, int recvTimeout = 30, int policy = 0,
                         std::string address = uniqueAddress("svc"));

    const std::string& address() const { return served_->address(); }
    zs* bus() const { return served_->bus(); }
    int calls() const;
    // Stops the loop and returns what zs_start returned.
    int stop() { return served_->stop(); }

    static void echo(const char* method, zs_io* io, int fd);

private:
    static void dispatch(const char* method, zs_io* io, int fd);
    std::unique_ptr<ServedBus> served_;
};

}  // namespace Orvex::Test
