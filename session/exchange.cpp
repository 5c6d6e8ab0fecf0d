// The device exchange on a non-blocking socket: every wait is a poll bounded by the one
// deadline, so a device that drips bytes or stays silent cannot stretch an exchange, and
// TLS runs straight on OpenSSL for the same reason (a blocking SSL_read would restart its
// time-out on every byte).
#include "session/exchange.h"

#include "common/misc.h"
#include "common/raii.h"

#include <Poco/URI.h>
#include <Poco/Net/HTTPRequest.h>
#include <Poco/Net/HTTPResponse.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/SocketAddress.h>

#include <openssl/err.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <condition_variable>
#include <istream>
#include <memory>
#include <mutex>
#include <sstream>
#include <system_error>
#include <thread>

namespace Orvex {
namespace session_detail {

namespace {

using Clock = std::chrono::steady_clock;
using Poco::Net::Context;

constexpr const char* kCipherList = "ALL:!ADH:!LOW:!EXP:!MD5:@STRENGTH";
// Security level 0 lets anonymous and null suites through, which the other levels drop.
constexpr const char* kTls11CipherList = "ALL:!ADH:!LOW:!EXP:!MD5:!aNULL:!eNULL:@STRENGTH";
// X25519 first: its key share is the cheapest to make, and OpenSSL sends the first
// group's share in the hello, so a TLS 1.3 device needs no second round trip.
constexpr const char* kGroups = "X25519:P-256:X448:P-384:P-521";
constexpr size_t kChunkLine = 1024;

Context::Ptr makeContext(const char* ciphers = kCipherList)
{
    Context::Ptr context = new Context(Context::TLSV1_CLIENT_USE, "", "", "", Context::VERIFY_NONE, 9, false,
                                       ciphers);
    context->disableProtocols(Context::PROTO_SSLV2 | Context::PROTO_SSLV3 | Context::PROTO_TLSV1);
    context->enableSessionCache(true);
    SSL_CTX_set1_groups_list(context->sslContext(), kGroups);
    return context;
}

// OpenSSL 3 refuses TLS 1.1's signatures above security level 0; this context lowers it
// for that one version only, so nothing changes for TLS 1.2 and 1.3, and keeps out the
// anonymous and null suites that level 0 would otherwise offer.
Context::Ptr makeTls11Context()
{
    Context::Ptr context = makeContext(kTls11CipherList);
    SSL_CTX* ctx = context->sslContext();
    SSL_CTX_set_min_proto_version(ctx, TLS1_1_VERSION);
    SSL_CTX_set_max_proto_version(ctx, TLS1_1_VERSION);
    SSL_CTX_set_security_level(ctx, 0);
    return context;
}

std::string opensslReason(const char* fallback)
{
    unsigned long code = ERR_peek_last_error();
    const char* reason = code != 0 ? ERR_reason_error_string(code) : nullptr;
    return reason != nullptr ? reason : fallback;
}

// One connection to the device; every operation gives up at the deadline.
class Connection {
public:
    Connection(const std::string& host, uint16_t port, Clock::time_point deadline)
        : deadline_(deadline), peer_(strformat("%s:%u", host.c_str(), unsigned(port)))
    {
        connectTo(host, port);
    }
    Connection(Connection&&) = default;
    ~Connection();

    const std::string& peer() const { return peer_; }
    SSL* ssl() const { return ssl_.get(); }
    int failedVersion() const { return failedVersion_; }

    [[noreturn]] void fail(Cause cause, const std::string& what) const
    {
        throw ExchangeError(cause, peer_ + ": " + what);
    }

    void handshake(SSL_CTX* context, const std::string& host, SSL_SESSION* resume);
    void send(const std::string& data);
    // Up to size bytes; 0 at the end of the answer.
    size_t receive(char* buffer, size_t size);

private:
    Poco::Net::SocketAddress resolve(const std::string& host, uint16_t port) const;
    void connectTo(const std::string& host, uint16_t port);
    [[noreturn]] void connectFailed(int error) const;
    void await(short events, const char* waitingFor) const;
    // After a WANT_READ/WANT_WRITE; false for any other result.
    bool awaitTls(int result, const char* waitingFor) const;

