#include "tests/support/hostile.h"

#include "tests/support/bus.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace Orvex::Test {

namespace {

// The request up to the end of its Content-Length body (or of the connection).
std::string readRequest(int fd)
{
    std::string in;
    char buffer[4096];
    for (;;) {
        size_t end = in.find("\r\n\r\n");
        if (end != std::string::npos) {
            size_t length = 0;
            size_t at = in.find("Content-Length: ");
            if (at != std::string::npos && at < end)
                length = std::strtoul(in.c_str() + at + 16, nullptr, 10);
            if (in.size() >= end + 4 + length)
                return in;
        }
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n <= 0)
            return in;
        in.append(buffer, size_t(n));
    }
}

}  // namespace

Hostile::Hostile(std::vector<Piece> script, End end) : script_(std::move(script)), end_(end)
{
    UniqueFd listening = loopbackSocket(SOCK_STREAM, port_);
    if (!listening)
        throw std::runtime_error("hostile device: cannot listen");
    listen_ = listening.release();
    acceptor_ = std::thread([this] { acceptLoop(); });
}

Hostile::~Hostile()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        for (int fd : open_)
            ::shutdown(fd, SHUT_RDWR);
    }
    wake_.notify_all();
    ::shutdown(listen_, SHUT_RDWR);
    acceptor_.join();
    for (std::thread& thread : threads_)
        thread.join();
    ::close(listen_);
}

std::vector<std::string> Hostile::requests() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

std::string Hostile::answer(const std::string& body)
{
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

void Hostile::acceptLoop()
{
    for (;;) {
        int fd = ::accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC);
        std::lock_guard<std::mutex> lock(mutex_);
        if (fd < 0 || stopping_) {
            if (fd >= 0)
                ::close(fd);
            return;
        }
        open_.push_back(fd);
        threads_.emplace_back([this, fd] { serve(fd); });
    }
}

bool Hostile::pause(std::chrono::milliseconds time)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return !wake_.wait_for(lock, time, [this] { return stopping_; });
}

void Hostile::serve(int fd)
{
    std::string request = readRequest(fd);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(request);
    }
    bool going = true;
    for (const Piece& piece : script_)
        going = going && sendAll(fd, piece.bytes) && pause(piece.pause);
    while (going && end_ == End::RepeatLast && !script_.empty())
        going = sendAll(fd, script_.back().bytes) && pause(script_.back().pause);
    if (going && end_ == End::Hold)
        pause(std::chrono::hours(1));
    // Closed by the destructor's shutdown, or here: either way the descriptor is released
    // only once the server stops, so it is never shut down after reuse.
    ::shutdown(fd, SHUT_WR);
    pause(std::chrono::hours(1));
    ::close(fd);
}

Relay::Relay(int backend) : backend_(backend)
{
    UniqueFd listening = loopbackSocket(SOCK_STREAM, port_);
    if (!listening)
        throw std::runtime_error("relay: cannot listen");
    listen_ = listening.release();
    acceptor_ = std::thread([this] { acceptLoop(); });
}

Relay::~Relay()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        for (int fd : open_)
            ::shutdown(fd, SHUT_RDWR);
    }
    ::shutdown(listen_, SHUT_RDWR);
    acceptor_.join();
    for (std::thread& thread : threads_)
        thread.join();
    for (int fd : open_)
        ::close(fd);
    ::close(listen_);
}

void Relay::forwardTo(int backend)
{
    std::lock_guard<std::mutex> lock(mutex_);
    backend_ = backend;
}

std::vector<std::string> Relay::openings() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return openings_;
}

void Relay::acceptLoop()
{
    for (;;) {
        int client = ::accept4(listen_, nullptr, nullptr, SOCK_CLOEXEC);
        std::lock_guard<std::mutex> lock(mutex_);
        if (client < 0 || stopping_) {
            if (client >= 0)
                ::close(client);
            return;
        }
        int backend = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(backend_));
        if (backend < 0 || ::connect(backend, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(client);
            if (backend >= 0)
                ::close(backend);
            continue;
        }
        open_.insert(open_.end(), {client, backend});
        threads_.emplace_back([this, client, backend] { serve(client, backend); });
    }
}

// Copies both ways until either side ends; the client's first read is recorded.
void Relay::serve(int client, int backend)
{
    bool first = true;
    pollfd ends[2] = {{client, POLLIN, 0}, {backend, POLLIN, 0}};
    char buffer[16384];
    while (::poll(ends, 2, -1) > 0) {
        int from = (ends[0].revents != 0) ? 0 : 1;
        ssize_t n = ::recv(ends[from].fd, buffer, sizeof buffer, 0);
        if (n <= 0 || !sendAll(ends[1 - from].fd, std::string(buffer, size_t(n))))
            break;
        if (from == 0 && first) {
            first = false;
            std::lock_guard<std::mutex> lock(mutex_);
            openings_.emplace_back(buffer, size_t(n));
        }
    }
    ::shutdown(client, SHUT_RDWR);
    ::shutdown(backend, SHUT_RDWR);
}

}  // namespace Orvex::Test
