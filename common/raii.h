// Owners for the C resources the system passes around. Where a contract hands over a raw
// json_t*&, int& or zs_io*, keep that signature and wrap inside.
#pragma once

#include <jansson.h>
#include <unistd.h>

#include <utility>

namespace Orvex {

// One jansson reference. adopt() takes a new reference (json_*_new, json_loadb, json_pack);
// borrow() adds one to a borrowed value (json_object_get and friends).
class JsonRef {
public:
    JsonRef() noexcept = default;
    static JsonRef adopt(json_t* value) noexcept { return JsonRef(value); }
    static JsonRef borrow(json_t* value) noexcept { return JsonRef(json_incref(value)); }
    JsonRef(JsonRef&& other) noexcept : value_(std::exchange(other.value_, nullptr)) {}
    JsonRef& operator=(JsonRef&& other) noexcept
    {
        if (this != &other)
            reset(std::exchange(other.value_, nullptr));
        return *this;
    }
    JsonRef(const JsonRef&) = delete;
    JsonRef& operator=(const JsonRef&) = delete;
    ~JsonRef() { json_decref(value_); }

    json_t* get() const noexcept { return value_; }
    explicit operator bool() const noexcept { return value_ != nullptr; }
    // Gives the reference away (for APIs that steal it, or for json_t*& out-parameters).
    json_t* release() noexcept { return std::exchange(value_, nullptr); }
    void reset(json_t* adopted = nullptr) noexcept
    {
        json_decref(value_);
        value_ = adopted;
    }

private:
    explicit JsonRef(json_t* value) noexcept : value_(value) {}
    json_t* value_ = nullptr;
};

// One open descriptor, closed once.
class UniqueFd {
public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        if (this != &other)
            reset(std::exchange(other.fd_, -1));
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }
    int release() noexcept { return std::exchange(fd_, -1); }
    void reset(int fd = -1) noexcept
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

}  // namespace Orvex
