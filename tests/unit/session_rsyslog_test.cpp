// The ten remote-syslog operations before sign-in, and the server switch that faults. What
// they send and answer when signed in is checked end to end (tests/e2e/methods_test.cpp).
#include "tests/support/session.h"

#include <functional>

using namespace Orvex;
using Orvex::Test::Devsim;

namespace {

using Operation = std::function<void(Session&, json_t*&)>;

JsonRef args(const char* text)
{
    return Orvex::Test::parseJson(text);
}

template <class Record, class... Extra>
Operation with(const char* text, void (Session::*op)(json_t*&, Record&), Extra... extra)
{
    return [=](Session& s, json_t*& json) {
        JsonRef a = args(text);
        Record option(a.get(), extra...);
        (s.*op)(json, option);
    };
}

const char* kClient = R"({"id":1,"address":"127.0.0.1","mode":3,"port":5514})";

std::vector<std::pair<const char*, Operation>> allOperations()
{
    return {
        {"add", with(kClient, &Session::addRsyslogClient, false)},
        {"set", with(kClient, &Session::setRsyslogClient, true)},
        {"list", [](Session& s, json_t*& j) { s.getRsyslogClient(j); }},
        {"disable", with(R"({"id":1})", &Session::setRsyslogClientDisable, true)},
        {"enable", with(R"({"id":1})", &Session::setRsyslogClientEnable, true)},
        {"test", with(kClient, &Session::addRsyslogClientTest, false)},
        {"manager", with(R"({"bsd":true})", &Session::setRsyslogClientConfig)},
        {"server", with(R"({"tcp_enable":true})", &Session::setRsyslogServerConfig)},
        {"config", [](Session& s, json_t*& j) { s.getRsyslogConfig(j); }},
        {"delete", with(R"({"id":1})", &Session::delRsyslogClient, true)},
    };
}

}  // namespace

TEST(SessionRsyslogState, EveryOperationRefusesBeforeSigninAndSendsNothing)
{
    Devsim device("token", false);
    Session& session = Session::getInstance();
    session.reset();
    for (const auto& [name, run] : allOperations()) {
        JsonRef owner = JsonRef::adopt(json_object());
        json_t* json = owner.get();
        EXPECT_EQ(Orvex::Test::sessionFailure([&] { run(session, json); }), "not signin 403") << name;
    }
    EXPECT_TRUE(device.requests().empty());
}

// The server switch has no key of its own in the body's pack format: switching the server
// on faults inside the packing, before anything is sent.
TEST(SessionRsyslogState, EnabledServerConfigFaultsBeforeSending)
{
    Devsim device("token", false);
    Orvex::Test::signin(device);
    size_t before = device.requests().size();
    int status = Orvex::Test::inChild(
        [] {
            try {
                JsonRef a = args(R"({"enable":true,"tcp_enable":true,"udp_enable":false})");
                SyslogServerOption option(a.get());
                json_t* json = json_object();
                Session::getInstance().setRsyslogServerConfig(json, option);
            } catch (...) {
                _exit(3);  // an exception is not the fault looked for
            }
        },
        true);
    // A signal, or the exit status a sanitizer gives after reporting the fault.
    EXPECT_TRUE(status != 0 && status != 3) << "exit status " << status;
    EXPECT_TRUE(device.requestsFrom(before).empty());
}
