#include "tests/support/hostile.h"

#include "tests/support/bus.h"

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

}  // namespace Orvex::Test
