#include "tools/devsim/fleet.h"

#include <Poco/Exception.h>
#include <Poco/Net/HTTPServerConnection.h>
#include <Poco/Net/SecureServerSocket.h>
#include <Poco/Net/SocketAddress.h>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "tools/devsim/tls.h"

namespace Orvex::Devsim {

namespace {

// Enough for a start burst of a few dozen clients at once; more connections wait in the
// queue, which is unbounded (the kernel's listen backlog bounds it in practice).
constexpr size_t kMaxWorkers = 64;

// SO_REUSEADDR but not SO_REUSEPORT (which POCO's binding constructors set): a second
// simulator on a port in use must fail, not share the port and take half the sign-ins.
Poco::Net::ServerSocket bindSocket(const Config& config)
{
    Poco::Net::SocketAddress address(config.host, config.port);
    Poco::Net::ServerSocket socket = config.tls ? Poco::Net::ServerSocket(Poco::Net::SecureServerSocket(makeServerContext(config)))
                                                : Poco::Net::ServerSocket();
    try {
        socket.bind(address, true, false);
        socket.listen(128);
    } catch (const Poco::Exception& e) {
        throw std::runtime_error("cannot listen on " + address.toString() + ": " + e.message());
    }
    return socket;
}

// A TLS greeting (first byte 0x16, a handshake record) on a plain-HTTP port is answered
// "400 Bad Request" at once, as a web server answers a request line it cannot parse.
// The HTTP parser would otherwise wait for a line end that the greeting's random bytes
// may never hold, and the client would see a time-out instead of a protocol mismatch.
bool answeredTlsGreeting(const Poco::Net::StreamSocket& socket, int waitMs)
{
    const int fd = socket.impl()->sockfd();
    pollfd p{fd, POLLIN, 0};
    unsigned char first = 0;
    if (::poll(&p, 1, waitMs) <= 0 || ::recv(fd, &first, 1, MSG_PEEK) != 1 || first != 0x16)
        return false;
    static const char kBadRequest[] = "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    if (::send(fd, kBadRequest, sizeof kBadRequest - 1, MSG_NOSIGNAL) < 0) {
        // the client is gone already
    }
    return true;
}

}  // namespace

struct Fleet::Member {
    Member(const Config& config, RequestLog& log)
        : device(config, log), socket(bindSocket(config)), factory(new HandlerFactory(device))
    {
    }
    Device device;
    Poco::Net::ServerSocket socket;
    Poco::Net::HTTPRequestHandlerFactory::Ptr factory;
};

Fleet::Fleet(const Config& config) : log_(config.logFile), params_(new Poco::Net::HTTPServerParams)
{
    params_->setKeepAlive(true);
    params_->setTimeout(Poco::Timespan(30, 0));
    epoll_ = epoll_create1(EPOLL_CLOEXEC);
    wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (epoll_ < 0 || wake_ < 0)
        throw std::runtime_error(std::string("epoll/eventfd: ") + strerror(errno));
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = UINT64_MAX;
    epoll_ctl(epoll_, EPOLL_CTL_ADD, wake_, &event);
    for (int i = 0; i < config.devices; ++i) {
        members_.push_back(std::make_unique<Member>(deviceConfig(config, i), log_));
        Poco::Net::ServerSocket& socket = members_.back()->socket;
        socket.setBlocking(false);
        event.data.u64 = static_cast<uint64_t>(i);
        if (epoll_ctl(epoll_, EPOLL_CTL_ADD, socket.impl()->sockfd(), &event) != 0)
            throw std::runtime_error(std::string("epoll_ctl: ") + strerror(errno));
    }
    active_.resize(kMaxWorkers);
}

Fleet::~Fleet()
{
    stop();
    if (epoll_ >= 0)
        ::close(epoll_);
    if (wake_ >= 0)
        ::close(wake_);
}

std::vector<std::string> Fleet::urls() const
{
    std::vector<std::string> out;
    for (const auto& member : members_)
        out.push_back(std::string(member->device.config.tls ? "https" : "http") + "://" +
                      member->device.config.host + ":" + std::to_string(member->socket.address().port()));
    return out;
}

void Fleet::start()
{
    acceptor_ = std::thread([this] { acceptLoop(); });
}

void Fleet::stop()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_)
            return;
        stopping_ = true;
        // A delayed answer must not hold the stop.
        cutDelays();
        // Below TLS on purpose: the worker's thread owns the SSL object.
        for (auto& socket : active_)
            if (socket.impl()->sockfd() != POCO_INVALID_SOCKET)
                ::shutdown(socket.impl()->sockfd(), SHUT_RDWR);
        queue_.clear();
    }
    ready_.notify_all();
    uint64_t one = 1;
    if (::write(wake_, &one, sizeof one) < 0) {
        // the acceptor is woken by the stop flag at its next event anyway
    }
    if (acceptor_.joinable())
        acceptor_.join();
    for (auto& worker : workers_)
        worker.join();
    workers_.clear();
}

void Fleet::acceptLoop()
{
    epoll_event events[64];
    while (true) {
        int n = epoll_wait(epoll_, events, 64, -1);
        if (n < 0 && errno != EINTR)
            return;
        for (int i = 0; i < n; ++i) {
            if (events[i].data.u64 == UINT64_MAX)
                return;
            acceptAll(static_cast<size_t>(events[i].data.u64));
        }
    }
}

// The listening sockets are non-blocking: take every waiting connection, stop at EAGAIN.
// A TLS connection is accepted without its handshake, which runs on the worker.
void Fleet::acceptAll(size_t device)
{
    while (true) {
        Poco::Net::StreamSocket socket;
        try {
            socket = members_[device]->socket.acceptConnection();
        } catch (const Poco::Exception&) {
            return;
        }
        socket.setNoDelay(true);
        enqueue({socket, device});
    }
}

void Fleet::enqueue(Pending pending)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_)
        return;
    queue_.push_back(std::move(pending));
    if (idle_ == 0 && workers_.size() < kMaxWorkers) {
        size_t slot = workers_.size();
        workers_.emplace_back([this, slot] { work(slot); });
        return;
    }
    ready_.notify_one();
}

void Fleet::work(size_t slot)
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
        ++idle_;
        ready_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
        --idle_;
        if (stopping_)
            return;
        Pending pending = std::move(queue_.front());
        queue_.pop_front();
        active_[slot] = pending.socket;
        lock.unlock();
        try {
            Member& member = *members_[pending.device];
            if (member.device.config.tls ||
                !answeredTlsGreeting(pending.socket, static_cast<int>(params_->getTimeout().totalMilliseconds()))) {
                Poco::Net::HTTPServerConnection connection(pending.socket, params_, member.factory);
                connection.run();
            }
        } catch (const std::exception&) {
            // a broken connection ends only itself
        }
        lock.lock();
        active_[slot] = Poco::Net::StreamSocket();
    }
}

}  // namespace Orvex::Devsim
