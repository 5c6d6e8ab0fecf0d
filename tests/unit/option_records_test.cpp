#include "tests/support/option.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Orvex;
using namespace Orvex::Test;

namespace {

struct Case {
    std::string args;
    std::string expected;
};

template <class Record, class... Extra>
void expectOutcomes(const std::vector<Case>& cases, Extra... extra)
{
    for (const Case& c : cases)
        EXPECT_EQ(outcome<Record>(c.args, extra...), c.expected) << c.args;
}

}  // namespace

TEST(OptionContext, DefaultsStandUnlessSessionObjectHoldsTypedValues)
{
    struct { const char* args; const char* ip; const char* user; bool administrator; } cases[] = {
        {"{}", "127.0.0.1", "admin", true},
        {R"({"__SESSION__":"ip"})", "127.0.0.1", "admin", true},
        {R"({"__SESSION__":{"ip":1,"user":null,"administrators":0}})", "127.0.0.1", "admin", true},
        {R"({"__SESSION__":{"ip":"10.0.0.2","user":"bob","administrators":false}})", "10.0.0.2", "bob", false},
    };
    for (const auto& c : cases) {
        Option option = build<Option>(c.args);
        EXPECT_EQ(option.ip, c.ip) << c.args;
        EXPECT_EQ(option.user, c.user) << c.args;
        EXPECT_EQ(option.administrator, c.administrator) << c.args;
    }
    EXPECT_EQ(Option(nullptr).user, "admin");
}

TEST(OptionRules, IntegerRuleReadsLeadingDigitsAndNeverWrapsIntoRange)
{
    // 0 stands for "port incorrect".
    struct { const char* port; int32_t expected; } cases[] = {
        {"443", 443}, {R"("443")", 443}, {R"("443abc")", 443}, {"true", 1}, {"65535", 65535},
        {R"("abc")", 0}, {"443.0", 0}, {"null", 0}, {"false", 0}, {"[443]", 0}, {"{}", 0},
        {"0", 0}, {"65536", 0}, {"-1", 0}, {"4294967297", 0}, {"-4294967295", 0},
        {R"("4294967297")", 0}, {R"("99999999999999999999999")", 0}, {R"("-18446744073709551615")", 0},
    };
    for (const auto& c : cases) {
        std::string args = std::string(R"({"ip":"h","user":"u","pass":"p","secure":1,"port":)") + c.port + "}";
        if (c.expected == 0)
            EXPECT_EQ(outcome<SigninOption>(args), "port incorrect") << args;
        else
            EXPECT_EQ(build<SigninOption>(args).port, c.expected) << args;
    }
}

