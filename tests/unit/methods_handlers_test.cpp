#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "common/exceptions.h"
#include "common/raii.h"
#include "methods/service_session.h"

namespace Orvex {
namespace {

const std::string kUsage = "Usage: [General]\n\n[General]:\n   %SERVICE%.%GENERAL%\n\n";

std::vector<const char*> allTexts()
{
    return {__signin__, __signout__, __get_device_system_info__, __get_device_rsyslog_config__,
        __get_device_rsyslog_client__, __del_device_rsyslog_client__, __set_device_rsyslog_client_enable__,
        __set_device_rsyslog_client_disable__, __add_device_rsyslog_client_test__, __add_device_rsyslog_client__,
        __set_device_rsyslog_client__, __set_device_rsyslog_server_config__, __set_device_rsyslog_client_config__};
}

TEST(MethodHelp, MethodsWithTheSameOptionsShareOneOfSevenTexts)
{
    std::set<std::string> distinct;
    for (const char* text : allTexts())
        distinct.insert(text);
    EXPECT_EQ(distinct.size(), 7u);
    for (const char* text : {__signout__, __get_device_system_info__, __get_device_rsyslog_config__,
             __get_device_rsyslog_client__})
        EXPECT_STREQ(text, __signin__);
    EXPECT_STREQ(__set_device_rsyslog_client_enable__, __del_device_rsyslog_client__);
    EXPECT_STREQ(__set_device_rsyslog_client_disable__, __del_device_rsyslog_client__);
    EXPECT_EQ(std::string(__signin__), kUsage);
}

TEST(MethodHelp, OptionLinesAlignTheirDescriptionsAtColumn28)
{
    for (const char* text : allTexts()) {
        std::string help = text;
        ASSERT_EQ(help.compare(0, kUsage.size(), kUsage), 0) << help;
        if (help.size() == kUsage.size())
            continue;
        std::istringstream lines(help.substr(kUsage.size()));
        std::string line;
        std::getline(lines, line);
        EXPECT_EQ(line, "[Options]:");
        while (std::getline(lines, line)) {
            ASSERT_GT(line.size(), 27u) << line;
            EXPECT_EQ(line.compare(0, 3, "   "), 0) << line;
            std::string option = line.substr(3, line.find(' ', 3) - 3);
            EXPECT_NE(option.find("=("), std::string::npos) << line;
            EXPECT_EQ(line.find_first_not_of(' ', 3 + option.size()), 27u) << line;
        }
        EXPECT_EQ(help.back(), '\n');
    }
}

TEST(MethodHelp, AddingTextOmitsThePortDefaultThatChangingStates)
{
    std::string add = __add_device_rsyslog_client__, set = __set_device_rsyslog_client__;
    EXPECT_NE(add.find("   port=(int)              remote server port\n"), std::string::npos);
    EXPECT_NE(set.find("   port=(int)              remote server port (default 1514)\n"), std::string::npos);
    EXPECT_NE(set.find("[Options]:\n   id=(int)                config id\n   mode="), std::string::npos);
    EXPECT_NE(std::string(__set_device_rsyslog_server_config__).find("enable udo rsyslog server"), std::string::npos);
}

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
