// orvexctl enable and disable with stand-ins for systemctl and systemd-creds that record
// how they were run: the files enable leaves (root-only, the password only on
// systemd-creds' standard input or in its own file), the systemctl steps, the fallback to
// a plain credential, disable leaving nothing, the root check, and a session of orvexctl
// start in the way.
#include <unistd.h>

#include <filesystem>

#include "client/device_config.h"
#include "common/paths.h"
#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

const std::string kMac = "02:00:00:00:25:40";

class Enable : public IsolatedTest {
protected:
    void SetUp() override
    {
        ORVEX_REQUIRE_ISOLATION();
        std::filesystem::create_directories("/run/systemd/system");
        tool("systemctl", "echo \"$*\" >> " + bin_.file("systemctl.log") + "\nexit ${FAKE_SYSTEMCTL_STATUS:-0}\n");
        tool("systemd-creds", "echo \"$*\" >> " + bin_.file("creds.log") +
                                  "\n[ \"${FAKE_CREDS:-}\" = fail ] && exit 1\nprintf 'sealed:'; cat\n");
    }
    void TearDown() override
    {
        // Also runs for a skipped test: outside the namespace these are the machine's own.
        if (!isolated())
            return;
        removeDeviceFiles(kMac);
        std::filesystem::remove_all(Paths::dropInDirectory(kMac));
        std::filesystem::remove_all("/run/systemd");
        IsolatedTest::TearDown();
    }
    void tool(const std::string& name, const std::string& body)
    {
        writeFile(bin_.file(name), "#!/bin/sh\n" + body, 0755);
    }
    RunResult orvexctl(const std::vector<std::string>& words, const std::vector<std::string>& env = {})
    {
        std::vector<std::string> all = {"PATH=" + bin_.path() + ":/usr/bin:/bin", "P=secret"};
        all.insert(all.end(), env.begin(), env.end());
        return ctl(words, all);
    }
    std::vector<std::string> enableWith(const std::vector<std::string>& extra) const
    {
        std::vector<std::string> words = enable_;
        words.insert(words.end(), extra.begin(), extra.end());
        return words;
    }
    std::string log(const char* name) const { return readFile(bin_.file(name)); }

    TempDir bin_;
    const std::vector<std::string> enable_ = {"enable", kMac, "--ip", "192.0.2.7", "--port", "443", "--user",
                                              "admin", "--secure", "--idle", "0", "--pass-env", "P", "--timeout", "0"};
};

TEST_F(Enable, StoresRootOnlyFilesPassesThePasswordOnlyOnStandardInputAndStartsTheInstance)
{
    RunResult r = orvexctl(enable_);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, kMac + " enabled as orvex-session@" + kMac + ".service (password encrypted by systemd-creds)\n");
    DeviceConfig config;
    ASSERT_TRUE(readDeviceConfig(kMac, config));
    EXPECT_EQ(config.ip, "192.0.2.7");
    EXPECT_EQ(config.port, 443);
    EXPECT_EQ(config.user, "admin");
    EXPECT_TRUE(config.secure);
    EXPECT_EQ(config.idleSeconds, 0);
    const std::string sealed = Paths::credentialPath(kMac, true);
    EXPECT_EQ(readFile(sealed), "sealed:secret");
    EXPECT_EQ(modeOf(sealed), 0600u);
    EXPECT_EQ(access(Paths::credentialPath(kMac, false).c_str(), F_OK), -1);
    EXPECT_EQ(readFile(Paths::dropInPath(kMac)),
        "# Written by orvexctl enable, removed by orvexctl disable.\n[Service]\nLoadCredentialEncrypted=password:" +
            sealed + "\n");
    EXPECT_EQ(log("creds.log"), "encrypt --name=password - -\n");
    EXPECT_EQ(log("systemctl.log"), "--quiet daemon-reload\n--quiet enable orvex-session@" + kMac +
                                        ".service\n--quiet restart orvex-session@" + kMac + ".service\n");
}

