// The HTTP side of the simulated device: one handler per request (made by the factory),
// which logs the request, applies the fault knobs and routes it to the legacy, token or
// remote-syslog pages. Handlers run on the server's pool threads; they share only the
// Device, whose members are thread-safe.
#pragma once

#include <Poco/Net/HTTPRequestHandler.h>
#include <Poco/Net/HTTPRequestHandlerFactory.h>
#include <Poco/Net/NameValueCollection.h>

#include <string>
#include <utility>
#include <vector>

#include "tools/devsim/options.h"
#include "tools/devsim/reply.h"
#include "tools/devsim/request_log.h"
#include "tools/devsim/state.h"

namespace Orvex::Devsim {

// One simulated device. The request log may be shared by several devices.
struct Device {
    Device(const Config& c, RequestLog& l) : config(c), sessions(c.faults.expireAfter), log(l) {}
    const Config config;
    Sessions sessions;
    SyslogStore syslog;
    RequestLog& log;
};

using Params = std::vector<std::pair<std::string, std::string>>;

// One request, parsed once for the page functions.
struct Exchange {
    std::string method;
    std::string path;
    Params query;                        // percent-decoded, "+" kept
    std::string body;
    Poco::Net::NameValueCollection cookies;
    std::string bearer;                  // token of "Authorization: Bearer T", or empty
};

// First value of `name`, or "" (found tells whether it was there at all).
std::string param(const Params& params, const std::string& name, bool* found = nullptr);
// "a=b&c=d" split on '&' then on the first '='; with decode, values are percent-decoded.
Params splitParams(const std::string& text, bool decode);

// The pages: each answers one exchange; paths it does not serve get the HTML 404 page
// (rsyslogPage: a JSON 404). They throw only on internal errors (answered 500).
Reply legacyPage(Device& device, const Exchange& exchange);
Reply tokenPage(Device& device, const Exchange& exchange);
Reply rsyslogPage(Device& device, const Exchange& exchange);

// Ends every wait of --delay-ms at once, and makes later ones not wait: for a stop.
void cutDelays();

class HandlerFactory : public Poco::Net::HTTPRequestHandlerFactory {
public:
    explicit HandlerFactory(Device& device) : device_(device) {}
    Poco::Net::HTTPRequestHandler* createRequestHandler(const Poco::Net::HTTPServerRequest&) override;

private:
    Device& device_;
};

}  // namespace Orvex::Devsim
