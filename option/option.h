// Option records: typed, validated views of a method's JSON argument object.
//
// Every constructor takes the caller's argument object (borrowed; it may be NULL or not an
// object, which reads as "every key absent") and either completes or throws
// OptionException(message, 400) with the first failed check, message "<key> missed" or
// "<key> incorrect" (plus the few fixed sentences of SyslogServerOption). Only IdOption
// changes the argument object: a single "id" is rewritten in place into a one-element array.
// Records are plain values; building them from different threads on different argument
// objects is safe. SyslogServerOption runs a shell pipeline (lsof from /usr/sbin, or from
// /usr/bin where the system keeps it there) to probe its ports.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <string>
#include <vector>

#include <Poco/Mutex.h>

#include "common/exceptions.h"

namespace Orvex {

// The bus caller on whose behalf a method runs, read from "__SESSION__" ("ip", "user",
// "administrators"); anything absent or of the wrong type keeps the default. Never throws.
struct Option {
    std::string ip = "127.0.0.1";
    std::string user = "admin";
    bool administrator = true;
    explicit Option(json_t* args);
};

// Process-wide interface language, default "ENG". Thread-safe.
class GlobalOption {
public:
    GlobalOption();
    static GlobalOption& getInstance();
    void setLanguage(const std::string& language);
    std::string getLanguage() const;

private:
    mutable Poco::FastMutex mutex_;
    std::string language_;
};

// Where a device is and the credentials to sign in to it with; SigninOption and DeviceOption
// read them, each by its own rules.
struct DeviceAccess {
    std::string ip;
    std::string user;
    std::string pass;
    int32_t port = 0;
    bool secure = false;
};

// Device to sign in to. Checks: "ip" (an IP address or a host name), "port" (1..65535),
// "user", "pass" (no type check: a non-string reads as empty), "secure"; all required.
struct SigninOption : DeviceAccess {
    Option context;
    explicit SigninOption(json_t* args);
};

// The device's syslog receiver. Ports that are given must be in 1..65535 and either free
// or held by "rsyslogd" (probed with lsof).
struct SyslogServerOption {
    Option context;
    bool enable = false;
    bool tcp_enable = false;
    bool tls_enable = true;
    bool udp_enable = false;
    int32_t tcp_port = 1514;
    int32_t udp_port = 1514;
    explicit SyslogServerOption(json_t* args);
};

// Global forwarding switches; never fails.
struct SyslogClientManagerOption {
    Option context;
    bool bsd = false;
    bool orvex = false;
    explicit SyslogClientManagerOption(json_t* args);
};

// One forwarding destination. Checks: "id" (required only when idRequired; whenever present
// read as unsigned 64-bit by the integer rule, so -1 is 2^64-1, and not 0), "mode" (1..3), "port" (1..65535), "address" (non-empty string), switches.
struct SyslogClientOption {
    Option context;
    uint64_t id = 0;
    std::string address;
    int32_t mode = 2;
    int32_t port = 1514;
    bool bsd = false;
    bool event = false;
    bool access = false;
    bool enable = false;
    SyslogClientOption(json_t* args, bool idRequired);
};

// A list of destination identifiers from "id" (a value or an array of integers or digit
// strings, none 0, at least one). With read false only the caller context is read.
struct IdOption {
    std::vector<int64_t> ids;
    Option context;
    bool legacy = false;
    IdOption(json_t* args, bool read);
};

// Front-end records for launching, stopping and calling a per-device process. "mac" is
// required (may be empty); "ip", "user", "pass" are optional strings, "port" an optional
// integer 0..65535, "secure" an optional boolean.
struct DeviceOption : DeviceAccess {
    Option context;
    std::string mac;
    explicit DeviceOption(json_t* args);
};

struct MacOption {
    Option context;
    std::string mac;
    explicit MacOption(json_t* args);
};

}  // namespace Orvex