TEST_F(Enable, WithoutEncryptionThePasswordIsARootOnlyFileAndDisableLeavesNothing)
{
    ASSERT_EQ(orvexctl(enable_).status, 0);
    RunResult r = orvexctl(enableWith({"--json=short"}), {"FAKE_CREDS=fail"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "{\"mac\":\"" + kMac + "\",\"unit\":\"orvex-session@" + kMac +
                         ".service\",\"credential\":\"plain\",\"signed_in\":false,\"pid\":0,\"failure\":\"\"}\n");
    const std::string plain = Paths::credentialPath(kMac, false);
    EXPECT_EQ(readFile(plain), "secret");
    EXPECT_EQ(modeOf(plain), 0600u);
    EXPECT_EQ(access(Paths::credentialPath(kMac, true).c_str(), F_OK), -1) << "the old encrypted one stayed";
    EXPECT_NE(readFile(Paths::dropInPath(kMac)).find("\nLoadCredential=password:" + plain + "\n"), std::string::npos);

    std::filesystem::remove(bin_.file("systemctl.log"));
    r = orvexctl({"disable", kMac, "--json=short"});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "{\"mac\":\"" + kMac + "\",\"unit\":\"orvex-session@" + kMac + ".service\",\"disabled\":true}\n");
    EXPECT_EQ(log("systemctl.log"), "--quiet disable --now orvex-session@" + kMac + ".service\n--quiet daemon-reload\n");
    for (const std::string& path : {Paths::configPath(kMac), plain, Paths::dropInDirectory(kMac)})
        EXPECT_FALSE(std::filesystem::exists(path)) << path;
}

TEST_F(Enable, RefusedWithoutSystemdAndAFailingSystemctlIsNamed)
{
    std::filesystem::remove_all("/run/systemd");
    RunResult r = orvexctl(enable_);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "orvexctl: enable needs systemd running (no /run/systemd/system)\n");
    EXPECT_FALSE(std::filesystem::exists(Paths::configPath(kMac)));

    std::filesystem::create_directories("/run/systemd/system");
    r = orvexctl(enable_, {"FAKE_SYSTEMCTL_STATUS=3"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "orvexctl: systemctl daemon-reload failed (exit 3)\n");
}

// enable and disable change root's files: another user is told so (exit 8) before anything
// is read or run.
TEST_F(Enable, AnotherUserIsToldItNeedsRoot)
{
    for (const auto& words : {enable_, std::vector<std::string>{"disable", kMac}}) {
        RunResult refused = ctlAs(kNobody, words);
        EXPECT_EQ(refused.status, 8);
        EXPECT_EQ(refused.err, "orvexctl: " + words[0] + " needs root: it changes the files of the unit's instance in /etc\n");
    }
    EXPECT_FALSE(std::filesystem::exists(bin_.file("systemctl.log")));
}

// A session of orvexctl start holds the MAC's lock, which the instance could never take:
// refused as start refuses it, unless --replace stops it. The unit's own instance is not
// in the way: enable restarts it with the new settings.
TEST_F(Enable, ASessionThatOrvexctlStartRunsIsRefusedUnlessReplaced)
{
    Daemon started(kMac);
    ASSERT_TRUE(started.ready());
    RunResult r = orvexctl(enable_);
    EXPECT_EQ(r.status, 7);
    EXPECT_TRUE(contains(r.err, "orvexctl: a session already runs for MAC " + kMac + " (pid " +
                                    std::to_string(started.process().pid()) + ")"))
        << r.err;
    EXPECT_FALSE(std::filesystem::exists(Paths::configPath(kMac)));
    EXPECT_FALSE(std::filesystem::exists(bin_.file("systemctl.log")));

    r = orvexctl(enableWith({"--replace"}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(started.process().wait(10s), 0) << "the started session was not stopped";
    EXPECT_TRUE(std::filesystem::exists(Paths::configPath(kMac)));

    Daemon instance(kMac, {}, daemonBinary(), {}, kServiceManagerEnv);
    ASSERT_TRUE(waitFor([] { return answers(kMac); }));
    r = orvexctl(enable_);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(instance.process().running()) << "enable stopped the unit's own instance";
}

}  // namespace
}  // namespace Orvex::Test
