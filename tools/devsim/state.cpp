#include "tools/devsim/state.h"

namespace Orvex::Devsim {

Sessions::Sessions(int expireAfter) : expireAfter_(expireAfter), random_(std::random_device{}()) {}

std::string Sessions::randomHex(size_t bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    while (out.size() < bytes * 2) {
        uint64_t word = random_();
        for (int i = 0; i < 16 && out.size() < bytes * 2; ++i, word >>= 4)
            out += digits[word & 15];
    }
    return out;
}

std::string Sessions::openSession()
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::string sid = randomHex(8);
    entries_[sid] = Entry{Clock::now(), "", false};
    return sid;
}

TokenPair Sessions::openTokens()
{
    std::lock_guard<std::mutex> lock(mutex_);
    TokenPair pair{randomHex(16), randomHex(16)};
    const Clock::time_point now = Clock::now();
    entries_[pair.access] = Entry{now, pair.refresh, false};
    entries_[pair.refresh] = Entry{now, pair.access, true};
    return pair;
}

bool Sessions::liveLocked(const std::string& credential, bool wantRefresh) const
{
    auto it = entries_.find(credential);
    if (it == entries_.end() || it->second.refreshOnly != wantRefresh)
        return false;
    return expireAfter_ == 0 || Clock::now() - it->second.issued < std::chrono::seconds(expireAfter_);
}

bool Sessions::refresh(const std::string& refreshToken, TokenPair& out)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!liveLocked(refreshToken, true))
            return false;
    }
    close(refreshToken);
    out = openTokens();
    return true;
}

bool Sessions::alive(const std::string& credential) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return !credential.empty() && liveLocked(credential, false);
}

long Sessions::secondsLeft(const std::string& credential) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = entries_.find(credential);
    if (it == entries_.end())
        return 0;
    if (expireAfter_ == 0)
        return 3600;
    const auto left = it->second.issued + std::chrono::seconds(expireAfter_) - Clock::now();
    return left > Clock::duration::zero() ? static_cast<long>(std::chrono::ceil<std::chrono::seconds>(left).count()) : 0;
}

void Sessions::close(const std::string& credential)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = entries_.find(credential);
    if (it == entries_.end())
        return;
    std::string partner = it->second.partner;
    entries_.erase(it);
    if (!partner.empty())
        entries_.erase(partner);
}

SyslogServer SyslogStore::server() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return server_;
}

void SyslogStore::setServer(const SyslogServer& value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    server_ = value;
}

SyslogManager SyslogStore::manager() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return manager_;
}

void SyslogStore::setManager(const SyslogManager& value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    manager_ = value;
}

std::vector<SyslogClient> SyslogStore::clients() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<SyslogClient> out;
    for (const auto& entry : clients_)
        out.push_back(entry.second);
    return out;
}

bool SyslogStore::client(uint64_t id, SyslogClient& out) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = clients_.find(id);
    if (it == clients_.end())
        return false;
    out = it->second;
    return true;
}

uint64_t SyslogStore::add(SyslogClient value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    value.id = nextId_++;
    clients_[value.id] = value;
    return value.id;
}

bool SyslogStore::replace(const SyslogClient& value)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = clients_.find(value.id);
    if (it == clients_.end())
        return false;
    it->second = value;
    return true;
}

bool SyslogStore::remove(uint64_t id)
{
    std::lock_guard<std::mutex> lock(mutex_);
    return clients_.erase(id) > 0;
}

}  // namespace Orvex::Devsim
