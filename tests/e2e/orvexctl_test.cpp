// The front end: starting, calling and stopping per-device processes, and its errors.
#include <sys/stat.h>

#include <filesystem>

#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

const std::string kMac = "00:11:22:33:44:55";

class Orvexctl : public ::testing::Test {
protected:
    void SetUp() override
    {
        ORVEX_REQUIRE_ISOLATION();
        // The front end launches the daemon from the (private) /usr/local/sbin.
        std::filesystem::copy_file(daemonBinary(), Orvex::Paths::kDaemonPath,
            std::filesystem::copy_options::overwrite_existing);
        chmod(Orvex::Paths::kDaemonPath, 0755);
    }
    void TearDown() override { killSessions(); }

    static RunResult ctl(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
        const std::string& input = "")
    {
        std::vector<std::string> argv = {ctlBinary()};
        argv.insert(argv.end(), args.begin(), args.end());
        return run(argv, env, input);
    }

    static RunResult start(const Devsim& device, const std::string& mac, const std::vector<std::string>& pass,
        const std::vector<std::string>& env = {}, const std::string& input = "")
    {
        std::vector<std::string> args = {"start", mac, "--ip", "127.0.0.1", "--port", std::to_string(device.port()),
            "--user", "admin"};
        args.insert(args.end(), pass.begin(), pass.end());
        if (device.tls())
            args.push_back("--secure");
        return ctl(args, env, input);
    }
};

TEST_F(Orvexctl, StartsCallsAndStopsOneDevice)
{
    Devsim device("token", true);
    RunResult started = start(device, "00:11:22:33:44:AA", {"--pass-env", "DEVICE_PASS"}, {"DEVICE_PASS=secret"});
    ASSERT_EQ(started.status, 0) << started.err;
    JsonRef identity = parseJson(started.out);
    EXPECT_STREQ(json_string_value(json_object_get(identity.get(), "model")), "ZEM-880") << started.out;
    EXPECT_EQ(started.out.find('\n'), started.out.size() - 1) << "compact, one line: " << started.out;

    const std::string mac = "00:11:22:33:44:aa";
    RunResult added = ctl({"call", mac, "add_device_rsyslog_client", R"({"address":"192.0.2.1","mode":3,"port":514})"});
    EXPECT_EQ(added.status, 0) << added.err;
    EXPECT_EQ(added.out, "{\"success\":true,\"id\":1}\n");
    RunResult listed = ctl({"call", "00:11:22:33:44:AA", "get_device_rsyslog_client"});
    EXPECT_EQ(listed.status, 0) << listed.err;
    EXPECT_NE(listed.out.find("192.0.2.1"), std::string::npos) << listed.out;
    RunResult help = ctl({"call", mac, "help", R"({"method":"signout"})"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("orvex-session@" + mac + ".signout"), std::string::npos) << help.out;

    RunResult stopped = ctl({"stop", mac});
    EXPECT_EQ(stopped.status, 0) << stopped.err;
    EXPECT_EQ(lockHolder(mac), 0);
    EXPECT_EQ(device.requestsTo("GET", "/zem/oauth/logout").size(), 1u);

    RunResult gone = ctl({"call", mac, "get_device_rsyslog_client"});
    EXPECT_EQ(gone.status, 3);
    EXPECT_EQ(gone.err, "orvexctl: no session process answers for MAC " + mac + "\n");
    RunResult stopGone = ctl({"stop", mac});
    EXPECT_EQ(stopGone.status, 3);
}

TEST_F(Orvexctl, ErrorRepliesArePrintedAndExitOne)
{
    Devsim device("legacy", false);
    ASSERT_EQ(start(device, kMac, {}, {"ORVEX_PASS=secret"}).status, 0);
    RunResult bad = ctl({"call", kMac, "set_device_rsyslog_client", "{}"});
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.out, "{\"error_code\":400,\"error_message\":\"id missed\"}\n");
    EXPECT_EQ(bad.err, "orvexctl: set_device_rsyslog_client on " + kMac + " failed: id missed (error 400)\n");
    // The device answered 404 for an unknown id: that is data, not a failed call.
    RunResult unknown = ctl({"call", kMac, "del_device_rsyslog_client", R"({"id":42})"});
    EXPECT_EQ(unknown.status, 0) << unknown.err;
    EXPECT_NE(unknown.out.find("no client with id 42"), std::string::npos) << unknown.out;
}

TEST_F(Orvexctl, PasswordComesFromStdinOrEnvironmentAndIsNeverShown)
{
    Devsim device("legacy", true, {"--pass", "s3cr3t-word"});
    RunResult fromStdin = start(device, kMac, {"--pass-stdin"}, {}, "s3cr3t-word\n");
    ASSERT_EQ(fromStdin.status, 0) << fromStdin.err;
    EXPECT_EQ((fromStdin.out + fromStdin.err).find("s3cr3t"), std::string::npos);
    ASSERT_EQ(ctl({"stop", kMac}).status, 0);

    // A wrong password from ORVEX_PASS: the reply, the messages with the cause, and the process is gone.
    RunResult wrong = start(device, kMac, {}, {"ORVEX_PASS=not-the-s3cr3t"});
    EXPECT_EQ(wrong.status, 5);
    EXPECT_EQ(wrong.out, "{\"error_code\":403,\"error_message\":\"signin fail\"}\n");
    EXPECT_EQ(wrong.err, "orvexctl: signin on " + kMac + " failed: signin fail (error 403)\norvexctl: sign-in to 127.0.0.1:" +
        std::to_string(device.port()) + " for " + kMac + " failed: credentials\n");
    EXPECT_EQ((wrong.out + wrong.err).find("s3cr3t"), std::string::npos);
    EXPECT_TRUE(waitFor([] { return lockHolder(kMac) == 0; }));
}

TEST(OrvexctlUsage, BadCommandLinesExitTwoWithOneLine)
{
    const std::string port = "--port=443";
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"frobnicate"},
        {"start", kMac},
        {"start", "00-11-22-33-44-55", "--ip", "h", "--port", "1", "--user", "u", "--pass-env", "HOME"},
        {"start", kMac, "--ip", "h", "--port", "70000", "--user", "u", "--pass-env", "HOME"},
        {"start", kMac, "--ip", "h", port, "--user", "u", "--pass-env", "HOME", "--pass-stdin"},
        {"start", kMac, "--ip", "h", port, "--user", "u", "--pass-env", "ORVEX_TEST_UNSET_VARIABLE"},
        {"start", kMac, "--ip", "h", port, "--user", "u", "--pass-env", "HOME", "--colour"},
        {"call", kMac},
        {"call", kMac, "signin", "[1]"},
        {"call", kMac, "signin", "{\"ip\":"},
        {"call", kMac, "signin", "{}", "extra"},
        {"stop"},
        {"stop", "everything"},
    };
    for (const auto& args : cases) {
        std::vector<std::string> argv = {ctlBinary()};
        argv.insert(argv.end(), args.begin(), args.end());
        RunResult result = run(argv);
        std::string shown = args.empty() ? "(none)" : args.back();
        EXPECT_EQ(result.status, 2) << shown << ": " << result.err;
        EXPECT_EQ(result.err.rfind("orvexctl: ", 0), 0u) << shown;
        EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << shown << ": " << result.err;
        EXPECT_EQ(result.out, "") << shown;
    }
    RunResult help = run({ctlBinary(), "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("usage: orvexctl start MAC", 0), 0u) << help.out;
}

}  // namespace
}  // namespace Orvex::Test
