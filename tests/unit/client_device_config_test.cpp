// The settings of orvexctl enable and the password credential, as the daemon reads them:
// root-only files that round-trip, and every file the daemon must not trust refused with
// a message naming it and the reason.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include <gtest/gtest.h>

#include "client/device_config.h"
#include "common/paths.h"
#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

const std::string kMac = "02:00:00:00:25:10";

// The reason a settings file is refused, or "" when it is read.
std::string refusal()
{
    try {
        DeviceConfig config;
        readDeviceConfig(kMac, config);
        return "";
    } catch (const ConfigError& e) {
        return e.what();
    }
}

class DeviceConfigFile : public ::testing::Test {
protected:
    void SetUp() override { ORVEX_REQUIRE_ISOLATION(); }
    void TearDown() override { removeDeviceFiles(kMac); }
    const std::string path = Paths::configPath(kMac);
};

TEST_F(DeviceConfigFile, RoundTripsInARootOnlyFileAndFolder)
{
    DeviceConfig written{kMac, "192.0.2.7", 443, "admin", true, 0};
    writeDeviceConfig(written);
    EXPECT_EQ(modeOf(Paths::kConfigDirectory), 0700u);
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_EQ(readFile(path).find("secret"), std::string::npos);
    DeviceConfig read;
    ASSERT_TRUE(readDeviceConfig(kMac, read));
    EXPECT_EQ(read.mac, kMac);
    EXPECT_EQ(read.ip, "192.0.2.7");
    EXPECT_EQ(read.port, 443);
    EXPECT_EQ(read.user, "admin");
    EXPECT_TRUE(read.secure);
    EXPECT_EQ(read.idleSeconds, 0);

    // Written by hand without the optional keys: plain HTTP and the 600 s idle limit.
    writeFile(path, R"({"mac":")" + kMac + R"(","ip":"10.0.0.9","port":80,"user":"ops"})", 0600);
    ASSERT_TRUE(readDeviceConfig(kMac, read));
    EXPECT_FALSE(read.secure);
    EXPECT_EQ(read.idleSeconds, 600);
}

TEST_F(DeviceConfigFile, NoFileIsNoConfigurationAndEveryUntrustedFileIsRefusedByName)
{
    DeviceConfig config;
    EXPECT_FALSE(readDeviceConfig(kMac, config));
    writeDeviceConfig(DeviceConfig{kMac, "192.0.2.7", 443, "admin", false, 600});
    const std::string good = readFile(path);
    struct Case {
        std::string text;
        mode_t mode;
        const char* reason;
    } cases[] = {
        {good, 0644, "must be mode 0600"},
        {good, 0640, "must be mode 0600"},
        {"{\"mac\":", 0600, "not JSON"},
        {"[1]", 0600, "not a JSON object"},
        {R"({"mac":"02:00:00:00:25:11","ip":"a","port":1,"user":"u"})", 0600, "another MAC"},
        {R"({"mac":")" + kMac + R"(","ip":"","port":1,"user":"u"})", 0600, "\"ip\" is not a non-empty string"},
        {R"({"mac":")" + kMac + R"(","ip":"a","port":70000,"user":"u"})", 0600, "\"port\" is not a number from 1"},
        {R"({"mac":")" + kMac + R"(","ip":"a","port":1,"user":"u","secure":1})", 0600, "\"secure\" is not true"},
        {R"({"mac":")" + kMac + R"(","ip":"a","port":1,"user":"u","idle":-1})", 0600, "\"idle\" is not a number"},
    };
    for (const Case& c : cases) {
        writeFile(path, c.text, c.mode);
        std::string reason = refusal();
        EXPECT_EQ(reason.rfind(path + ": ", 0), 0u) << reason;
        EXPECT_NE(reason.find(c.reason), std::string::npos) << c.text << " -> " << reason;
    }
    // A link is not followed, even to a good file of ours.
    TempDir dir;
    writeFile(dir.file("elsewhere"), good, 0600);
    unlink(path.c_str());
    ASSERT_EQ(symlink(dir.file("elsewhere").c_str(), path.c_str()), 0);
    EXPECT_NE(refusal().find("refused"), std::string::npos) << refusal();
}

TEST_F(DeviceConfigFile, RemovingTakesTheSettingsAndBothKindsOfStoredPassword)
{
    writeDeviceConfig(DeviceConfig{kMac, "192.0.2.7", 443, "admin", false, 600});
    writeRootOnlyFile(Paths::credentialPath(kMac, true), "sealed");
    writeRootOnlyFile(Paths::credentialPath(kMac, false), "secret");
    EXPECT_EQ(modeOf(Paths::credentialPath(kMac, false)), 0600u);
    EXPECT_TRUE(removeDeviceFiles(kMac));
    for (bool encrypted : {true, false})
        EXPECT_EQ(access(Paths::credentialPath(kMac, encrypted).c_str(), F_OK), -1);
    EXPECT_EQ(access(path.c_str(), F_OK), -1);
    EXPECT_FALSE(removeDeviceFiles(kMac));
}

TEST(PasswordCredential, ReadFromTheCredentialsDirectoryWithoutTheLastNewline)
{
    TempDir dir;
    unsetenv("CREDENTIALS_DIRECTORY");
    EXPECT_FALSE(readPasswordCredential().has_value()) << "no credentials at all";
    setenv("CREDENTIALS_DIRECTORY", dir.path().c_str(), 1);
    EXPECT_FALSE(readPasswordCredential().has_value()) << "credentials, but not the password";
    writeFile(dir.file("password"), "se cret\n\n", 0600);
    EXPECT_EQ(readPasswordCredential().value_or("-"), "se cret\n");
    writeFile(dir.file("password"), "secret", 0600);
    EXPECT_EQ(readPasswordCredential().value_or("-"), "secret");
    unsetenv("CREDENTIALS_DIRECTORY");
}

}  // namespace
}  // namespace Orvex::Test
