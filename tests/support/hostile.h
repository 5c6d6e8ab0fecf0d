// A hostile device: a raw TCP server on 127.0.0.1 and an ephemeral port that reads each
// request (header and Content-Length body) and answers every connection with the same
// script: pieces of bytes with pauses after them, then optionally the last piece again and
// again (an endless answer), silence (the connection held open) or a close. It records what
// it received. Its own threads serve; the destructor ends them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Orvex::Test {

class Hostile {
public:
    struct Piece {
        std::string bytes;
        std::chrono::milliseconds pause{0};
    };
    enum class End { Close, RepeatLast, Hold };

    Hostile(std::vector<Piece> script, End end = End::Close);
    ~Hostile();
    Hostile(const Hostile&) = delete;
    Hostile& operator=(const Hostile&) = delete;

    int port() const { return port_; }
    // Every request received so far, whole, in arrival order.
    std::vector<std::string> requests() const;

    // An HTTP/1.1 200 answer with this body and its Content-Length.
    static std::string answer(const std::string& body);

private:
    void acceptLoop();
    void serve(int fd);
    // Sleeps, or returns false once the server stops.
    bool pause(std::chrono::milliseconds time);

    std::vector<Piece> script_;
    End end_;
    int listen_ = -1;
    int port_ = 0;
    bool stopping_ = false;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::vector<int> open_;
    std::vector<std::string> requests_;
    std::vector<std::thread> threads_;
    std::thread acceptor_;
};

// Someone on the path to a device: a TCP relay on 127.0.0.1 and an ephemeral port that
// forwards each new connection to the backend port set at that moment, and records the
// first bytes each client sent (a TLS client hello). Its own threads serve.
class Relay {
public:
    explicit Relay(int backend);
    ~Relay();
    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    int port() const { return port_; }
    // Connections from now on go to this port.
    void forwardTo(int backend);
    // The first bytes of every connection so far, in order.
    std::vector<std::string> openings() const;

private:
    void acceptLoop();
    void serve(int client, int backend);

    int listen_ = -1;
    int port_ = 0;
    int backend_;
    bool stopping_ = false;
    mutable std::mutex mutex_;
    std::vector<int> open_;
    std::vector<std::string> openings_;
    std::vector<std::thread> threads_;
    std::thread acceptor_;
};

}  // namespace Orvex::Test
