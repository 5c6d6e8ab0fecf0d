#include "tools/devsim/options.h"

#include <getopt.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <stdexcept>

namespace Orvex::Devsim {

namespace {

enum OptionId {
    OPT_FAMILY = 256, OPT_HOST, OPT_PORT, OPT_TLS, OPT_CERT, OPT_KEY, OPT_USER, OPT_PASS,
    OPT_LOG, OPT_STDIN_WATCH, OPT_HELP, OPT_DELAY, OPT_OMIT, OPT_GARBAGE, OPT_JSON_ARRAY,
    OPT_HANGUP, OPT_EXPIRE, OPT_TLS10, OPT_TLS11, OPT_FOREIGN_404, OPT_MODEL, OPT_FIRMWARE,
    OPT_FIRMWARE_NUMBER, OPT_HOSTNAME, OPT_SERIAL, OPT_DEVICES, OPT_DELAY_PATH, OPT_VERSION
};

const struct option kLongOptions[] = {
    {"family", required_argument, nullptr, OPT_FAMILY},
    {"host", required_argument, nullptr, OPT_HOST},
    {"port", required_argument, nullptr, OPT_PORT},
    {"tls", no_argument, nullptr, OPT_TLS},
    {"cert", required_argument, nullptr, OPT_CERT},
    {"key", required_argument, nullptr, OPT_KEY},
    {"user", required_argument, nullptr, OPT_USER},
    {"pass", required_argument, nullptr, OPT_PASS},
    {"log", required_argument, nullptr, OPT_LOG},
    {"stdin-watch", no_argument, nullptr, OPT_STDIN_WATCH},
    {"help", no_argument, nullptr, OPT_HELP},
    {"delay-ms", required_argument, nullptr, OPT_DELAY},
    {"delay-path", required_argument, nullptr, OPT_DELAY_PATH},
    {"version", no_argument, nullptr, OPT_VERSION},
    {"omit", required_argument, nullptr, OPT_OMIT},
    {"garbage", required_argument, nullptr, OPT_GARBAGE},
    {"json-array", required_argument, nullptr, OPT_JSON_ARRAY},
    {"hangup", required_argument, nullptr, OPT_HANGUP},
    {"expire-after", required_argument, nullptr, OPT_EXPIRE},
    {"tls10-only", no_argument, nullptr, OPT_TLS10},
    {"tls11-only", no_argument, nullptr, OPT_TLS11},
    {"foreign-404", no_argument, nullptr, OPT_FOREIGN_404},
    {"model", required_argument, nullptr, OPT_MODEL},
    {"firmware", required_argument, nullptr, OPT_FIRMWARE},
    {"firmware-number", required_argument, nullptr, OPT_FIRMWARE_NUMBER},
    {"hostname", required_argument, nullptr, OPT_HOSTNAME},
    {"serial", required_argument, nullptr, OPT_SERIAL},
    {"devices", required_argument, nullptr, OPT_DEVICES},
    {nullptr, 0, nullptr, 0}};

long parseNumber(const char* name, const char* text, long min, long max)
{
    char* end = nullptr;
    errno = 0;
    long value = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < min || value > max)
        throw std::invalid_argument(std::string("--") + name + ": '" + text + "' is not a number in " +
                                    std::to_string(min) + ".." + std::to_string(max));
    return value;
}

// "PREFIX:MS"; the last colon separates, so a prefix may hold colons of its own.
PathDelay parsePathDelay(const std::string& text)
{
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0)
        throw std::invalid_argument("--delay-path: '" + text + "' is not PREFIX:MS");
    return {text.substr(0, colon), static_cast<int>(parseNumber("delay-path", text.c_str() + colon + 1, 0, 600000))};
}

Family parseFamily(const std::string& text, bool& mixed)
{
    mixed = text == "mixed";
    if (text == "legacy" || mixed)
        return Family::Legacy;
    if (text == "token")
        return Family::Token;
    throw std::invalid_argument("--family: '" + text + "' is neither legacy, token nor mixed");
}

Identity defaultIdentity(Family family)
{
    if (family == Family::Legacy)
        return {"NVX-4200", "4.3.6", "912", "nas-legacy", "LGC0001234"};
    return {"ZEM-880", "5.1.2", "", "nas-token", "ZEM000987"};
}

