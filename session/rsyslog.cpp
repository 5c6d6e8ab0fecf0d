// The device's remote-syslog settings over its REST paths: one call per operation, the
// device's JSON object answer handed back as it stands.
#include "session/session.h"

#include "common/misc.h"
#include "common/raii.h"
#include "common/trace.h"
#include "session/buffer.h"
#include "zservice/channel.h"

#include <Poco/URI.h>
#include <Poco/Net/HTTPRequest.h>

namespace Orvex {

using Poco::Net::HTTPRequest;
using session_detail::bufferText;
using session_detail::dumpInto;
using session_detail::replaceContent;

namespace {

std::string target(const std::string& path)
{
    return Poco::URI(path).getPathAndQuery();
}

std::string targetWithSid(const std::string& path, const std::string& sid)
{
    Poco::URI uri(path);
    uri.addQueryParameter("sid", sid);
    return uri.getPathAndQuery();
}

std::string clientTarget(uint64_t id, const char* suffix = "")
{
    return target(strformat("/orvex/v1/rsyslog/client/%lu%s", static_cast<unsigned long>(id), suffix));
}

uint64_t firstId(const IdOption& option)
{
    if (option.ids.empty())
        throw OptionException("id missed", 400);
    return static_cast<uint64_t>(option.ids.front());
}

// Dumps into a fresh buffer with the system's flags and releases the value at once.
std::string packed(json_t* value)
{
    JsonRef owner = JsonRef::adopt(value);
    ZsIoPtr buffer = makeZsIo();
    dumpInto(owner.get(), buffer.get());
    return bufferText(buffer.get());
}

std::string packedClient(const SyslogClientOption& o)
{
    return packed(json_pack("{ss si si sb sb sb sb}", "address", o.address.c_str(), "mode", o.mode, "port", o.port,
                            "bsd", o.bsd, "event", o.event, "access", o.access, "enable", o.enable));
}

}  // namespace

void Session::syslogStep(json_t* json, const char* operation, const std::string& method,
                         const std::function<std::string()>& target, const std::function<std::string()>& body)
{
    Lock lock(mutex);
    requireSignin();
    std::string path = target();
    std::string answer = body ? request(method, path, body(), true) : request(method, path);
    if (trace::enabled())
        trace::writef(trace::baseName(__FILE__), __LINE__, operation, "[Session] %s", redacted(answer).c_str());
    replaceContent(json, answer.data(), answer.size());
}

void Session::getRsyslogConfig(json_t*& json)
{
    ORVEX_TRACE();
    syslogStep(json, __PRETTY_FUNCTION__, HTTPRequest::HTTP_GET, [] { return target("/orvex/v1/rsyslog/config"); });
}

void Session::setRsyslogClientConfig(json_t*& json, SyslogClientManagerOption& option)
{
    ORVEX_TRACE();
    syslogStep(json, __PRETTY_FUNCTION__, HTTPRequest::HTTP_PUT,
               [] { return target("/orvex/v1/rsyslog/client/config"); },
               [&] { return packed(json_pack("{sb sb}", "bsd", option.bsd, "orvex", option.orvex)); });
}

// The pack format and its argument list are the established device contract and stay as
// they are: the server switch has no key of its own, so jansson takes the switch's value
// for that key. With the switch off the pack cannot build an object and the PUT goes out
// with an empty body; the pack is not even reached then, because jansson 2.14 would read
// on past the missing key and fault. With the switch on the pack faults, as it always did.
void Session::setRsyslogServerConfig(json_t*& json, SyslogServerOption& option)
{
    ORVEX_TRACE();
    syslogStep(json, __PRETTY_FUNCTION__, HTTPRequest::HTTP_PUT,
               [&] { return targetWithSid("/orvex/v1/rsyslog/server/config", sid); },
               [&] {
                   if (!option.enable)
                       return std::string();
                   return packed(json_pack("{sb sb sb sb si si}enable", option.enable, "tcp_enable",
                                           option.tcp_enable, "tls_enable", option.tls_enable, "udp_enable",
                                           option.udp_enable, "tcp_port", option.tcp_port, "udp_port",
                                           option.udp_port));
               });
}

void Session::getRsyslogClient(json_t*& json)
{
    ORVEX_TRACE();
    syslogStep(json, __PRETTY_FUNCTION__, HTTPRequest::HTTP_GET, [] { return target("/orvex/v1/rsyslog/client"); },
               [&] { return packed(json_incref(json)); });
}

void Session::setRsyslogClient(json_t*& json, SyslogClientOption& option)
{
    ORVEX_TRACE();
    syslogStep(json, __PRETTY_FUNCTION__, HTTPRequest::HTTP_PUT, [&] { return clientTarget(option.id); },
               [&] { return packedClient(option); });
}

void Session::addRsyslogClient(json_t*& json, SyslogClientOption& option)
{
    ORVEX_TRACE();
    syslogStep(json, __PRETTY_FUNCTION__, HTTPRequest::HTTP_POST,
               [&] { return targetWithSid("/orvex/v1/rsyslog/client", sid); }, [&] { return packedClient(option); });
}

void Session::delRsyslogClient(json_t*& json, IdOption& option)
{
    ORVEX_TRACE();
    syslogStep(json, __PRETTY_FUNCTION__, HTTPRequest::HTTP_DELETE, [&] { return clientTarget(firstId(option)); });
}

void Session::setRsyslogClientEnable(json_t*& json, IdOption& option)
{
    ORVEX_TRACE();
    syslogStep(json, __PRETTY_FUNCTION__, HTTPRequest::HTTP_PUT,
               [&] { return clientTarget(firstId(option), "/enable"); });
}

void Session::setRsyslogClientDisable(json_t*& json, IdOption& option)
{
    ORVEX_TRACE();
    syslogStep(json, __PRETTY_FUNCTION__, HTTPRequest::HTTP_PUT,
               [&] { return clientTarget(firstId(option), "/disable"); });
}

void Session::addRsyslogClientTest(json_t*& json, SyslogClientOption& option)
{
    ORVEX_TRACE();
    syslogStep(json, __PRETTY_FUNCTION__, HTTPRequest::HTTP_POST,
               [] { return target("/orvex/v1/rsyslog/client/test"); },
               [&] {
                   return packed(json_pack("{si ss si sb}", "mode", option.mode, "address", option.address.c_str(),
                                           "port", option.port, "bsd", option.bsd));
               });
}

}  // namespace Orvex
