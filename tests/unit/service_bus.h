// Test helpers: a real bus service on a private abstract address, served on its own
// thread, and calls to it through zs_call.
#pragma once

#include "zservice/zservice.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

namespace OrvexTest {

struct CallResult {
    int rc = -1;
    int error = 0;
    std::string body;
};

inline CallResult callBus(const std::string& address, const std::string& method, const std::string& body = "",
    int fd = -1, int timeoutSeconds = 10)
{
    zs_io* io = zs_io_create();
    zs_io_write(io, body.data(), body.size());
    CallResult result;
    result.rc = zs_call(address.c_str(), method.c_str(), io, timeoutSeconds, fd);
    result.error = errno;
    result.body.assign(zs_io_read(io, 0), zs_io_size(io));
    zs_io_free(io);
    return result;
}

class TestBus {
public:
    explicit TestBus(zs_handler handler)
    {
        static std::atomic<int> counter{0};
        address_ = "@orvex-test/" + std::to_string(::getpid()) + "/" + std::to_string(counter++);
        bus_ = zs_create(address_.c_str(), 4, 0, handler);
        if (bus_ != nullptr)
            thread_ = std::thread([this] { zs_start(bus_); });
    }
    ~TestBus()
    {
        if (bus_ == nullptr)
            return;
        zs_stop(bus_);
        thread_.join();
        zs_free(bus_);
    }
    TestBus(const TestBus&) = delete;
    TestBus& operator=(const TestBus&) = delete;

    bool ok() const { return bus_ != nullptr; }
    const std::string& address() const { return address_; }
    CallResult call(const std::string& method, const std::string& body = "", int fd = -1, int timeoutSeconds = 10) const
    {
        return callBus(address_, method, body, fd, timeoutSeconds);
    }

private:
    std::string address_;
    zs* bus_ = nullptr;
    std::thread thread_;
};

// Reads until end of file (every writer closed) or until timeoutMs passes without data.
// eof tells which one ended it.
inline std::string readToEof(int fd, int timeoutMs, bool* eof)
{
    std::string out;
    *eof = false;
    for (;;) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) <= 0)
            return out;
        char buffer[4096];
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n == 0) {
            *eof = true;
            return out;
        }
        if (n < 0)
            return out;
        out.append(buffer, static_cast<size_t>(n));
    }
}

}  // namespace OrvexTest
