// In-memory state of the simulated device: the signed-in sessions (legacy session ids,
// token pairs) and the remote-syslog settings. Every member is safe to call from any
// server thread; each takes the object's one mutex for its whole (short) run.
#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace Orvex::Devsim {

struct TokenPair {
    std::string access;
    std::string refresh;
};

class Sessions {
public:
    // expireAfter: seconds a credential lives after it is issued; 0 = forever.
    explicit Sessions(int expireAfter);

    // Issues a new credential (legacy session id, or token access+refresh).
    std::string openSession();
    TokenPair openTokens();
    // Trades a live refresh token for a new pair (the old pair ends); false if unknown.
    bool refresh(const std::string& refreshToken, TokenPair& out);

    bool alive(const std::string& credential) const;
    // Seconds left for a live credential (the full lifetime when it never expires).
    long secondsLeft(const std::string& credential) const;
    // Ends a credential and, for tokens, its partner. Unknown ones are ignored.
    void close(const std::string& credential);
    int lifetime() const { return expireAfter_ ? expireAfter_ : 3600; }

private:
    // Lifetimes are measured from the moment of issue, not in calendar seconds, so that a
    // credential of one second never dies during the sign-in that got it.
    using Clock = std::chrono::steady_clock;
    struct Entry {
        Clock::time_point issued;
        std::string partner;  // access <-> refresh token; empty for legacy ids
        bool refreshOnly;     // a refresh token is not a credential for requests
    };
    std::string randomHex(size_t bytes);
    bool liveLocked(const std::string& credential, bool wantRefresh) const;

    const int expireAfter_;
    mutable std::mutex mutex_;
    std::mt19937_64 random_;
    std::map<std::string, Entry> entries_;
};

struct SyslogServer {
    bool enable = false;
    bool tcpEnable = true;
    bool tlsEnable = false;
    bool udpEnable = true;
    int tcpPort = 514;
    int udpPort = 514;
};

struct SyslogManager {
    bool bsd = false;
    bool orvex = true;
};

struct SyslogClient {
    uint64_t id = 0;
    std::string address;
    int mode = 3;  // 1 TCP, 2 TLS, 3 UDP
    int port = 514;
    bool bsd = false;
    bool event = true;
    bool access = false;
    bool enable = true;
};

class SyslogStore {
public:
    SyslogServer server() const;
    void setServer(const SyslogServer& value);
    SyslogManager manager() const;
    void setManager(const SyslogManager& value);

    std::vector<SyslogClient> clients() const;
    // Copies client `id` into `out`; false when there is none.
    bool client(uint64_t id, SyslogClient& out) const;
    // Stores `value` under a fresh id, which it returns.
    uint64_t add(SyslogClient value);
    // Replaces client value.id; false when there is none.
    bool replace(const SyslogClient& value);
    bool remove(uint64_t id);

private:
    mutable std::mutex mutex_;
    SyslogServer server_;
    SyslogManager manager_;
    std::map<uint64_t, SyslogClient> clients_;
    uint64_t nextId_ = 1;
};

}  // namespace Orvex::Devsim