    Clock::time_point deadline_;
    std::string peer_;
    UniqueFd fd_;
    std::unique_ptr<SSL, decltype(&SSL_free)> ssl_{nullptr, &SSL_free};
    int failedVersion_ = 0;
    bool established_ = false;
};

// The close_notify the device expects; without it OpenSSL also marks the session as not
// resumable. The device may have closed already: a SIGPIPE from that write is swallowed.
Connection::~Connection()
{
    if (!ssl_ || !established_)
        return;
    sigset_t pipe, old;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, &old);
    SSL_shutdown(ssl_.get());
    ERR_clear_error();
    timespec none{};
    if (!sigismember(&old, SIGPIPE))
        while (sigtimedwait(&pipe, nullptr, &none) > 0) {
        }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

// One name resolution, shared by the exchange and the thread that resolves.
struct Resolution {
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    Poco::Net::SocketAddress address;
    std::string error;
};

// The resolver has no time-out that the exchange could set, so a host name is resolved
// on a thread of its own, which the exchange leaves behind when its deadline comes first;
// that thread then ends with the resolver's own time-outs and touches only the shared
// Resolution. Addresses need no resolver and no thread.
Poco::Net::SocketAddress Connection::resolve(const std::string& host, uint16_t port) const
{
    Poco::Net::IPAddress ip;
    if (Poco::Net::IPAddress::tryParse(host, ip))
        return Poco::Net::SocketAddress(ip, port);
    auto shared = std::make_shared<Resolution>();
    try {
        std::thread([shared, host, port] {
            Poco::Net::SocketAddress address;
            std::string error;
            try {
                address = Poco::Net::SocketAddress(host, port);
            } catch (const Poco::Exception& e) {
                error = e.displayText();
            }
            std::lock_guard<std::mutex> lock(shared->mutex);
            shared->address = address;
            shared->error = error;
            shared->done = true;
            shared->finished.notify_all();
        }).detach();
    } catch (const std::system_error& e) {
        fail(Cause::Unreachable, std::string("cannot resolve the address (") + e.what() + ")");
    }
    std::unique_lock<std::mutex> lock(shared->mutex);
    if (!shared->finished.wait_until(lock, deadline_, [&] { return shared->done; }))
        fail(Cause::Unreachable, strformat("cannot resolve the address within %d s", kExchangeSeconds));
    if (!shared->error.empty())
        fail(Cause::Unreachable, "cannot resolve the address (" + shared->error + ")");
    return shared->address;
}

void Connection::connectTo(const std::string& host, uint16_t port)
{
    Poco::Net::SocketAddress address = resolve(host, port);
    fd_.reset(::socket(address.af(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!fd_)
        fail(Cause::Unreachable, std::string("cannot open a socket: ") + std::strerror(errno));
    int on = 1;
    ::setsockopt(fd_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (::connect(fd_.get(), address.addr(), address.length()) != 0 && errno != EINPROGRESS)
        connectFailed(errno);
    await(POLLOUT, "the connection was not accepted");
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(fd_.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    if (error != 0)
        connectFailed(error);
}

void Connection::connectFailed(int error) const
{
    if (error == ECONNREFUSED)
        fail(Cause::Refused, "connection refused");
    fail(Cause::Unreachable, std::string("cannot connect: ") + std::strerror(error));
}

void Connection::await(short events, const char* waitingFor) const
{
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline_ - Clock::now()).count();
        if (left <= 0)
            fail(Cause::Unreachable, strformat("%s within %d s", waitingFor, kExchangeSeconds));
        pollfd ready{fd_.get(), events, 0};
        int n = ::poll(&ready, 1, static_cast<int>(std::min<long long>(left, INT_MAX)));
        if (n > 0)
            return;
        if (n < 0 && errno != EINTR)
            fail(Cause::Unreachable, std::string("poll: ") + std::strerror(errno));
    }
}

bool Connection::awaitTls(int result, const char* waitingFor) const
{
    int error = SSL_get_error(ssl_.get(), result);
    if (error == SSL_ERROR_WANT_READ)
        await(POLLIN, waitingFor);
    else if (error == SSL_ERROR_WANT_WRITE)
        await(POLLOUT, waitingFor);
    else
        return false;
    return true;
}

void Connection::handshake(SSL_CTX* context, const std::string& host, SSL_SESSION* resume)
{
    ssl_.reset(SSL_new(context));
    if (!ssl_ || SSL_set_fd(ssl_.get(), fd_.get()) != 1)
        fail(Cause::TlsMismatch, "cannot start TLS");
    // The device name as server name, as the HTTPS client always sent it.
    SSL_set_tlsext_host_name(ssl_.get(), host.c_str());
    // A device that closes without a close_notify ends its answer like a plain one.
    SSL_set_options(ssl_.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
    if (resume != nullptr)
        SSL_set_session(ssl_.get(), resume);
    for (;;) {
        ERR_clear_error();
        int result = SSL_connect(ssl_.get());
        established_ = result == 1;
        if (established_)
            return;
        if (awaitTls(result, "no TLS handshake"))
            continue;
        failedVersion_ = SSL_version(ssl_.get());
        fail(Cause::TlsMismatch, "TLS handshake failed (" + opensslReason("closed by the device") + ")");
    }
}

void Connection::send(const std::string& data)
{
    size_t done = 0;
    while (done < data.size()) {
        size_t size = std::min<size_t>(data.size() - done, INT_MAX);
        if (ssl_) {
            ERR_clear_error();
            int n = SSL_write(ssl_.get(), data.data() + done, static_cast<int>(size));
            if (n > 0)
                done += size_t(n);
            else if (!awaitTls(n, "the request could not be sent"))
                fail(Cause::BadAnswer, "sending failed (" + opensslReason("connection closed") + ")");
            continue;
        }
        ssize_t n = ::send(fd_.get(), data.data() + done, size, MSG_NOSIGNAL);
        if (n >= 0)
            done += size_t(n);
        else if (errno == EAGAIN)
            await(POLLOUT, "the request could not be sent");
        else if (errno != EINTR)
            fail(Cause::BadAnswer, std::string("sending failed: ") + std::strerror(errno));
    }
}

size_t Connection::receive(char* buffer, size_t size)
{
    for (;;) {
        if (ssl_) {
            ERR_clear_error();
            int n = SSL_read(ssl_.get(), buffer, static_cast<int>(std::min<size_t>(size, INT_MAX)));
            if (n > 0)
                return size_t(n);
            int error = SSL_get_error(ssl_.get(), n);
            if (error == SSL_ERROR_ZERO_RETURN || (error == SSL_ERROR_SYSCALL && ERR_peek_error() == 0))
                return 0;
            if (!awaitTls(n, "no complete answer"))
                fail(Cause::BadAnswer, "reading failed (" + opensslReason("connection closed") + ")");
            continue;
        }
        ssize_t n = ::recv(fd_.get(), buffer, size, 0);
        if (n >= 0)
            return size_t(n);
        if (errno == EAGAIN)
            await(POLLIN, "no complete answer");
        else if (errno != EINTR)
            fail(Cause::BadAnswer, std::string("reading failed: ") + std::strerror(errno));
    }
}

// The answer as a stream for the header parser; counts what arrived.
class AnswerBuffer : public std::streambuf {
public:
    explicit AnswerBuffer(Connection& connection) : connection_(connection) {}
    size_t received() const { return received_; }
    char first() const { return first_; }

protected:
    int_type underflow() override
    {
        size_t n = connection_.receive(buffer_, sizeof buffer_);
        if (n == 0)
            return traits_type::eof();
        if (received_ == 0)
            first_ = buffer_[0];
        received_ += n;
        setg(buffer_, buffer_, buffer_ + n);
        return traits_type::to_int_type(buffer_[0]);
    }

private:
    Connection& connection_;
    char buffer_[16384];
    size_t received_ = 0;
    char first_ = 0;
};

void readHeader(std::istream& in, const AnswerBuffer& buffer, Connection& connection, bool secure,
                Poco::Net::HTTPResponse& response)
{
    try {
        do {
            response.clear();
            response.read(in);
        } while (response.getStatus() == Poco::Net::HTTPResponse::HTTP_CONTINUE);
    } catch (const ExchangeError& e) {
        if (!secure && buffer.received() == 0 && e.cause() == Cause::BadAnswer)
            connection.fail(Cause::TlsMismatch, "reset without an answer (a TLS port does so to plain HTTP)");
        throw;
    } catch (const Poco::Exception& e) {
        // A TLS record starts with 0x15 (alert) or 0x16 (handshake).
        if (!secure && (buffer.received() == 0 || buffer.first() == 0x15 || buffer.first() == 0x16))
            connection.fail(Cause::TlsMismatch, buffer.received() == 0
                                                    ? "closed without an answer (a TLS port does so to plain HTTP)"
                                                    : "answered with TLS to plain HTTP");
        connection.fail(Cause::BadAnswer, "answer not understood (" + e.displayText() + ")");
    }
}

[[noreturn]] void overLimit(Connection& connection)
{
    connection.fail(Cause::BadAnswer, strformat("answer over the limit of %zu bytes", kAnswerLimit));
}

// Appends up to count bytes (fewer at the end of the stream).
void readSome(std::istream& in, std::string& body, size_t count)
{
    char block[16384];
    while (count > 0 && in.read(block, static_cast<std::streamsize>(std::min(count, sizeof block))).gcount() > 0) {
        size_t got = size_t(in.gcount());
        body.append(block, got);
        count -= got;
    }
}

std::string readLine(std::istream& in, Connection& connection)
{
    std::string line;
    for (int c = in.get(); c != std::char_traits<char>::eof() && c != '\n'; c = in.get()) {
        if (line.size() >= kChunkLine)
            connection.fail(Cause::BadAnswer, "answer not understood (chunk line too long)");
        line += char(c);
    }
    return line;
}

int hexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

void readChunked(std::istream& in, Connection& connection, std::string& body)
{
    for (;;) {
        std::string line = readLine(in, connection);
        size_t size = 0;
        size_t digits = 0;
        for (char c : line) {
            int value = hexValue(c);
            if (value < 0)
                break;
            if (size > kAnswerLimit)
                overLimit(connection);
            size = size * 16 + size_t(value);
            ++digits;
        }
        if (digits == 0)
            connection.fail(Cause::BadAnswer, "answer not understood (bad chunk size)");
        if (size == 0)
            return;
        if (size > kAnswerLimit - body.size())
            overLimit(connection);
        size_t before = body.size();
        readSome(in, body, size);
        if (body.size() - before < size)
            connection.fail(Cause::BadAnswer, "answer not understood (ended inside a chunk)");
        readLine(in, connection);
    }
}

std::string readBody(std::istream& in, Connection& connection, const Poco::Net::HTTPResponse& response)
{
    std::string body;
    int status = response.getStatus();
    if (status < 200 || status == 204 || status == 304)
        return body;
    if (response.getChunkedTransferEncoding()) {
        readChunked(in, connection, body);
    } else if (response.hasContentLength()) {
        Poco::Int64 length = response.getContentLength64();
        if (length < 0 || Poco::UInt64(length) > kAnswerLimit)
            overLimit(connection);
        readSome(in, body, size_t(length));
    } else {
        readSome(in, body, kAnswerLimit);
        if (in.peek() != std::char_traits<char>::eof())
            overLimit(connection);
    }
    return body;
}

// TLS on the connection, always first with the default settings. A device that chose
// TLS 1.1 and failed on them is met again, on a new connection and for this exchange
// only, with the TLS 1.1 context, unless it has spoken TLS 1.2 or newer with us since
// the sign-in: then the TLS 1.1 answer came from someone else on the path.
Connection connect(const std::string& host, uint16_t port, TlsClient* tls, Clock::time_point deadline)
{
    Connection connection(host, port, deadline);
    if (tls == nullptr)
        return connection;
    try {
        connection.handshake(tls->context(false), host, tls->resumable());
        tls->negotiated(SSL_version(connection.ssl()));
        return connection;
    } catch (const ExchangeError&) {
        if (!tls->mayFallBack() || connection.failedVersion() != TLS1_1_VERSION)
            throw;
    }
    Connection again(host, port, deadline);
    again.handshake(tls->context(true), host, nullptr);
    return again;
}

}  // namespace

const char* causeName(Cause cause)
{
    switch (cause) {
    case Cause::Refused: return "refused";
    case Cause::Unreachable: return "unreachable";
    case Cause::BadAnswer: return "bad-answer";
    case Cause::TlsMismatch: return "tls-mismatch";
    case Cause::Credentials: return "credentials";
    case Cause::None: break;
    }
    return "";
}

const char* causeText(Cause cause)
{
    switch (cause) {
    case Cause::Refused: return "connection refused";
    case Cause::Unreachable: return "no route or time-out";
    case Cause::BadAnswer: return "answer not understood";
    case Cause::TlsMismatch: return "TLS where plain HTTP was expected or the reverse";
    case Cause::Credentials: return "credentials rejected";
    case Cause::None: break;
    }
    return "";
}

bool headerSafe(const std::string& value)
{
    return std::all_of(value.begin(), value.end(), [](char c) {
        return c > 0x20 && c < 0x7f && c != '"' && c != ',' && c != ';' && c != '\\';
    });
}

Poco::URI withQuery(const char* path, std::initializer_list<std::pair<const char*, std::string>> parameters)
{
    Poco::URI uri(path);
    for (const auto& [name, value] : parameters)
        uri.addQueryParameter(name, value);
    return uri;
}

TlsClient::~TlsClient()
{
    keep(nullptr);
}

void TlsClient::usePeer(const std::string& peer)
{
    if (peer == peer_)
        return;
    peer_ = peer;
    keep(nullptr);
    newest_ = 0;
}

void TlsClient::negotiated(int version)
{
    newest_ = std::max(newest_, version);
}

SSL_CTX* TlsClient::context(bool tls11) const
{
    Context::Ptr& context = tls11 ? legacy_ : modern_;
    if (context.isNull())
        context = tls11 ? makeTls11Context() : makeContext();
    return context->sslContext();
}

void TlsClient::keep(SSL_SESSION* session)
{
    if (resumable_ != nullptr)
        SSL_SESSION_free(resumable_);
    resumable_ = session;
}

Answer exchange(const std::string& host, uint16_t port, TlsClient* tls, Poco::Net::HTTPRequest& request,
                const std::string& body)
{
    Clock::time_point deadline = Clock::now() + std::chrono::seconds(kExchangeSeconds);
    request.setKeepAlive(false);
    if (!request.has(Poco::Net::HTTPRequest::HOST))
        request.setHost(host, port);
    if (tls != nullptr)
        tls->usePeer(strformat("%s:%u", host.c_str(), unsigned(port)));
    Connection connection = connect(host, port, tls, deadline);
    std::ostringstream head;
    request.write(head);
    connection.send(head.str() + body);

    AnswerBuffer buffer(connection);
    std::istream in(&buffer);
    in.exceptions(std::ios::badbit);
    Poco::Net::HTTPResponse response;
    readHeader(in, buffer, connection, tls != nullptr, response);
    Answer answer{response.getStatus(), readBody(in, connection, response)};
    // Taken only now: a TLS 1.3 device sends its session tickets after the handshake,
    // and they have been read once the answer has. A TLS 1.1 session is not: the
    // default hello, the only one that offers a session, could not resume it.
    if (tls != nullptr && SSL_version(connection.ssl()) >= TLS1_2_VERSION)
        tls->keep(SSL_get1_session(connection.ssl()));
    return answer;
}

}  // namespace session_detail
}  // namespace Orvex
