// The remote-syslog REST pages under /orvex/v1/rsyslog/, the same for both families.
#include <cstdlib>

#include "tools/devsim/handler.h"
#include "tools/devsim/syslog_sender.h"

namespace Orvex::Devsim {

namespace {

constexpr char kPrefix[] = "/orvex/v1/rsyslog/";
const char* const kSessionCookies[] = {"NAS_SID", "NVX_SSID", "NVX_SSL_SSID"};

bool signedIn(const Device& device, const Exchange& exchange)
{
    if (device.sessions.alive(param(exchange.query, "sid")))
        return true;
    if (device.config.family == Family::Token)
        return device.sessions.alive(exchange.bearer);
    for (const char* name : kSessionCookies)
        if (device.sessions.alive(exchange.cookies.get(name, "")))
            return true;
    return false;
}

json_t* serverJson(const SyslogServer& s)
{
    return json_pack("{sbsbsbsbsisi}", "enable", s.enable, "tcp_enable", s.tcpEnable, "tls_enable", s.tlsEnable,
                     "udp_enable", s.udpEnable, "tcp_port", s.tcpPort, "udp_port", s.udpPort);
}

json_t* managerJson(const SyslogManager& m)
{
    return json_pack("{sbsb}", "bsd", m.bsd, "orvex", m.orvex);
}

json_t* clientJson(const SyslogClient& c)
{
    return json_pack("{sIsssisisbsbsbsb}", "id", static_cast<json_int_t>(c.id), "address", c.address.c_str(),
                     "mode", c.mode, "port", c.port, "bsd", c.bsd, "event", c.event, "access", c.access,
                     "enable", c.enable);
}

json_t* clientsJson(const std::vector<SyslogClient>& clients)
{
    json_t* list = json_array();
    for (const auto& c : clients)
        json_array_append_new(list, clientJson(c));
    return list;
}

Reply success(json_t* extra = nullptr)
{
    json_t* body = json_pack("{sb}", "success", 1);
    if (extra) {
        json_object_update(body, extra);
        json_decref(extra);
    }
    return Reply::json(200, body);
}

Reply successId(uint64_t id)
{
    return success(json_pack("{sI}", "id", static_cast<json_int_t>(id)));
}

// The readers leave `out` alone when the key is absent and return an error text ("" when
// the value is fine).

std::string readBool(json_t* object, const char* key, bool& out)
{
    json_t* value = json_object_get(object, key);
    if (!value)
        return "";
    if (json_is_boolean(value))
        out = json_is_true(value);
    else if (json_is_integer(value) && (json_integer_value(value) == 0 || json_integer_value(value) == 1))
        out = json_integer_value(value) == 1;
    else
        return std::string("\"") + key + "\" must be a boolean";
    return "";
}

std::string readInt(json_t* object, const char* key, int min, int max, int& out)
{
    json_t* value = json_object_get(object, key);
    if (!value)
        return "";
    if (!json_is_integer(value) || json_integer_value(value) < min || json_integer_value(value) > max)
        return std::string("\"") + key + "\" must be an integer in " + std::to_string(min) + ".." + std::to_string(max);
    out = static_cast<int>(json_integer_value(value));
    return "";
}

std::string readAddress(json_t* object, std::string& out)
{
    json_t* value = json_object_get(object, "address");
    if (!value)
        return "";
    if (!json_is_string(value) || json_string_length(value) == 0 || json_string_length(value) > 255)
        return "\"address\" must be a non-empty string of at most 255 characters";
    out = json_string_value(value);
    return "";
}

std::string missing(json_t* object, std::initializer_list<const char*> keys)
{
    for (const char* key : keys)
        if (!json_object_get(object, key))
            return std::string("\"") + key + "\" is missing";
    return "";
}

// The body as a JSON object, or an error text.
std::string parseBody(const std::string& body, JsonRef& out)
{
    out = JsonRef::adopt(json_loadb(body.data(), body.size(), 0, nullptr));
    if (!json_is_object(out.get()))
        return "body is not a JSON object";
    return "";
}

std::string readClient(json_t* object, SyslogClient& c)
{
    for (std::string error : {readAddress(object, c.address), readInt(object, "mode", 1, 3, c.mode),
                              readInt(object, "port", 1, 65535, c.port), readBool(object, "bsd", c.bsd),
                              readBool(object, "event", c.event), readBool(object, "access", c.access),
                              readBool(object, "enable", c.enable)})
        if (!error.empty())
            return error;
    return "";
}

std::string readServer(json_t* object, SyslogServer& s)
{
    for (std::string error : {readBool(object, "enable", s.enable), readBool(object, "tcp_enable", s.tcpEnable),
                              readBool(object, "tls_enable", s.tlsEnable), readBool(object, "udp_enable", s.udpEnable),
                              readInt(object, "tcp_port", 1, 65535, s.tcpPort),
                              readInt(object, "udp_port", 1, 65535, s.udpPort)})
        if (!error.empty())
            return error;
    return "";
}

using Page = Reply (*)(Device&, const Exchange&, uint64_t);

Reply getConfig(Device& device, const Exchange&, uint64_t)
{
    return success(json_pack("{sososo}", "server", serverJson(device.syslog.server()), "client",
                             managerJson(device.syslog.manager()), "clients", clientsJson(device.syslog.clients())));
}

bool blank(const std::string& text)
{
    return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

Reply putServer(Device& device, const Exchange& exchange, uint64_t)
{
    SyslogServer server = device.syslog.server();
    if (blank(exchange.body)) {
        // What the session daemon sends when it switches the server off.
        server.enable = false;
    } else {
        JsonRef body;
        std::string error = parseBody(exchange.body, body);
        if (error.empty())
            error = readServer(body.get(), server);
        if (!error.empty())
            return Reply::error(400, error);
    }
    device.syslog.setServer(server);
    return success(json_pack("{so}", "server", serverJson(server)));
}

Reply putManager(Device& device, const Exchange& exchange, uint64_t)
{
    SyslogManager manager = device.syslog.manager();
    JsonRef body;
    std::string error = parseBody(exchange.body, body);
    if (error.empty())
        error = readBool(body.get(), "bsd", manager.bsd);
    if (error.empty())
        error = readBool(body.get(), "orvex", manager.orvex);
    if (!error.empty())
        return Reply::error(400, error);
    device.syslog.setManager(manager);
    return success(json_pack("{so}", "client", managerJson(manager)));
}

Reply listClients(Device& device, const Exchange&, uint64_t)
{
    return success(json_pack("{so}", "clients", clientsJson(device.syslog.clients())));
}

Reply addClient(Device& device, const Exchange& exchange, uint64_t)
{
    SyslogClient client;
    JsonRef body;
    std::string error = parseBody(exchange.body, body);
    if (error.empty())
        error = missing(body.get(), {"address", "mode", "port"});
    if (error.empty())
        error = readClient(body.get(), client);
    if (!error.empty())
        return Reply::error(400, error);
    return successId(device.syslog.add(client));
}

Reply unknownClient(uint64_t id)
{
    return Reply::error(404, "no client with id " + std::to_string(id));
}

Reply getClient(Device& device, const Exchange&, uint64_t id)
{
    SyslogClient client;
    if (!device.syslog.client(id, client))
        return unknownClient(id);
    return success(json_pack("{so}", "client", clientJson(client)));
}

Reply putClient(Device& device, const Exchange& exchange, uint64_t id)
{
    SyslogClient client;
    if (!device.syslog.client(id, client))
        return unknownClient(id);
    JsonRef body;
    std::string error = parseBody(exchange.body, body);
    if (error.empty())
        error = readClient(body.get(), client);
    if (!error.empty())
        return Reply::error(400, error);
    client.id = id;
    if (!device.syslog.replace(client))
        return unknownClient(id);
    return successId(id);
}

Reply deleteClient(Device& device, const Exchange&, uint64_t id)
{
    if (!device.syslog.remove(id))
        return unknownClient(id);
    return successId(id);
}

Reply switchClient(Device& device, uint64_t id, bool enable)
{
    SyslogClient client;
    if (!device.syslog.client(id, client))
        return unknownClient(id);
    client.enable = enable;
    if (!device.syslog.replace(client))
        return unknownClient(id);
    return success(json_pack("{sIsb}", "id", static_cast<json_int_t>(id), "enable", enable));
}

Reply enableClient(Device& device, const Exchange&, uint64_t id) { return switchClient(device, id, true); }
Reply disableClient(Device& device, const Exchange&, uint64_t id) { return switchClient(device, id, false); }

Reply testClient(Device& device, const Exchange& exchange, uint64_t)
{
    SyslogClient c;
    JsonRef body;
    std::string error = parseBody(exchange.body, body);
    if (error.empty())
        error = missing(body.get(), {"mode", "address", "port"});
    if (error.empty())
        error = readClient(body.get(), c);
    if (!error.empty())
        return Reply::error(400, error);
    std::string failure = sendSyslogTest({c.mode, c.address, c.port, c.bsd}, device.config.identity.hostname);
    if (!failure.empty())
        return Reply::json(502, json_pack("{sbsbss}", "success", 0, "sent", 0, "error", failure.c_str()));
    return success(json_pack("{sb}", "sent", 1));
}

struct Route {
    const char* pattern;  // segments; "#" matches a numeric id
    const char* method;
    Page page;
};

const Route kRoutes[] = {
    {"config", "GET", getConfig},          {"server/config", "PUT", putServer},
    {"client/config", "PUT", putManager},  {"client", "GET", listClients},
    {"client", "POST", addClient},         {"client/test", "POST", testClient},
    {"client/#", "GET", getClient},        {"client/#", "PUT", putClient},
    {"client/#", "DELETE", deleteClient},  {"client/#/enable", "PUT", enableClient},
    {"client/#/disable", "PUT", disableClient},
};

bool parseId(const std::string& text, uint64_t& id)
{
    if (text.empty() || text.size() > 19 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    id = std::strtoull(text.c_str(), nullptr, 10);
    return true;
}

bool matches(const std::string& pattern, const std::string& rest, uint64_t& id)
{
    size_t hash = pattern.find('#');
    if (hash == std::string::npos)
        return pattern == rest;
    std::string head = pattern.substr(0, hash), tail = pattern.substr(hash + 1);
    if (rest.size() < head.size() + tail.size() || rest.compare(0, head.size(), head) != 0 ||
        rest.compare(rest.size() - tail.size(), tail.size(), tail) != 0)
        return false;
    return parseId(rest.substr(head.size(), rest.size() - head.size() - tail.size()), id);
}

}  // namespace

Reply rsyslogPage(Device& device, const Exchange& exchange)
{
    if (!signedIn(device, exchange))
        return Reply::error(401, "not signed in");
    std::string rest = exchange.path.compare(0, sizeof kPrefix - 1, kPrefix) == 0
                           ? exchange.path.substr(sizeof kPrefix - 1) : "";
    bool pathKnown = false;
    for (const Route& route : kRoutes) {
        uint64_t id = 0;
        if (!matches(route.pattern, rest, id))
            continue;
        pathKnown = true;
        if (exchange.method == route.method)
            return route.page(device, exchange, id);
    }
    if (pathKnown)
        return Reply::error(405, "method " + exchange.method + " not allowed on " + exchange.path);
    return Reply::error(404, "no such resource: " + exchange.path);
}

}  // namespace Orvex::Devsim
