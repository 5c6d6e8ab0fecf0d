// The device, MAC and password files of the fleet commands: what each line yields, and
// that a wrong line is named with its file and number before anything starts.
#include <sys/stat.h>

#include <algorithm>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "client/fleet_files.h"
#include "tests/support/process.h"

using namespace Orvex;
using namespace Orvex::Test;

namespace {

std::string fileWith(const TempDir& dir, const std::string& content, mode_t mode = 0600)
{
    static int files = 0;
    return writeFile(dir.file("f" + std::to_string(++files)), content, mode);
}

std::string errorOf(const std::function<void()>& read)
{
    try {
        read();
    } catch (const FleetFileError& e) {
        return e.what();
    }
    return "(no error)";
}

}  // namespace

TEST(FleetFiles, DeviceLinesTakeBlanksOrCommasCommentsAndTheSecureWords)
{
    TempDir dir;
    std::vector<DeviceEntry> devices = readDeviceFile(fileWith(dir,
        "# fleet\n00:11:22:33:44:AA 10.0.0.1 443 admin https\r\n\n 00:11:22:33:44:bb,nas.example,80,op  # plain\n"));
    ASSERT_EQ(devices.size(), 2u);
    EXPECT_EQ(devices[0].mac, "00:11:22:33:44:aa");
    EXPECT_EQ(devices[0].ip, "10.0.0.1");
    EXPECT_EQ(devices[0].port, 443);
    EXPECT_EQ(devices[0].user, "admin");
    EXPECT_TRUE(devices[0].secure);
    EXPECT_EQ(devices[1].ip, "nas.example");
    EXPECT_FALSE(devices[1].secure);
    // A device file serves as a MAC file too.
    EXPECT_EQ(readMacFile(fileWith(dir, "00:11:22:33:44:AA 10.0.0.1 443 admin\n# x\n02:00:00:00:00:01\n")),
        (std::vector<std::string>{"00:11:22:33:44:aa", "02:00:00:00:00:01"}));
    const std::string separators = fileWith(dir, "02:00:00:00:00:01\n , ,\n");
    EXPECT_EQ(errorOf([&] { readMacFile(separators); }),
        separators + ":2: '' is not a MAC address (six hex pairs joined by ':')");
}

TEST(FleetFiles, AWrongLineIsNamedWithItsFileAndNumber)
{
    TempDir dir;
    const std::pair<std::string, std::string> cases[] = {
        {"00:11:22:33:44:55 h 1 u\n00-11-22-33-44-56 h 1 u\n", ":2: '00-11-22-33-44-56' is not a MAC address"},
        {"00:11:22:33:44:55 h 1 u\n00:11:22:33:44:55 h 2 u\n", ":2: 00:11:22:33:44:55 is named twice"},
        {"00:11:22:33:44:55 h 70000 u\n", ":1: port '70000' is not a number from 1 to 65535"},
        {"00:11:22:33:44:55 h 1\n", ":1: expected MAC IP PORT USER [SECURE], found 3 fields"},
        {"00:11:22:33:44:55 h 1 u maybe\n", ":1: 'maybe' is neither secure"},
        {"# nothing\n", ": names no device"},
    };
    for (const auto& [content, expected] : cases) {
        const std::string path = fileWith(dir, content);
        EXPECT_EQ(errorOf([&] { readDeviceFile(path); }).rfind(path + expected, 0), 0u)
            << errorOf([&] { readDeviceFile(path); });
    }
}

TEST(FleetFiles, PasswordsKeepEveryCharacterAndOnlyAPrivateFileOfOursIsRead)
{
    TempDir dir;
    std::map<std::string, std::string> passwords =
        readPasswordFile(fileWith(dir, "# comment\n00:11:22:33:44:AA  pa ss#word \\\"x\n02:00:00:00:00:01\tsecret\n"));
    EXPECT_EQ(passwords["00:11:22:33:44:aa"], "pa ss#word \\\"x");
    EXPECT_EQ(passwords["02:00:00:00:00:01"], "secret");

    const std::string shared = fileWith(dir, "00:11:22:33:44:55 secret\n", 0640);
    EXPECT_EQ(errorOf([&] { readPasswordFile(shared); }),
        shared + ": may be read or written by others (mode 0640): refused; chmod 600 it");
    const std::string foreign = fileWith(dir, "00:11:22:33:44:55 secret\n\n");
    ASSERT_EQ(chown(foreign.c_str(), 65534, 65534), 0);
    EXPECT_EQ(errorOf([&] { readPasswordFile(foreign); }), foreign + ": belongs to uid 65534, not to us: refused");
    const std::string bare = fileWith(dir, "00:11:22:33:44:55\n");
    EXPECT_EQ(errorOf([&] { readPasswordFile(bare); }), bare + ":1: no password for 00:11:22:33:44:55");
}

TEST(FleetFiles, ParallelRunnerRunsEachIndexOnceAndNoMoreAtATimeThanAsked)
{
    std::mutex mutex;
    std::vector<int> seen(50, 0);
    int running = 0, most = 0;
    forEachParallel(seen.size(), 4, [&](size_t i) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++seen[i];
            most = std::max(most, ++running);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        std::lock_guard<std::mutex> lock(mutex);
        --running;
    });
    EXPECT_EQ(std::count(seen.begin(), seen.end(), 1), 50);
    EXPECT_LE(most, 4);
    EXPECT_GT(most, 1);
}
