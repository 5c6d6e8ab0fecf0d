// Helpers for the bus tests on top of tests/support/bus.h: an in-process service whose
// handler is any callable, and descriptor counting.
#pragma once

#include "tests/support/bus.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

namespace Orvex::Test {

// Open descriptors of this process; the settled count comes after one service has run,
// so the process-wide signal pipe it creates once is not counted as a leak.
int openFdCount();
int settledFdCount();

// One bus service on its own thread; `onCall` is the handler (runs on the loop thread).
// The default handler replies "echo:<method>:<body>" (the bare body for method "raw")
// and closes the descriptor. One TestService at a time.
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