// Identity overrides are kept aside until the family (and so the defaults) is known.
struct IdentityOverrides {
    const char* model = nullptr;
    const char* firmware = nullptr;
    const char* number = nullptr;
    const char* hostname = nullptr;
    const char* serial = nullptr;
};

void applyOverrides(Identity& identity, const IdentityOverrides& o)
{
    if (o.model) identity.model = o.model;
    if (o.firmware) identity.firmwareVersion = o.firmware;
    if (o.number) identity.firmwareNumber = o.number;
    if (o.hostname) identity.hostname = o.hostname;
    if (o.serial) identity.serial = o.serial;
}

bool applyFault(Faults& faults, int id, const char* arg)
{
    switch (id) {
    case OPT_DELAY: faults.delayMs = static_cast<int>(parseNumber("delay-ms", arg, 0, 600000)); return true;
    case OPT_DELAY_PATH: faults.pathDelays.push_back(parsePathDelay(arg)); return true;
    case OPT_OMIT: faults.omit.insert(arg); return true;
    case OPT_GARBAGE: faults.garbage.push_back(arg); return true;
    case OPT_JSON_ARRAY: faults.jsonArray.push_back(arg); return true;
    case OPT_HANGUP: faults.hangup.push_back(arg); return true;
    case OPT_EXPIRE: faults.expireAfter = static_cast<int>(parseNumber("expire-after", arg, 1, INT_MAX)); return true;
    case OPT_TLS10: faults.tls10Only = true; return true;
    case OPT_TLS11: faults.tls11Only = true; return true;
    case OPT_FOREIGN_404: return true;  // already the normal behaviour
    default: return false;
    }
}

bool applyIdentity(IdentityOverrides& o, int id, const char* arg)
{
    switch (id) {
    case OPT_MODEL: o.model = arg; return true;
    case OPT_FIRMWARE: o.firmware = arg; return true;
    case OPT_FIRMWARE_NUMBER: o.number = arg; return true;
    case OPT_HOSTNAME: o.hostname = arg; return true;
    case OPT_SERIAL: o.serial = arg; return true;
    default: return false;
    }
}

bool applyBasic(Config& config, bool& familySeen, int id, const char* arg)
{
    switch (id) {
    case OPT_FAMILY: config.family = parseFamily(arg, config.mixed); familySeen = true; return true;
    case OPT_DEVICES: config.devices = static_cast<int>(parseNumber("devices", arg, 1, 10000)); return true;
    case OPT_HOST: config.host = arg; return true;
    case OPT_PORT: config.port = static_cast<uint16_t>(parseNumber("port", arg, 0, 65535)); return true;
    case OPT_TLS: config.tls = true; return true;
    case OPT_CERT: config.cert = arg; return true;
    case OPT_KEY: config.key = arg; return true;
    case OPT_USER: config.user = arg; return true;
    case OPT_PASS: config.pass = arg; return true;
    case OPT_LOG: config.logFile = arg; return true;
    case OPT_STDIN_WATCH: config.stdinWatch = true; return true;
    case OPT_HELP: config.help = true; return true;
    case OPT_VERSION: config.version = true; return true;
    default: return false;
    }
}

void checkConsistency(const Config& config, bool familySeen)
{
    if (!familySeen)
        throw std::invalid_argument("--family is required (legacy, token or mixed)");
    if (config.mixed && config.devices == 0)
        throw std::invalid_argument("--family mixed needs --devices");
    if (config.port != 0 && config.port + std::max(config.devices, 1) - 1 > 65535)
        throw std::invalid_argument("--port + --devices runs past port 65535");
    if (config.cert.empty() != config.key.empty())
        throw std::invalid_argument("--cert and --key go together");
    if ((config.faults.tls10Only || config.faults.tls11Only) && !config.tls)
        throw std::invalid_argument(config.faults.tls10Only ? "--tls10-only needs --tls" : "--tls11-only needs --tls");
    if (config.faults.tls10Only && config.faults.tls11Only)
        throw std::invalid_argument("--tls10-only and --tls11-only exclude each other");
}

}  // namespace

