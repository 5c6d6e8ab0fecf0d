// --devices N: several simulated devices in one process, each on its own port. One thread
// waits on every listening socket (epoll) and accepts; a shared pool of threads, grown on
// demand up to a fixed cap, runs the HTTP connections. So a thousand devices cost a
// thousand sockets and a few dozen threads, not a server and its threads each.
#pragma once

#include <Poco/Net/HTTPServerParams.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/devsim/handler.h"

namespace Orvex::Devsim {

class Fleet {
public:
    // Makes the devices and binds every port; throws (Poco::Exception, std::exception)
    // when a port cannot be bound or a certificate cannot be made.
    explicit Fleet(const Config& config);
    ~Fleet();
    Fleet(const Fleet&) = delete;
    Fleet& operator=(const Fleet&) = delete;

    // "http(s)://host:port" of each device, in device order.
    std::vector<std::string> urls() const;
    void start();
    // Stops accepting, cuts open connections and joins every thread. Idempotent.
    void stop();

private:
    struct Member;
    struct Pending {
        Poco::Net::StreamSocket socket;
        size_t device;
    };
    void acceptLoop();
    void acceptAll(size_t device);
    void enqueue(Pending pending);
    void work(size_t slot);

    RequestLog log_;
    Poco::Net::HTTPServerParams::Ptr params_;
    std::vector<std::unique_ptr<Member>> members_;
    int epoll_ = -1;
    int wake_ = -1;  // eventfd that ends the accept loop

    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<Pending> queue_;
    std::vector<std::thread> workers_;
    std::vector<Poco::Net::StreamSocket> active_;  // per worker slot, to cut at stop
    size_t idle_ = 0;
    bool stopping_ = false;
    std::thread acceptor_;
};

}  // namespace Orvex::Devsim
