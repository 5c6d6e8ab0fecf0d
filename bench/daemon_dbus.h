// D-Bus baseline for the bus figures: a method call through a private dbus-daemon with
// sd-bus, either on a new connection per call (connect, authenticate, Hello, call) or on
// one kept connection. Built without libsystemd, available() is false and calls fail.
// A DbusConnection belongs to one thread.
#pragma once

#include <string>

namespace Orvex {
namespace Bench {

constexpr const char* kDbusName = "org.orvex.Bench";
constexpr const char* kDbusPath = "/org/orvex/Bench";
constexpr const char* kDbusMethod = "Echo";

bool dbusAvailable();

// One call on a connection of its own; true when the reply carried `expected`'s size.
bool dbusCallOnce(const std::string& address, const std::string& body, size_t expected);

class DbusConnection {
public:
    explicit DbusConnection(const std::string& address);
    ~DbusConnection();
    DbusConnection(const DbusConnection&) = delete;
    DbusConnection& operator=(const DbusConnection&) = delete;
    bool call(const std::string& body, size_t expected);

private:
    void* bus_ = nullptr;  // sd_bus*, kept out of this header
};

}  // namespace Bench
}  // namespace Orvex