Config parseCommandLine(int argc, char** argv)
{
    Config config;
    IdentityOverrides overrides;
    bool familySeen = false;
    optind = 1;
    opterr = 0;
    int id;
    while ((id = getopt_long(argc, argv, "", kLongOptions, nullptr)) != -1) {
        if (id == '?' || id == ':')
            throw std::invalid_argument(std::string("unknown option or missing value: ") + argv[optind - 1]);
        if (!applyBasic(config, familySeen, id, optarg) && !applyFault(config.faults, id, optarg))
            applyIdentity(overrides, id, optarg);
    }
    if (optind < argc)
        throw std::invalid_argument(std::string("unexpected argument: ") + argv[optind]);
    if (config.help || config.version)
        return config;
    checkConsistency(config, familySeen);
    config.identity = defaultIdentity(config.family);
    applyOverrides(config.identity, overrides);
    config.tokenIdentity = defaultIdentity(Family::Token);
    applyOverrides(config.tokenIdentity, overrides);
    return config;
}

Config deviceConfig(const Config& fleet, int index)
{
    Config device = fleet;
    if (fleet.mixed && index % 2 == 1) {
        device.family = Family::Token;
        device.identity = fleet.tokenIdentity;
    }
    if (fleet.port != 0)
        device.port = static_cast<uint16_t>(fleet.port + index);
    return device;
}

bool hasPrefix(const std::vector<std::string>& prefixes, const std::string& path)
{
    for (const auto& prefix : prefixes)
        if (path.compare(0, prefix.size(), prefix) == 0)
            return true;
    return false;
}

int answerDelayMs(const Faults& faults, const std::string& path)
{
    for (const auto& delay : faults.pathDelays)
        if (path.compare(0, delay.prefix.size(), delay.prefix) == 0)
            return faults.delayMs + delay.ms;
    return faults.delayMs;
}

