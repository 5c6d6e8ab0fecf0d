#include "common/exceptions.h"
#include "common/files.h"
#include "common/misc.h"
#include "common/trace.h"
#include "tests/support/log.h"
#include "tests/support/process.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <vector>

using namespace Orvex;

namespace {

class TraceTest : public ::testing::Test {
protected:
    void SetUp() override { channel = Orvex::Test::captureLog(); }
    void TearDown() override
    {
        Poco::Logger::root().setChannel(nullptr);
        Poco::Logger::root().setLevel(Poco::Message::PRIO_INFORMATION);
    }
    Poco::AutoPtr<Orvex::Test::LogCapture> channel;
};

const int kProbeLine = __LINE__ + 3;
int tracedProbe(int value)
{
    ORVEX_TRACE();
    return value * 2;
}

int formatted = 0;
const char* countFormatting()
{
    ++formatted;
    return "body";
}

}  // namespace

TEST(Base64, OneLineRoundTripOfBinaryAndEmpty)
{
    for (size_t size : {size_t(100), size_t(3 * 8192 + 17)}) {
        std::string input(size, '\0');
        for (size_t i = 0; i < size; ++i)
            input[i] = static_cast<char>(i * 7);
        std::string encoded = btoa(input);
        EXPECT_EQ(encoded.find_first_of("\r\n"), std::string::npos);
        EXPECT_EQ(encoded.size(), (size + 2) / 3 * 4);
        EXPECT_EQ(atob(encoded), input);
    }
    EXPECT_EQ(btoa(""), "");
    EXPECT_EQ(btoa(std::string("Ma\0", 3)), "TWEA");
    EXPECT_EQ(atob("YWRtaW46c2VjcmV0"), "admin:secret");
}

TEST(Files, WholeFileKeepsNulBytesAndMissingFileIsEmpty)
{
    char path[] = "/tmp/orvex-common-test-XXXXXX";
    int fd = create_temp_file(path);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(std::string(path).find("XXXXXX"), std::string::npos);
    std::string content = std::string("a\0b\0\0c", 6) + std::string(20000, '\0') + "end";
    fdprintf(fd, "%s", "x");  // formatted output stops at a NUL, so write the rest raw
    ASSERT_EQ(::write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    ::close(fd);
    EXPECT_EQ(get_file_context(path), "x" + content);
    ::unlink(path);
    EXPECT_EQ(get_file_context(path), "");
    char noTemplate[] = "/tmp/orvex-no-template";
    EXPECT_EQ(create_temp_file(noTemplate), -1);
}

TEST(Files, ReplacingTakesTheModeNeverFollowsALinkAndLeavesNoTemporaryBehind)
{
    Orvex::Test::TempDir dir;
    const std::string path = dir.file("settings"), target = dir.file("target");
    ASSERT_EQ(replaceFile(path, "first", 0600, true), Replaced::Done);
    ASSERT_EQ(replaceFile(path, "second", 0644, false), Replaced::Done);
    EXPECT_EQ(Orvex::Test::readFile(path), "second");
    EXPECT_EQ(Orvex::Test::modeOf(path), 0644u);
    // A link planted at the path is replaced; where it led stays as it was.
    std::ofstream(target) << "kept";
    ASSERT_EQ(::unlink(path.c_str()), 0);
    ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0);
    ASSERT_EQ(replaceFile(path, "new", 0600, false), Replaced::Done);
    EXPECT_EQ(Orvex::Test::readFile(target), "kept");
    EXPECT_EQ(Orvex::Test::readFile(path), "new");
    EXPECT_EQ(Orvex::Test::modeOf(path), 0600u);
    // A folder in the way fails the rename, a missing folder the creation.
    ASSERT_EQ(::mkdir(dir.file("busy").c_str(), 0755), 0);
    EXPECT_EQ(replaceFile(dir.file("busy"), "x", 0600, false), Replaced::NotWritten);
    EXPECT_EQ(replaceFile(dir.file("missing/file"), "x", 0600, false), Replaced::NotCreated);
    std::set<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
        left.insert(entry.path().filename());
    EXPECT_EQ(left, (std::set<std::string>{"busy", "settings", "target"}));
}

TEST_F(TraceTest, EnterAndLeaveLinesOnlyAtTraceLevel)
{
    Poco::Logger::root().setLevel(Poco::Message::PRIO_DEBUG);
    tracedProbe(1);
    ORVEX_TRACE_TEXT("[Session] %s", countFormatting());
    EXPECT_TRUE(channel->lines().empty());
    EXPECT_EQ(formatted, 0) << "a trace line was formatted below trace level";

    Poco::Logger::root().setLevel(Poco::Message::PRIO_TRACE);
    EXPECT_EQ(tracedProbe(21), 42);
    std::string where = "common_test.cpp:" + std::to_string(kProbeLine) + ", int {anonymous}::tracedProbe(int)";
    EXPECT_EQ(channel->lines(), (std::vector<std::string>{where + " :enter", where + " :leave"}));
    EXPECT_EQ(channel->priorities(), (std::vector<int>{Poco::Message::PRIO_TRACE, Poco::Message::PRIO_TRACE}));
}

TEST_F(TraceTest, FailuresWhileTracingAreSwallowed)
{
    Poco::Logger::root().setLevel(Poco::Message::PRIO_TRACE);
    channel->failing = true;
    EXPECT_EQ(tracedProbe(5), 10);
    Poco::Logger::root().setChannel(nullptr);
    EXPECT_EQ(tracedProbe(6), 12);
}

