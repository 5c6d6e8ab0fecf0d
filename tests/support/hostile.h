// Hostile peers of the session on 127.0.0.1 and ephemeral ports, each serving every
// connection on a thread of its own; their destructors end the threads.
//
// Hostile, a hostile device: a raw TCP server that reads each request (header and
// Content-Length body) and answers every connection with the same script: pieces of bytes
// with pauses after them, then optionally the last piece again and again (an endless
// answer), silence (the connection held open) or a close. It records what it received.
//
// Relay, someone on the path to a device: forwards each new connection to the backend
// port set at that moment, and records the first bytes each client sent (a TLS hello).
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Orvex::Test {

// The server both build on: accepts on its own thread and hands each connection to serve
// on a thread of its own. Stopping (at destruction) shuts down every connection and every
// descriptor passed to track(), joins the threads, then closes those descriptors.
class LoopbackServer {
public:
    explicit LoopbackServer(std::function<void(int fd)> serve);
    ~LoopbackServer();
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    int port() const { return port_; }
    // Sleeps, or returns false once the server stops.
    bool pause(std::chrono::milliseconds time);
    // A further descriptor of a connection (a relay's second socket), stopped and closed
    // with the server.
    void track(int fd);

private:
    void acceptLoop();

    std::function<void(int)> serve_;
    int listen_ = -1;
    int port_ = 0;
    bool stopping_ = false;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<int> open_;
    std::vector<std::thread> threads_;
    std::thread acceptor_;
};

class Hostile {
public:
    struct Piece {
        std::string bytes;
        std::chrono::milliseconds pause{0};
    };
    enum class End { Close, RepeatLast, Hold };

    Hostile(std::vector<Piece> script, End end = End::Close);

    int port() const { return server_.port(); }
    // Every request received so far, whole, in arrival order.
    std::vector<std::string> requests() const;

    // An HTTP/1.1 200 answer with this body and its Content-Length.
    static std::string answer(const std::string& body);

private:
    void serve(int fd);

    std::vector<Piece> script_;
    End end_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    LoopbackServer server_;  // last: stopped before the members its threads use
};

class Relay {
public:
    explicit Relay(int backend);

    int port() const { return server_.port(); }
    // Connections from now on go to this port.
    void forwardTo(int backend);
    // The first bytes of every connection so far, in order.
    std::vector<std::string> openings() const;

private:
    void serve(int client);

    mutable std::mutex mutex_;
    int backend_;
    std::vector<std::string> openings_;
    LoopbackServer server_;  // last: stopped before the members its threads use
};

}  // namespace Orvex::Test
