#include <gtest/gtest.h>

#include <utility>

#include "common/exceptions.h"
#include "common/raii.h"
#include "methods/service_session.h"

namespace Orvex {
namespace {

using Handler = void (*)(zs_io*, json_t*&, int&);

// Runs a handler that must throw SessionException; json keeps what the handler left.
SessionException expectSessionError(Handler handler, JsonRef& json)
{
    json_t* raw = json.release();
    int fd = -1;
    try {
        handler(nullptr, raw, fd);
    } catch (const SessionException& e) {
        json.reset(raw);
        return e;
    } catch (...) {
    }
    json.reset(raw);
    ADD_FAILURE() << "no SessionException";
    return SessionException("", 0);
}

TEST(MethodHandlers, WithoutSessionTheyEmptyTheArgumentsAndThrowNotSignin)
{
    const std::pair<Handler, const char*> cases[] = {
        {&get_device_system_info, R"({"model":"x"})"},
        {&get_device_rsyslog_config, R"({"a":1})"},
        {&get_device_rsyslog_client, R"({"a":1})"},
        {&set_device_rsyslog_server_config, R"({"tcp_enable":true})"},
        {&set_device_rsyslog_client_config, R"({"bsd":true})"},
        {&set_device_rsyslog_client, R"({"id":2,"address":"a","mode":3,"port":514})"},
        {&add_device_rsyslog_client, R"({"address":"a","mode":3,"port":514})"},
        {&add_device_rsyslog_client_test, R"({"address":"a","mode":3,"port":514})"},
        {&del_device_rsyslog_client, R"({"id":7})"},
        {&set_device_rsyslog_client_enable, R"({"id":"7"})"},
        {&set_device_rsyslog_client_disable, R"({"id":[7,9]})"},
    };
    for (const auto& c : cases) {
        JsonRef json = JsonRef::adopt(json_loads(c.second, 0, nullptr));
        json_t* before = json.get();
        SessionException e = expectSessionError(c.first, json);
        EXPECT_EQ(e.message(), "not signin") << c.second;
        EXPECT_EQ(e.code(), 403);
        // The very argument object was emptied in place, to become the reply.
        EXPECT_EQ(json.get(), before);
        EXPECT_EQ(json_object_size(json.get()), 0u) << c.second;
    }
}

}  // namespace
}  // namespace Orvex
