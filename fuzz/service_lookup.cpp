// The method tree looked up with arbitrary text, both as a plain name and as a path. A
// lookup either finds one of the registered endpoints, with only parameter names added to
// the arguments (as strings), or throws ResourceException (404 unknown, 400 bad escape).
#include "common/exceptions.h"
#include "common/raii.h"
#include "fuzz/fuzz_support.h"
#include "service/service.h"

#include <jansson.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <utility>

using namespace Orvex;

namespace {

void unused(zs_io*, json_t*&, int&) {}

const char* const kPlainNames[] = {"get_rsyslog_config", "set_rsyslog_client", "del_rsyslog_client", "call_device"};
const char* const kParameters[] = {"id", "mac", "method"};

// Literals and parameters side by side at the same depth, nested parameters, and plain
// names that are also the first segment of a path.
void registerEndpoints()
{
    const std::pair<const char*, const char*> entries[] = {
        {"get_rsyslog_config", "rsyslog/config"}, {"set_rsyslog_client", "rsyslog/client/{id}"},
        {"", "rsyslog/client/{id}/enable"}, {"", "rsyslog/client/{id}/disable"}, {"", "rsyslog/client/test"},
        {"del_rsyslog_client", "rsyslog/client/{id}/delete"}, {"call_device", "device/{mac}/call/{method}"},
        {"", "get_rsyslog_config/{id}"},
    };
    for (const auto& [general, restful] : entries)
        Service::addEndpoint(Service::WORKER_THREAD, TicktockQueue::TICK, general, restful,
            Poco::SharedPtr<Endpoint>(new Endpoint{true, "usage", nullptr, &unused, TicktockQueue::TICK}));
}

Service& service()
{
    static bool registered = (registerEndpoints(), true);
    (void)registered;
    return Service::getInstance();
}

bool registered(const Endpoint* endpoint)
{
    const auto& all = service().getEndpoints();
    return std::any_of(all.begin(), all.end(), [&](const Poco::SharedPtr<Endpoint>& e) { return e.get() == endpoint; });
}

// Unknown (404) or a bad escape (400), nothing else.
void checkFailure(const ResourceException& e) { FUZZ_CHECK(e.code() == 404 || e.code() == 400, e.message().c_str()); }

void plainLookup(const std::string& name)
{
    try {
        const Endpoint* endpoint = service().findEndpoint(name.c_str());
        FUZZ_CHECK(registered(endpoint), "found endpoint is registered");
        bool known = name == "help" ||
            std::find(std::begin(kPlainNames), std::end(kPlainNames), name) != std::end(kPlainNames);
        FUZZ_CHECK(known, "only registered names are found");
    } catch (const ResourceException& e) {
        checkFailure(e);
    }
}

void pathLookup(const std::string& path)
{
    JsonRef args = JsonRef::adopt(json_pack("{s:s}", "keep", "me"));
    json_t* raw = args.get();
    try {
        const Endpoint* endpoint = service().findEndpoint(path.c_str(), raw);
        FUZZ_CHECK(registered(endpoint), "found endpoint is registered");
    } catch (const ResourceException& e) {
        checkFailure(e);
    }
    FUZZ_CHECK(raw == args.get(), "arguments object is kept");
    const char* key;
    json_t* value;
    json_object_foreach(raw, key, value) {
        std::string name = key;
        bool parameter = std::find(std::begin(kParameters), std::end(kParameters), name) != std::end(kParameters);
        FUZZ_CHECK(name == "keep" || parameter, "only parameter names are added");
        FUZZ_CHECK(json_is_string(value), "parameters are strings");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // Method names arrive as C strings: text after a zero byte never reaches the lookup.
    std::string text(reinterpret_cast<const char*>(data), size);
    text.resize(std::strlen(text.c_str()));
    plainLookup(text);
    pathLookup(text);
    return 0;
}
