// Helpers for the bus tests: unique abstract addresses, an in-process service on its own
// thread, raw sockets for misbehaving callers, and descriptor counting.
#pragma once

#include "zservice/zservice.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>

namespace Orvex::Test {

// "@orvex-bus-test-<pid>-<n>-<tag>": parallel test runs never share a name.
std::string uniqueAddress(const char* tag);

// Open descriptors of this process; the settled count comes after one service has run,
// so the process-wide signal pipe it creates once is not counted as a leak.
int openFdCount();
int settledFdCount();

// A call frame as bytes, fields overridable to build bad ones.
std::string callFrame(const std::string& method, const std::string& body);
void putU32(std::string& frame, size_t offset, uint32_t value);

// A raw caller socket: connect, send bytes, wait for a hang-up.
int rawConnect(const std::string& address);
void sendAll(int fd, const std::string& bytes);
// Everything the server sends until it closes (or timeoutMs passes; then closed=false).
std::string readUntilClosed(int fd, int timeoutMs, bool& closed);

// One bus service on its own thread; `onCall` is the handler (runs on the loop thread).
// The default handler replies "echo:<method>:<body>" (the bare body for method "raw")
// and closes the descriptor.
class TestService {
public:
    using Handler = std::function<void(const char* method, zs_io* io, int fd)>;
    explicit TestService(Handler onCall = {}, int recvTimeout = 30, int policy = 0,
                         std::string address = uniqueAddress("svc"));
    ~TestService();
    TestService(const TestService&) = delete;
    TestService& operator=(const TestService&) = delete;

    const std::string& address() const { return address_; }
    zs* bus() const { return bus_; }
    int calls() const;
    // Stops the loop and returns what zs_start returned.
    int stop();

    static void echo(const char* method, zs_io* io, int fd);

private:
    static void dispatch(const char* method, zs_io* io, int fd);
    std::string address_;
    zs* bus_ = nullptr;
    std::thread loop_;
    int result_ = -2;
};

}  // namespace Orvex::Test
