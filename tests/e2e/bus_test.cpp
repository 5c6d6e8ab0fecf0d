// How replies travel: through the caller's descriptor, to a caller that has gone, and the
// plain-text help through the command-line bus client.
#include <fcntl.h>

#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

const std::string kHeader = "Content-Type: application/json; charset=utf-8\r\n\r\n";

// Calls a method with a fresh file as the reply descriptor; returns what landed in it.
std::string callWithDescriptor(const std::string& mac, const std::string& method, const std::string& args,
    BusReply& reply)
{
    TempDir dir;
    Orvex::UniqueFd fd(open(dir.file("reply").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    reply = sessionCall(mac, method, args, fd.get());
    return readFile(dir.file("reply"));
}

TEST(BusReplies, ReplyGoesToThePassedDescriptorBehindItsHeader)
{
    ORVEX_REQUIRE_ISOLATION();
    SignedIn s("token", false);
    BusReply reply;
    std::string written = callWithDescriptor(s.daemon.mac(), "get_device_system_info", "{}", reply);
    ASSERT_EQ(reply.rc, 0);
    EXPECT_EQ(reply.body, "");
    ASSERT_EQ(written.compare(0, kHeader.size(), kHeader), 0) << written;
    std::string json = written.substr(kHeader.size());
    EXPECT_EQ(json.find_first_of(" \n"), std::string::npos) << json;
    JsonRef parsed = parseJson(json);
    EXPECT_STREQ(json_string_value(json_object_get(parsed.get(), "model")), "ZEM-880") << json;

    // Error replies take the same way.
    written = callWithDescriptor(s.daemon.mac(), "set_device_rsyslog_client", "{}", reply);
    EXPECT_EQ(written, kHeader + R"({"error_code":400,"error_message":"id missed"})");
}

TEST(BusReplies, CallerThatHangsUpStillGetsTheDeviceChanged)
{
    ORVEX_REQUIRE_ISOLATION();
    SignedIn s("legacy", true, "00:11:22:33:44:55", {"--delay-ms", "300"});
    Orvex::UniqueFd caller(rawConnect(busAddress(s.daemon.mac())));
    ASSERT_TRUE(caller);
    ASSERT_TRUE(sendAll(caller.get(), callFrame("add_device_rsyslog_client", R"({"address":"192.0.2.20","mode":3,"port":514})")));
    // Hang up while the device is still working on the request.
    ASSERT_TRUE(waitFor([&] { return !s.device.requestsTo("POST", "/orvex/v1/rsyslog/client?").empty(); }));
    caller.reset();
    JsonRef list = s.daemon.call("get_device_rsyslog_client").json();
    json_t* clients = json_object_get(list.get(), "clients");
    ASSERT_EQ(json_array_size(clients), 1u) << dump(list.get());
    EXPECT_STREQ(json_string_value(json_object_get(json_array_get(clients, 0), "address")), "192.0.2.20");
    EXPECT_TRUE(s.daemon.process().running());
}

TEST(BusReplies, HelpThroughTheBusClientListsEveryMethod)
{
    ORVEX_REQUIRE_ISOLATION();
    const std::string mac = "00:11:22:33:44:55";
    Daemon daemon(mac);
    ASSERT_TRUE(daemon.ready()) << daemon.log();

    RunResult all = run({zsCallBinary(), busAddress(mac), "help"});
    ASSERT_EQ(all.status, 0) << all.err;
    std::string listing = "\n[Method|Resource]:\n   Resource also be defined in method, all avaiable method are:\n\n";
    for (const char* name : {"add_device_rsyslog_client", "del_device_rsyslog_client", "get_device_rsyslog_client",
             "set_device_rsyslog_client", "set_device_rsyslog_client_config", "set_device_rsyslog_client_disable",
             "set_device_rsyslog_client_enable", "add_device_rsyslog_client_test", "get_device_rsyslog_config",
             "set_device_rsyslog_server_config", "get_device_system_info", "signin", "signout"})
        listing += std::string("   ") + name + "\n";
    // The texts themselves are pinned where they are written (static_asserts).
    EXPECT_EQ(all.out.substr(0, listing.size() + 1), listing + "\n");
}

}  // namespace
}  // namespace Orvex::Test
