// The order in which a session's calls reach its device, as callers and the device see it
// through the real daemon, bus and simulator: a call that finds the session idle runs at
// once and leaves the turn alone, the calls queued behind it are taken reads and changes
// in turn, and a change whose caller hung up while it waited still reaches the device.
#include <future>
#include <memory>
#include <thread>

#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

const std::string kRsyslog = "/orvex/v1/rsyslog/";

struct Step {
    const char* method;
    const char* args;
    const char* request;  // what the device sees: "METHOD path"
};

const Step kDelete1{"del_device_rsyslog_client", R"({"id":1})", "DELETE /orvex/v1/rsyslog/client/1"};
const Step kEnable2{"set_device_rsyslog_client_enable", R"({"id":2})", "PUT /orvex/v1/rsyslog/client/2/enable"};
const Step kDisable3{"set_device_rsyslog_client_disable", R"({"id":3})", "PUT /orvex/v1/rsyslog/client/3/disable"};
const Step kConfig{"get_device_rsyslog_config", "{}", "GET /orvex/v1/rsyslog/config"};
const Step kClients{"get_device_rsyslog_client", "{}", "GET /orvex/v1/rsyslog/client"};

class CallOrder : public IsolatedTest {
protected:
    // A token device over HTTP whose remote-syslog answers wait holdMs.
    void signIn(int holdMs, const std::string& prefix = kRsyslog)
    {
        session_ = std::make_unique<SignedIn>("token", false, "00:11:22:33:44:55",
            std::vector<std::string>{"--delay-path", prefix + ":" + std::to_string(holdMs)});
        ASSERT_EQ(json_integer_value(json_object_get(session_->signin.get(), "error_code")), 0);
    }

    // The sign-in's reply goes out before the worker looks for its next call; a call sent
    // in between would be queued, not handed over. Give the worker a moment to wait.
    static void letTheWorkerWait() { std::this_thread::sleep_for(300ms); }

    // Sends the calls 80 ms apart, each from a caller of its own that waits until the
    // daemon has read its call, then waits for every reply. The first must still be
    // running when the last is sent, or the scenario did not happen.
    void sendApart(const std::vector<Step>& steps)
    {
        const std::string address = busAddress(session_->daemon.mac());
        std::vector<std::unique_ptr<SentCall>> calls;
        for (const Step& step : steps) {
            if (!calls.empty())
                std::this_thread::sleep_for(80ms);
            calls.push_back(std::make_unique<SentCall>(address, step.method, step.args));
            ASSERT_TRUE(calls.back()->read()) << step.method << " was not read";
        }
        waitFor([this] { return !session_->device.requestsTo("", kRsyslog).empty(); });
        EXPECT_EQ(session_->device.requestsTo("", kRsyslog).size(), 1u)
            << "the first call ended before the last was sent";
        for (size_t i = 0; i < calls.size(); ++i) {
            BusReply reply = calls[i]->reply();
            EXPECT_EQ(reply.rc, 0) << steps[i].method;
            EXPECT_TRUE(json_is_object(reply.json().get())) << steps[i].method << ": " << reply.body;
        }
    }

    // The remote-syslog requests the device saw, in the order they came.
    std::vector<std::string> deviceSaw() const
    {
        std::vector<std::string> seen;
        for (const Logged& request : session_->device.requestsTo("", kRsyslog))
            seen.push_back(request.method + " " + request.target);
        return seen;
    }

    static std::vector<std::string> requests(const std::vector<Step>& steps)
    {
        std::vector<std::string> out;
        for (const Step& step : steps)
            out.push_back(step.request);
        return out;
    }

    std::unique_ptr<SignedIn> session_;
};

TEST_F(CallOrder, ACallThatFindsTheSessionIdleRunsAtOnceAndLeavesTheTurnToTheReadsQueuedBehindIt)
{
    signIn(800);
    letTheWorkerWait();
    sendApart({kDelete1, kEnable2, kDisable3, kConfig, kClients});
    EXPECT_EQ(deviceSaw(), requests({kDelete1, kConfig, kEnable2, kClients, kDisable3}));
}

TEST_F(CallOrder, ReadsThatArriveFirstAlternateWithTheChangesQueuedAfterThem)
{
    signIn(800);
    letTheWorkerWait();
    const Step config2{"get_device_rsyslog_config", R"({"again":true})", "GET /orvex/v1/rsyslog/config"};
    sendApart({kConfig, kClients, config2, kDelete1, kEnable2});
    EXPECT_EQ(deviceSaw(), requests({kConfig, kClients, kDelete1, config2, kEnable2}));
}

TEST_F(CallOrder, AQueuedChangeWhoseCallerHungUpStillReachesTheDeviceAndNothingIsWrittenBack)
{
    signIn(1000, kRsyslog + "config");
    auto reading = std::async(std::launch::async, [this] { return session_->daemon.call(kConfig.method); });
    ASSERT_TRUE(waitFor([this] { return !session_->device.requestsTo("GET", kRsyslog + "config").empty(); }));

    Pipe replyTo;
    ASSERT_TRUE(callAndHangUp(busAddress(session_->daemon.mac()), "set_device_rsyslog_client_disable",
        R"({"id":2})", replyTo.writeEnd()));
    EXPECT_EQ(reading.get().rc, 0);
    EXPECT_TRUE(waitFor([this] { return !session_->device.requestsTo("PUT", kRsyslog + "client/2/disable").empty(); }))
        << "the change of a caller that hung up never reached the device";
    EXPECT_EQ(replyTo.readAll(), "") << "a reply was written for a caller that had gone";
    // The session serves on.
    EXPECT_TRUE(json_is_true(json_object_get(session_->daemon.call(kClients.method).json().get(), "success")));
}

}  // namespace
}  // namespace Orvex::Test
