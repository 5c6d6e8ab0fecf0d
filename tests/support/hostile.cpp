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

LoopbackServer::LoopbackServer(std::function<void(int fd)> serve) : serve_(std::move(serve))
{
    UniqueFd listening = loopbackSocket(SOCK_STREAM, port_);
    if (!listening)
        throw std::runtime_error("loopback server: cannot listen");
    listen_ = listening.release();
    acceptor_ = std::thread([this] { acceptLoop(); });
}

LoopbackServer::~LoopbackServer()
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
    // Closed only now, so that no descriptor is shut down after its number was reused.
    for (int fd : open_)
        ::close(fd);
    ::close(listen_);
}

bool LoopbackServer::pause(std::chrono::milliseconds time)
{
    std::unique_lock<std::mutex> lock(mutex_);
    return !wake_.wait_for(lock, time, [this] { return stopping_; });
}

void LoopbackServer::track(int fd)
{
    std::lock_guard<std::mutex> lock(mutex_);
    open_.push_back(fd);
    if (stopping_)
        ::shutdown(fd, SHUT_RDWR);
}

void LoopbackServer::acceptLoop()
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
        threads_.emplace_back([this, fd] { serve_(fd); });
    }
}

Hostile::Hostile(std::vector<Piece> script, End end)
    : script_(std::move(script)), end_(end), server_([this](int fd) { serve(fd); })
{
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

void Hostile::serve(int fd)
{
    std::string request = readRequest(fd);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(request);
    }
    bool going = true;
    for (const Piece& piece : script_)
        going = going && sendAll(fd, piece.bytes) && server_.pause(piece.pause);
    while (going && end_ == End::RepeatLast && !script_.empty())
        going = sendAll(fd, script_.back().bytes) && server_.pause(script_.back().pause);
    if (going && end_ == End::Hold)
        server_.pause(std::chrono::hours(1));
    ::shutdown(fd, SHUT_WR);
    server_.pause(std::chrono::hours(1));
}

Relay::Relay(int backend) : backend_(backend), server_([this](int fd) { serve(fd); }) {}

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

// Copies both ways until either side ends; the client's first read is recorded.
void Relay::serve(int client)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        address.sin_port = htons(static_cast<uint16_t>(backend_));
    }
    int backend = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (backend < 0)
        return;
    server_.track(backend);
    if (::connect(backend, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        return;
    bool first = true;
    pollfd ends[2] = {{client, POLLIN, 0}, {backend, POLLIN, 0}};
    char buffer[16384];
    while (::poll(ends, 2, -1) > 0) {
        int from = ends[0].revents != 0 ? 0 : 1;
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
