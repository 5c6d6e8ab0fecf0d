#include "common/exceptions.h"
#include "common/misc.h"
#include "common/raii.h"
#include "common/trace.h"

#include <Poco/AutoPtr.h>
#include <Poco/Channel.h>
#include <Poco/Logger.h>
#include <Poco/Mutex.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

using namespace Orvex;

namespace {

// Records every message handed to it; can be told to throw instead.
class RecordingChannel : public Poco::Channel {
public:
    void log(const Poco::Message& msg) override
    {
        if (failing)
            throw std::runtime_error("channel down");
        Poco::FastMutex::ScopedLock lock(mutex_);
        messages.push_back(msg);
    }
    std::vector<std::string> texts()
    {
        Poco::FastMutex::ScopedLock lock(mutex_);
        std::vector<std::string> out;
        for (const auto& m : messages)
            out.push_back(m.getText());
        return out;
    }
    bool failing = false;
    std::vector<Poco::Message> messages;

private:
    Poco::FastMutex mutex_;
};

// Puts the root logger back as it was after each test.
class TraceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        savedLevel_ = Poco::Logger::root().getLevel();
        savedChannel_ = Poco::Logger::root().getChannel();
        channel_ = new RecordingChannel;
        Poco::Logger::root().setChannel(channel_);
    }
    void TearDown() override
    {
        Poco::Logger::root().setChannel(savedChannel_);
        Poco::Logger::root().setLevel(savedLevel_);
    }
    Poco::AutoPtr<RecordingChannel> channel_;

private:
    int savedLevel_ = 0;
    Poco::Channel::Ptr savedChannel_;
};

const int kProbeLine = __LINE__ + 3;
int tracedProbe(int value)
{
    ORVEX_TRACE();
    return value * 2;
}

int formatCount = 0;
const char* countedText()
{
    ++formatCount;
    return "body";
}

std::string writeTempFile(const std::string& content)
{
    char path[] = "/tmp/orvex-common-test-XXXXXX";
    int fd = create_temp_file(path);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(::write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    ::close(fd);
    return path;
}

}  // namespace

TEST(Base64, RoundTripsBinaryOnOneLine)
{
    std::string input;
    for (int i = 0; i < 100; ++i)
        input.push_back(static_cast<char>(i * 7));
    std::string encoded = btoa(input);
    EXPECT_EQ(encoded.find_first_of("\r\n"), std::string::npos);
    EXPECT_EQ(encoded.size(), 136u);
    EXPECT_EQ(atob(encoded), input);
}

TEST(Base64, MatchesKnownVectorsAndEmpty)
{
    EXPECT_EQ(btoa(""), "");
    EXPECT_EQ(atob(""), "");
    EXPECT_EQ(btoa("Man"), "TWFu");
    EXPECT_EQ(btoa("Ma"), "TWE=");
    EXPECT_EQ(btoa(std::string("\0\xff", 2)), "AP8=");
    EXPECT_EQ(atob("YWRtaW46c2VjcmV0"), "admin:secret");
}

TEST(Base64, InputsLargerThanTheCopyBufferSurvive)
{
    std::string input(3 * 8192 + 17, '\0');
    for (size_t i = 0; i < input.size(); ++i)
        input[i] = static_cast<char>(i % 251);
    std::string encoded = btoa(input);
    EXPECT_EQ(encoded.find('\n'), std::string::npos);
    EXPECT_EQ(encoded.size(), (input.size() + 2) / 3 * 4);
    EXPECT_EQ(atob(encoded), input);
}

TEST(Format, StringFormatterHandlesLongAndEmptyResults)
{
    std::string big(10000, 'x');
    EXPECT_EQ(strformat("%s:%d", big.c_str(), 42), big + ":42");
    EXPECT_EQ(strformat("%s", ""), "");
}

TEST(Format, DescriptorPrinterWritesExactBytes)
{
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    fdprintf(fds[1], "Content-Type: %s\r\n\r\n", "application/json; charset=utf-8");
    ::close(fds[1]);
    char buffer[128] = {};
    ssize_t n = ::read(fds[0], buffer, sizeof buffer);
    ::close(fds[0]);
    EXPECT_EQ(std::string(buffer, n > 0 ? n : 0), "Content-Type: application/json; charset=utf-8\r\n\r\n");
}

TEST(Files, TempFileRewritesTemplateAndFailsOnBadOne)
{
    char path[] = "/tmp/orvex-common-test-XXXXXX";
    UniqueFd fd(create_temp_file(path));
    ASSERT_TRUE(fd);
    EXPECT_EQ(std::string(path).find("XXXXXX"), std::string::npos);
    EXPECT_EQ(::access(path, F_OK), 0);
    ::unlink(path);

    char bad[] = "/tmp/orvex-no-template";
    EXPECT_EQ(create_temp_file(bad), -1);
}

