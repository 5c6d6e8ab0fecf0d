// Test helpers: a real bus service on a private abstract address, served on its own
// thread; calls through zs_call; a pipe to pass as a reply descriptor.
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
    bool ok() const { return bus_ != nullptr; }

    CallResult call(const std::string& method, const std::string& body = "", int fd = -1, int timeoutSeconds = 10) const
    {
        zs_io* io = zs_io_create();
        zs_io_write(io, body.data(), body.size());
        CallResult result;
        result.rc = zs_call(address_.c_str(), method.c_str(), io, timeoutSeconds, fd);
        result.error = errno;
        result.body.assign(zs_io_read(io, 0), zs_io_size(io));
        zs_io_free(io);
        return result;
    }

private:
    std::string address_;
    zs* bus_ = nullptr;
    std::thread thread_;
};

// readAll closes our write end and reads to end of file, which only comes once every
// other copy of the write end (the server's, a child's) is closed too.
class Pipe {
public:
    Pipe() { EXPECT_EQ(::pipe(fds_), 0); }
    ~Pipe()
    {
        closeWriteEnd();
        ::close(fds_[0]);
    }
    int writeEnd() const { return fds_[1]; }
    int readEnd() const { return fds_[0]; }
    void closeWriteEnd()
    {
        if (fds_[1] >= 0)
            ::close(fds_[1]);
        fds_[1] = -1;
    }
    std::string readAll()
    {
        closeWriteEnd();
        std::string out;
        char buffer[4096];
        for (;;) {
            pollfd p{fds_[0], POLLIN, 0};
            if (::poll(&p, 1, 5000) <= 0) {
                ADD_FAILURE() << "a copy of the reply descriptor was left open";
                return out;
            }
            ssize_t n = ::read(fds_[0], buffer, sizeof buffer);
            if (n <= 0)
                return out;
            out.append(buffer, static_cast<size_t>(n));
        }
    }

private:
    int fds_[2] = {-1, -1};
};

}  // namespace OrvexTest
