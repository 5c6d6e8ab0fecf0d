// One HTTP/1.1 exchange with a device under one deadline: connect, TLS handshake, send
// and receive together end within kExchangeSeconds, and the answer's body is capped at
// kAnswerLimit bytes (the bus cannot carry more back anyway). A failure names the device
// address and the reason, and carries a cause a person can act on.
//
// Threads: a TlsClient is used by one exchange at a time (the session's lock); exchange()
// itself keeps no state.
#pragma once

#include <Poco/Exception.h>
#include <Poco/Net/Context.h>

#include <openssl/ssl.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>

namespace Poco {
class URI;
}
namespace Poco::Net {
class HTTPRequest;
}

namespace Orvex {
namespace session_detail {

constexpr int kExchangeSeconds = 10;
constexpr size_t kAnswerLimit = 16777216;

// Why an exchange or a sign-in failed, worst-understood first. Larger values are more
// telling: a sign-in reports the largest cause over its families.
enum class Cause : int { None = 0, Refused, Unreachable, BadAnswer, TlsMismatch, Credentials };
// "", "refused", "unreachable", "bad-answer", "tls-mismatch", "credentials"
const char* causeName(Cause cause);
// The words for a person: "connection refused", "no route or time-out", ...
const char* causeText(Cause cause);

class ExchangeError : public Poco::Exception {
public:
    ExchangeError(Cause cause, const std::string& message) : Poco::Exception(message), cause_(cause) {}
    Cause cause() const { return cause_; }

private:
    Cause cause_;
};

// The TLS settings of every device and the last session of the current one, offered again
// so that a request costs a resumption. A device that speaks only TLS 1.1 is reached with
// a second context that allows that version alone at security level 0 (Debian's OpenSSL
// refuses its signatures otherwise), without anonymous or null suites; TLS 1.0 and older
// stay refused. Every exchange tries the default context first: the TLS 1.1 one is a
// fallback for that exchange alone, and only for a device that has not spoken TLS 1.2 or
// newer with this client. One client per sign-in.
class TlsClient {
public:
    TlsClient() = default;
    ~TlsClient();
    TlsClient(const TlsClient&) = delete;
    TlsClient& operator=(const TlsClient&) = delete;

    // Forgets the remembered session and versions when the peer changes.
    void usePeer(const std::string& peer);
    SSL_CTX* context(bool tls11) const;
    // Records the version of a handshake made with the default context.
    void negotiated(int version);
    bool mayFallBack() const { return newest_ < TLS1_2_VERSION; }
    SSL_SESSION* resumable() const { return resumable_; }
    // Takes over one reference.
    void keep(SSL_SESSION* session);

private:
    // Made on first use: a plain-HTTP device needs neither, most devices never the second.
    mutable Poco::Net::Context::Ptr modern_;
    mutable Poco::Net::Context::Ptr legacy_;
    SSL_SESSION* resumable_ = nullptr;
    std::string peer_;
    int newest_ = 0;  // the newest TLS version this peer spoke with us
};

// True when a device-supplied session id or token may go into a Cookie or Authorization
// header: printable ASCII without blanks, quotes, commas, semicolons or backslashes.
bool headerSafe(const std::string& value);

// The path with the parameters added to its query in the order given.
Poco::URI withQuery(const char* path, std::initializer_list<std::pair<const char*, std::string>> parameters);

struct Answer {
    int status = 0;
    std::string body;
};

// Sends the request (Host and "Connection: Close" set as the HTTP client always did) and
// reads the whole answer. tls is null for plain HTTP. Throws ExchangeError.
Answer exchange(const std::string& host, uint16_t port, TlsClient* tls, Poco::Net::HTTPRequest& request,
                const std::string& body);

}  // namespace session_detail
}  // namespace Orvex