TEST(Files, WholeFileKeepsNulBytesAndMissingFileIsEmpty)
{
    std::string content("a\0b\0\0c", 6);
    content += std::string(20000, '\0') + "end";
    std::string path = writeTempFile(content);
    EXPECT_EQ(get_file_context(path.c_str()), content);
    ::unlink(path.c_str());
    EXPECT_EQ(get_file_context(path.c_str()), "");
    EXPECT_EQ(get_file_context("/nonexistent/orvex/file"), "");
}

TEST_F(TraceTest, EnterAndLeaveLinesAtTraceLevel)
{
    Poco::Logger::root().setLevel(Poco::Message::PRIO_TRACE);
    EXPECT_EQ(tracedProbe(21), 42);
    std::string where = "common_test.cpp:" + std::to_string(kProbeLine) + ", int {anonymous}::tracedProbe(int)";
    ASSERT_EQ(channel_->texts(), (std::vector<std::string>{where + " :enter", where + " :leave"}));
    for (const auto& m : channel_->messages) {
        EXPECT_EQ(m.getPriority(), Poco::Message::PRIO_TRACE);
        EXPECT_EQ(m.getSource(), Poco::Logger::root().name());
    }
}

TEST_F(TraceTest, UtilitiesTraceTheirFullSignature)
{
    Poco::Logger::root().setLevel(Poco::Message::PRIO_TRACE);
    btoa("x");
    std::vector<std::string> texts = channel_->texts();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0].rfind("misc.cpp:", 0), 0u) << texts[0];
    EXPECT_NE(texts[0].find(", std::string Orvex::btoa(const std::string&) :enter"), std::string::npos) << texts[0];
    EXPECT_NE(texts[1].find(" :leave"), std::string::npos);
}

TEST_F(TraceTest, NothingIsFormattedBelowTrace)
{
    Poco::Logger::root().setLevel(Poco::Message::PRIO_DEBUG);
    formatCount = 0;
    tracedProbe(1);
    ORVEX_TRACE_TEXT("[Session] %s", countedText());
    EXPECT_EQ(formatCount, 0);
    EXPECT_TRUE(channel_->messages.empty());

    Poco::Logger::root().setLevel(Poco::Message::PRIO_TRACE);
    ORVEX_TRACE_TEXT("[Session] %s", countedText());
    EXPECT_EQ(formatCount, 1);
    ASSERT_EQ(channel_->messages.size(), 1u);
    EXPECT_NE(channel_->messages[0].getText().find(" [Session] body"), std::string::npos);
}

TEST_F(TraceTest, FailuresWhileTracingAreSwallowed)
{
    Poco::Logger::root().setLevel(Poco::Message::PRIO_TRACE);
    channel_->failing = true;
    EXPECT_EQ(tracedProbe(5), 10);
    Poco::Logger::root().setChannel(nullptr);
    EXPECT_EQ(tracedProbe(6), 12);
}

TEST(Exceptions, KeepMessageAndCodeAndReportTheBaseName)
{
    std::vector<std::pair<std::string, int>> seen;
    auto check = [&](const Poco::Exception& e) {
        EXPECT_STREQ(e.name(), "Exception");
        seen.emplace_back(e.message(), e.code());
    };
    check(OptionException("port incorrect", 400));
    check(SessionException("not signin", 403));
    check(SessionNotFound("gone", 1));
    check(SyslogException("syslog", 2));
    check(ResourceException("rsyslog/client", 404));
    check(MySQL::Exception("db", 3));
    check(Database::Exception("dbx", 4));
    check(OnlineUser::Exception("user", 5));
    ASSERT_EQ(seen.size(), 8u);
    EXPECT_EQ(seen[0], std::make_pair(std::string("port incorrect"), 400));
    EXPECT_EQ(seen[1], std::make_pair(std::string("not signin"), 403));
}

TEST(Exceptions, AreDistinctTypesForCatchClauses)
{
    auto classify = [](auto thrower) -> std::string {
        try {
            thrower();
        } catch (SessionNotFound&) {
            return "notfound";
        } catch (SessionException&) {
            return "session";
        } catch (Poco::Exception&) {
            return "other";
        }
        return "none";
    };
    EXPECT_EQ(classify([] { throw SessionException("x", 1); }), "session");
    EXPECT_EQ(classify([] { throw SessionNotFound("x", 1); }), "notfound");
    EXPECT_EQ(classify([] { throw OptionException("x", 1); }), "other");
}
