#include "option/option.h"

#include "common/misc.h"
#include "common/trace.h"
#include "option/port_probe.h"

#include <Poco/SingletonHolder.h>
#include <Poco/String.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <limits>

namespace Orvex {

namespace {

constexpr int64_t PORT_MIN = 1;
constexpr int64_t PORT_MAX = 65535;

// The system log daemon, which the setting reconfigures: a port it holds is not taken.
const char* const SYSTEM_LOG_DAEMON = "rsyslogd";
constexpr size_t HOST_MAX = 253;

[[noreturn]] void fail(const char* key, const char* word)
{
    ORVEX_TRACE();
    throw OptionException(std::string(key) + " " + word, 400);
}

// A key of the argument object, or NULL when absent (or when args is not an object).
json_t* lookup(json_t* args, const char* key)
{
    ORVEX_TRACE();
    return json_is_object(args) ? json_object_get(args, key) : nullptr;
}

json_t* required(json_t* args, const char* key)
{
    ORVEX_TRACE();
    json_t* value = lookup(args, key);
    if (!value)
        fail(key, "missed");
    return value;
}

// Leading decimal digits (after blanks and a sign, as atoll reads them), saturated at the
// int64 limits so that a huge digit string reads as out of every range instead of wrapping.
int64_t decimalOf(const char* text)
{
    ORVEX_TRACE();
    while (std::isspace(static_cast<unsigned char>(*text)))
        ++text;
    bool negative = *text == '-';
    if (*text == '-' || *text == '+')
        ++text;
    uint64_t limit = negative ? uint64_t(std::numeric_limits<int64_t>::max()) + 1 : std::numeric_limits<int64_t>::max();
    uint64_t value = 0;
    for (; std::isdigit(static_cast<unsigned char>(*text)); ++text) {
        unsigned digit = unsigned(*text - '0');
        if (value > (limit - digit) / 10) {
            value = limit;
            break;
        }
        value = value * 10 + digit;
    }
    if (!negative)
        return int64_t(value);
    return value == limit ? std::numeric_limits<int64_t>::min() : -int64_t(value);
}

// The integer rule: never fails; types without a number read as 0.
int64_t integerOf(json_t* value)
{
    ORVEX_TRACE();
    if (json_is_integer(value))
        return json_integer_value(value);
    if (json_is_boolean(value))
        return json_is_true(value) ? 1 : 0;
    if (json_is_string(value))
        return decimalOf(json_string_value(value));
    return 0;
}

// The boolean rule: never fails.
bool booleanOf(json_t* value)
{
    ORVEX_TRACE();
    if (json_is_integer(value))
        return json_integer_value(value) > 0;
    if (json_is_string(value))
        return Poco::icompare(std::string(json_string_value(value), json_string_length(value)), "true") == 0;
    return json_is_true(value);
}

// The string rule: a string's whole text (embedded NULs kept), anything else is "incorrect".
std::string stringOf(json_t* value, const char* key)
{
    ORVEX_TRACE();
    if (!json_is_string(value))
        fail(key, "incorrect");
    return std::string(json_string_value(value), json_string_length(value));
}

int32_t rangedOf(json_t* value, const char* key, int64_t low, int64_t high)
{
    ORVEX_TRACE();
    int64_t number = integerOf(value);
    if (number < low || number > high)
        fail(key, "incorrect");
    return int32_t(number);
}

void readBoolean(json_t* args, const char* key, bool& field)
{
    ORVEX_TRACE();
    if (json_t* value = lookup(args, key))
        field = booleanOf(value);
}

void readString(json_t* args, const char* key, std::string& field)
{
    ORVEX_TRACE();
    if (json_t* value = lookup(args, key))
        field = stringOf(value, key);
}

void readRanged(json_t* args, const char* key, int32_t& field, int64_t low, int64_t high)
{
    ORVEX_TRACE();
    if (json_t* value = lookup(args, key))
        field = rangedOf(value, key, low, high);
}

// A port is usable when free or held by the system log daemon, which the setting
// reconfigures anyway.
void checkPortFree(json_t* args, const char* key, PortProbe::Protocol protocol, int32_t port)
{
    ORVEX_TRACE();
    if (!lookup(args, key))
        return;
    if (!PortProbe::freeOrHeldBy(protocol, port, SYSTEM_LOG_DAEMON))
        fail(key, "occupied");
}

// An IP address or a host name: it goes into the Host header and the log, so no blanks,
// control characters or anything else a name cannot hold.
bool hostLike(const std::string& text)
{
    ORVEX_TRACE();
    unsigned char address[16];
    if (inet_pton(AF_INET, text.c_str(), address) == 1 || inet_pton(AF_INET6, text.c_str(), address) == 1)
        return true;
    auto nameChar = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_'; };
    return !text.empty() && text.size() <= HOST_MAX && std::all_of(text.begin(), text.end(), nameChar) &&
           text.find("..") == std::string::npos && text.front() != '.' && text.front() != '-';
}

// One "id" element: an integer or a digit string, never 0.
int64_t identifierOf(json_t* value)
{
    ORVEX_TRACE();
    int64_t id = 0;
    if (json_is_integer(value))
        id = json_integer_value(value);
    else if (json_is_string(value))
        id = decimalOf(json_string_value(value));
    if (id == 0)
        fail("id", "incorrect");
    return id;
}

// A single "id" becomes a one-element array in the caller's object, so later readers of
// the arguments see the same list this record holds.
json_t* identifierArray(json_t* args)
{
    ORVEX_TRACE();
    json_t* value = required(args, "id");
    if (json_is_array(value))
        return value;
    json_t* array = json_pack("[O]", value);
    if (!array || json_object_set_new(args, "id", array) != 0)
        fail("id", "incorrect");
    return array;
}

}  // namespace

Option::Option(json_t* args)
{
    ORVEX_TRACE();
    json_t* session = lookup(args, "__SESSION__");
    if (!json_is_object(session))
        return;
    json_t* value = json_object_get(session, "ip");
    if (json_is_string(value))
        ip = json_string_value(value);
    value = json_object_get(session, "user");
    if (json_is_string(value))
        user = json_string_value(value);
    value = json_object_get(session, "administrators");
    if (json_is_boolean(value))
        administrator = json_is_true(value);
}

GlobalOption::GlobalOption() : language_("ENG")
{
    ORVEX_TRACE();
}

GlobalOption& GlobalOption::getInstance()
{
    ORVEX_TRACE();
    static Poco::SingletonHolder<GlobalOption> holder;
    return *holder.get();
}

void GlobalOption::setLanguage(const std::string& language)
{
    ORVEX_TRACE();
    Poco::FastMutex::ScopedLock lock(mutex_);
    language_ = language;
}

std::string GlobalOption::getLanguage() const
{
    ORVEX_TRACE();
    Poco::FastMutex::ScopedLock lock(mutex_);
    return language_;
}

SigninOption::SigninOption(json_t* args) : context(args)
{
    ORVEX_TRACE();
    ip = stringOf(required(args, "ip"), "ip");
    if (!hostLike(ip))
        fail("ip", "incorrect");
    port = rangedOf(required(args, "port"), "port", PORT_MIN, PORT_MAX);
    user = stringOf(required(args, "user"), "user");
    // The password is taken as it comes; a non-string reads as empty rather than failing.
    json_t* value = required(args, "pass");
    if (json_is_string(value))
        pass.assign(json_string_value(value), json_string_length(value));
    secure = booleanOf(required(args, "secure"));
}

SyslogServerOption::SyslogServerOption(json_t* args) : context(args)
{
    ORVEX_TRACE();
    readBoolean(args, "enable", enable);
    readBoolean(args, "tcp_enable", tcp_enable);
    // An absent "tls_enable" keeps true even with TCP off; only an explicit true is checked.
    readBoolean(args, "tls_enable", tls_enable);
    if (lookup(args, "tls_enable") && tls_enable && !tcp_enable)
        throw OptionException("tls cannot enable while tcp disabled", 400);
    readBoolean(args, "udp_enable", udp_enable);
    if (enable && !tcp_enable && !udp_enable)
        throw OptionException("syslog cannot enable while both tcp/udp disabled", 400);
    readRanged(args, "tcp_port", tcp_port, PORT_MIN, PORT_MAX);
    checkPortFree(args, "tcp_port", PortProbe::Protocol::Tcp, tcp_port);
    readRanged(args, "udp_port", udp_port, PORT_MIN, PORT_MAX);
    checkPortFree(args, "udp_port", PortProbe::Protocol::Udp, udp_port);
}

SyslogClientManagerOption::SyslogClientManagerOption(json_t* args) : context(args)
{
    ORVEX_TRACE();
    readBoolean(args, "bsd", bsd);
    readBoolean(args, "orvex", orvex);
}

SyslogClientOption::SyslogClientOption(json_t* args, bool idRequired) : context(args)
{
    ORVEX_TRACE();
    json_t* value = idRequired ? required(args, "id") : lookup(args, "id");
    if (value) {
        // Read as unsigned: -1 is the id 18446744073709551615, as the id operations send it.
        id = uint64_t(integerOf(value));
        if (id == 0)
            fail("id", "incorrect");
    }
    mode = rangedOf(required(args, "mode"), "mode", 1, 3);
    port = rangedOf(required(args, "port"), "port", PORT_MIN, PORT_MAX);
    address = stringOf(required(args, "address"), "address");
    if (address.empty())
        fail("address", "incorrect");
    readBoolean(args, "bsd", bsd);
    readBoolean(args, "event", event);
    readBoolean(args, "access", access);
    readBoolean(args, "enable", enable);
}

IdOption::IdOption(json_t* args, bool read) : context(args)
{
    ORVEX_TRACE();
    if (!read)
        return;
    readBoolean(args, "legacy", legacy);
    json_t* array = identifierArray(args);
    size_t index;
    json_t* element;
    json_array_foreach(array, index, element) {
        ids.push_back(identifierOf(element));
    }
    if (ids.empty())
        fail("id", "missed");
}

DeviceOption::DeviceOption(json_t* args) : context(args)
{
    ORVEX_TRACE();
    mac = stringOf(required(args, "mac"), "mac");
    readString(args, "ip", ip);
    readString(args, "user", user);
    readString(args, "pass", pass);
    readRanged(args, "port", port, 0, PORT_MAX);
    readBoolean(args, "secure", secure);
}

MacOption::MacOption(json_t* args) : context(args)
{
    ORVEX_TRACE();
    mac = stringOf(required(args, "mac"), "mac");
}

}  // namespace Orvex