TEST(OptionRules, BooleanRuleIsTrueOnlyForTrueTrueTextAndPositiveIntegers)
{
    struct { const char* value; bool expected; } cases[] = {
        {"true", true}, {R"("TRUE")", true}, {R"("tRuE")", true}, {"1", true}, {"2", true},
        {"false", false}, {R"("yes")", false}, {R"("1")", false}, {"0", false}, {"-1", false},
        {"1.5", false}, {"null", false}, {"[true]", false}, {R"({"a":true})", false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(build<SyslogClientManagerOption>(std::string(R"({"bsd":)") + c.value + "}").bsd, c.expected)
            << c.value;
    EXPECT_TRUE(build<SyslogClientManagerOption>(R"({"orvex":"True"})").orvex);
    EXPECT_FALSE(build<SyslogClientManagerOption>("{}").orvex);
}

TEST(SigninOption, ChecksRunInOrderAndTheFirstFailureNamesItsKey)
{
    expectOutcomes<SigninOption>({
        {"{}", "ip missed"},
        {R"({"ip":1})", "ip incorrect"},
        {R"({"ip":"h","user":5})", "port missed"},
        {R"({"ip":"h","port":0,"user":5})", "port incorrect"},
        {R"({"ip":"h","port":443})", "user missed"},
        {R"({"ip":"h","port":443,"user":[]})", "user incorrect"},
        {R"({"ip":"h","port":443,"user":"u"})", "pass missed"},
        {R"({"ip":"h","port":443,"user":"u","pass":"p"})", "secure missed"},
        {R"({"ip":"h","port":443,"user":"u","pass":"p","secure":false})", ""},
    });
}

TEST(SigninOption, ReadsConvertedValuesAndTakesAnyPassWithoutTypeCheck)
{
    SigninOption option = build<SigninOption>(
        R"({"ip":"10.1.1.1","port":"8443","user":"root","pass":"s3cret","secure":"TRUE"})");
    EXPECT_EQ(option.ip, "10.1.1.1");
    EXPECT_EQ(option.port, 8443);
    EXPECT_EQ(option.user, "root");
    EXPECT_EQ(option.pass, "s3cret");
    EXPECT_TRUE(option.secure);
    EXPECT_EQ(build<SigninOption>(R"({"ip":"h","port":1,"user":"u","pass":{},"secure":0})").pass, "");
}

// Cases that never reach the port probe; the probe has its own isolated tests.
TEST(SyslogServerOption, ChecksSwitchesBeforePortsInOrder)
{
    const std::string both = "syslog cannot enable while both tcp/udp disabled";
    const std::string tls = "tls cannot enable while tcp disabled";
    expectOutcomes<SyslogServerOption>({
        {"{}", ""},
        {R"({"enable":true})", both},
        {R"({"enable":1,"tcp_enable":0,"udp_enable":"false"})", both},
        {R"({"tls_enable":"TRUE","tcp_enable":false})", tls},
        {R"({"enable":true,"tls_enable":true})", tls},
        {R"({"enable":true,"udp_enable":true})", ""},
        {R"({"tls_enable":false})", ""},
        {R"({"enable":true,"tcp_port":0})", both},
        {R"({"tcp_port":"x","udp_port":0})", "tcp_port incorrect"},
        {R"({"udp_port":65536})", "udp_port incorrect"},
        {R"({"udp_port":4294967297})", "udp_port incorrect"},
    });
    SyslogServerOption option = build<SyslogServerOption>("{}");
    EXPECT_FALSE(option.enable || option.tcp_enable || option.udp_enable);
    EXPECT_TRUE(option.tls_enable);
    EXPECT_EQ(option.tcp_port, 1514);
    EXPECT_EQ(option.udp_port, 1514);
}

TEST(SyslogClientOption, ChecksIdModePortAddressInOrder)
{
    expectOutcomes<SyslogClientOption>({
        {"{}", "id missed"},
        {R"({"id":0,"mode":4})", "id incorrect"},
        {R"({"id":"abc"})", "id incorrect"},
        {R"({"id":-1})", "mode missed"},  // read as 2^64-1, which is not 0
        {R"({"id":1})", "mode missed"},
        {R"({"id":1,"mode":4,"port":0})", "mode incorrect"},
        {R"({"id":1,"mode":3})", "port missed"},
        {R"({"id":1,"mode":3,"port":65536,"address":""})", "port incorrect"},
        {R"({"id":1,"mode":3,"port":514})", "address missed"},
        {R"({"id":1,"mode":3,"port":514,"address":""})", "address incorrect"},
        {R"({"id":1,"mode":3,"port":514,"address":7})", "address incorrect"},
        {R"({"id":"12","mode":"1","port":"514","address":"h"})", ""},
    }, true);
    expectOutcomes<SyslogClientOption>({
        {"{}", "mode missed"},
        {R"({"mode":1,"port":514,"address":"h"})", ""},
        {R"({"id":0,"mode":1,"port":514,"address":"h"})", "id incorrect"},
        {R"({"id":null,"mode":1,"port":514,"address":"h"})", "id incorrect"},
    }, false);
}

TEST(SyslogClientOption, ReadsValuesAndSwitchDefaults)
{
    SyslogClientOption option = build<SyslogClientOption>(
        R"({"id":9007199254740993,"address":"logs.example","mode":1,"port":"6514","bsd":"true","event":1})", true);
    EXPECT_EQ(option.id, 9007199254740993u);
    EXPECT_EQ(option.address, "logs.example");
    EXPECT_EQ(option.mode, 1);
    EXPECT_EQ(option.port, 6514);
    EXPECT_TRUE(option.bsd && option.event);
    EXPECT_FALSE(option.access || option.enable);
}

TEST(IdOption, RefusesMissingEmptyAndNonNumericIds)
{
    expectOutcomes<IdOption>({
        {"{}", "id missed"},
        {R"({"id":[]})", "id missed"},
        {R"({"id":0})", "id incorrect"},
        {R"({"id":null})", "id incorrect"},
        {R"({"id":"abc"})", "id incorrect"},
        {R"({"id":[1,1.5]})", "id incorrect"},
        {R"({"id":[true]})", "id incorrect"},
        {R"({"id":[[1]]})", "id incorrect"},
        {R"({"id":[1,0]})", "id incorrect"},
    }, true);
}

TEST(IdOption, RewritesASingleIdIntoAnArrayInTheCallersObject)
{
    struct { const char* args; const char* rewritten; int64_t id; } cases[] = {
        {R"({"id":7})", "[7]", 7},
        {R"({"id":"12"})", R"(["12"])", 12},
        {R"({"id":["12",13],"legacy":"true"})", R"(["12",13])", 12},
    };
    for (const auto& c : cases) {
        JsonRef args = parseJson(c.args);
        IdOption option(args.get(), true);
        JsonRef expected = parseJson(c.rewritten);
        EXPECT_TRUE(json_equal(json_object_get(args.get(), "id"), expected.get())) << c.args;
        ASSERT_EQ(option.ids.size(), json_array_size(expected.get())) << c.args;
        EXPECT_EQ(option.ids[0], c.id) << c.args;
    }
    EXPECT_EQ(build<IdOption>(R"({"id":["12",13],"legacy":"true"})", true).ids, (std::vector<int64_t>{12, 13}));
    EXPECT_TRUE(build<IdOption>(R"({"id":1,"legacy":"true"})", true).legacy);
}

TEST(IdOption, WithoutReadingOnlyTheCallerContextIsTaken)
{
    JsonRef args = parseJson(R"({"id":7,"legacy":true,"__SESSION__":{"user":"bob"}})");
    IdOption option(args.get(), false);
    EXPECT_TRUE(option.ids.empty());
    EXPECT_FALSE(option.legacy);
    EXPECT_EQ(option.context.user, "bob");
    EXPECT_TRUE(json_is_integer(json_object_get(args.get(), "id")));
}

TEST(DeviceOption, RequiresAStringMacAndChecksOptionalKeysInOrder)
{
    expectOutcomes<DeviceOption>({
        {"{}", "mac missed"},
        {R"({"mac":1})", "mac incorrect"},
        {R"({"mac":"","port":0})", ""},
        {R"({"mac":"m","pass":1,"ip":2})", "ip incorrect"},
        {R"({"mac":"m","pass":1,"user":"u"})", "pass incorrect"},
        {R"({"mac":"m","user":[]})", "user incorrect"},
        {R"({"mac":"m","port":65536})", "port incorrect"},
        {R"({"mac":"m","port":-1})", "port incorrect"},
    });
    DeviceOption device = build<DeviceOption>(
        R"({"mac":"00:11:22:33:44:55","ip":"10.0.0.9","user":"u","pass":"p","port":"443","secure":true})");
    EXPECT_EQ(device.mac, "00:11:22:33:44:55");
    EXPECT_EQ(device.ip + device.user + device.pass, "10.0.0.9up");
    EXPECT_EQ(device.port, 443);
    EXPECT_TRUE(device.secure);
    EXPECT_EQ(build<DeviceOption>(R"({"mac":"m"})").port, 0);
    expectOutcomes<MacOption>({{"{}", "mac missed"}, {R"({"mac":[]})", "mac incorrect"}, {R"({"mac":""})", ""}});
}