const char* helpText()
{
    return R"(Usage: orvex-devsim --family legacy|token [--host 127.0.0.1] [--port 0] [--tls]
                    [--devices N [--family mixed]]
                    [--cert FILE --key FILE] [--user admin] [--pass secret]
                    [--log FILE] [--stdin-watch] [fault knobs...] [identity...]
       orvex-devsim --help | --version

Plays one remote storage device of the legacy (CGI/XML, session id) or the token
(OAuth/JSON, bearer token) firmware family, over HTTP or HTTPS (--tls; a self-signed
certificate is made at start unless --cert/--key are given; TLS 1.1 to 1.3, session
cache and tickets on). When listening it prints one line and flushes it:
  orvex-devsim listening on <http|https>://<host>:<port>
It runs until SIGTERM/SIGINT, or until standard input reaches EOF with --stdin-watch.
Exit status: 0 after a clean stop, 2 on a bad command line, 1 when it cannot start.

Options:
  --family legacy|token|mixed
                          firmware family to play (required; mixed only with --devices)
  --devices N             play N devices (1..10000) in this one process, each on its own
                          port (consecutive from --port, or each a free one with --port 0),
                          each with its own sessions and syslog settings; one ready line
                          per device, in device order, all printed once every port listens.
                          One thread accepts on every port, a shared pool of at most 64
                          threads answers. --family mixed: even devices legacy, odd token.
                          The other options apply to every device (--log: one shared file)
  --host ADDR             address to listen on (default 127.0.0.1)
  --port N                port; 0 picks a free one (default 0)
  --tls                   serve HTTPS
  --cert FILE --key FILE  PEM certificate and private key instead of a self-signed one
  --user NAME --pass PW   the one account the device accepts (default admin / secret)
  --log FILE              request log: one JSON object per request, flushed per line:
                          {"time":<epoch seconds>,"method":..,"target":..,
                           "headers":{<name as received>:<values joined by ", ">},"body":..}
  --stdin-watch           stop when standard input reaches EOF
  --help, --version       this text, or the version, and exit
  --model, --firmware, --firmware-number, --hostname, --serial TEXT
                          identity (legacy: NVX-4200, 4.3.6, 912, nas-legacy, LGC0001234;
                          token: ZEM-880, 5.1.2, -, nas-token, ZEM000987)

Fault knobs:
  --delay-ms N            wait N ms before every answer
  --delay-path PREFIX:MS  paths starting with PREFIX wait MS ms more (repeatable; the
                          first matching prefix counts), e.g. /orvex/v1/rsyslog/:800
  --omit NAME             drop XML node / JSON key NAME from every answer, at any depth
                          (repeatable)
  --garbage PREFIX        paths starting with PREFIX answer 200 text/plain non-XML/JSON text
  --json-array PREFIX     paths starting with PREFIX answer a JSON array: the normal JSON
                          answer wrapped in [ ], or [] where the answer is not JSON
  --hangup PREFIX         paths starting with PREFIX get the connection closed, no answer
  --expire-after SECONDS  sessions and tokens die SECONDS after sign-in: alive checks fail,
                          identity and syslog requests answer as not signed in (401)
  --tls10-only            accept TLS 1.0 only (with --tls)
  --tls11-only            accept TLS 1.1 only (with --tls), like old firmware behind a
                          server that offers nothing newer
  --foreign-404           accepted; always on: unknown paths, including the other
                          family's, get an HTML 404 page
  Knob prefixes are repeatable; hangup wins over garbage, garbage over json-array.

Legacy family (answers are XML, root VDocRoot):
  POST /cgi-bin/authLogin.cgi  body user=U&pwd=<base64 of password> (raw, not url-encoded)
       -> <authPassed>1</authPassed><authSid>SID</authSid>...  or <authPassed>0</authPassed>
  POST /cgi-bin/authLogin.cgi  body sid=SID -> authPassed 1 while SID lives, else 0
  GET  /cgi-bin/authLogin.cgi?sid=SID -> model/displayModelName, firmware/version,
       firmware/number, hostname (authPassed 0 only, for a dead SID)
  GET  /cgi-bin/management/manaRequest.cgi?sid=SID&subfunc=sysinfo
       -> func/ownContent/root/serial_number
  POST /cgi-bin/authLogout.cgi body sid=SID&logout=1 -> <logout>1</logout>, SID ends
  The session id is the "sid" parameter, or else the NAS_SID, NVX_SSID or NVX_SSL_SSID
  cookie.

Token family (answers are JSON; errors 400/401 {"error":..,"error_description":..}):
  GET /zem/oauth/token?grant_type=password&username=U&password=<base64, %-encoded>
      -> {"access_token","refresh_token","token_type":"bearer","expires_in","scope"}
      (grant_type=refresh_token&refresh_token=R renews a pair)
  GET /system/firmware/info (Bearer)
      -> {"model":{"display_name","server_name"},"firmware":{"version","build"}}
  GET /zem/system?sid=T (Bearer) -> {"model":{"serial_no","display_name"}}
  GET /zem/oauth/tokeninfo?access_token=T -> {"access_token":T,"expires_in",..} or 401
  GET /zem/oauth/logout?access_token=A&refresh_token=R -> {"success":true}, both end
  The token is taken from "Authorization: Bearer T", or else the "sid" parameter.
  Query values are percent-decoded; "+" stays "+" (base64 passwords).

Remote syslog REST, both families, under /orvex/v1/rsyslog/ (answers are JSON):
  credential: legacy session cookies or ?sid=, token Bearer or ?sid=; none, unknown or
  expired -> 401 {"success":false,"error":"not signed in"}
  GET    config         -> {"success":true,"server":{"enable","tcp_enable","tls_enable",
                            "udp_enable","tcp_port","udp_port"},"client":{"bsd","orvex"},
                            "clients":[<client>...]}
  PUT    server/config  body: any of the server keys; an EMPTY body means enable=false
                         -> {"success":true,"server":{...}}
  PUT    client/config  body {"bsd":bool,"orvex":bool} (either) -> {"success":true,"client":{...}}
  GET    client         (body ignored) -> {"success":true,"clients":[<client>...]}
  GET    client/ID      -> {"success":true,"client":<client>}
  POST   client         body {"address","mode","port","bsd","event","access","enable"}
                         -> {"success":true,"id":N}   (ids count up from 1)
  PUT    client/ID      body: any client keys -> {"success":true,"id":N}
  DELETE client/ID      -> {"success":true,"id":N}
  PUT    client/ID/enable, client/ID/disable -> {"success":true,"id":N,"enable":bool}
  POST   client/test    body {"mode","address","port","bsd"}: sends one syslog line
                         (bsd true: RFC 3164, else RFC 5424) over UDP (mode 3) or TCP
                         (modes 1 and 2; mode 2 (TLS) also sends plain TCP)
                         -> 200 {"success":true,"sent":true}
                         or 502 {"success":false,"sent":false,"error":"..."}
  <client> = {"id","address","mode"(1 TCP,2 TLS,3 UDP),"port","bsd","event","access","enable"}
  errors: 400 {"success":false,"error":"..."} bad body or value, 404 unknown id or path,
  405 wrong method.
)";
}

}  // namespace Orvex::Devsim
