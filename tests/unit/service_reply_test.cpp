#include "service/misc.h"
#include "zservice/channel.h"

#include "service_bus.h"

#include <Poco/Event.h>

#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <string>

using namespace Orvex;
using OrvexTest::TestBus;

namespace {

std::atomic<json_t*> keptData{nullptr};
Poco::Event keptReplied;

json_t* loads(const char* text)
{
    return json_loads(text, 0, nullptr);
}

// The method name picks the scenario; each replies exactly once, then ends the call.
void replyHandler(const char* method, zs_io* io, int fd)
{
    std::string m = method;
    if (m == "forward") {
        JsonRef data = JsonRef::adopt(loads("{\"path\":\"a/b\",\"pi\":3.14159,\"big\":123456.0,\"word\":\"caf\\u00e9\"}"));
        zs_reply_forward(io, fd, data.get());
    } else if (m == "forward-empty") {
        JsonRef data = JsonRef::adopt(json_object());
        zs_reply_forward(io, fd, data.get());
    } else if (m == "forward-null") {
        zs_reply_forward(io, fd, nullptr);
    } else if (m == "success") {
        zs_reply_json(io, fd, nullptr, 0, "");
    } else if (m == "error-clears-data") {
        JsonRef data = JsonRef::adopt(loads("{\"a\":1}"));
        zs_reply_json(io, fd, data.get(), 404, "signin");
    } else if (m == "keep") {
        json_t* data = loads("{\"a\":\"x/y\",\"error_code\":9}");
        zs_reply_json(io, fd, data, 0, "");
        keptData = data;  // the test checks and frees it
        keptReplied.set();
    } else if (m == "no-message") {
        zs_reply_json(io, fd, nullptr, 7, nullptr);
    } else if (m == "raw-bytes-message") {
        zs_reply_json(io, fd, nullptr, 404, "bad\xff");
    } else if (m == "descriptor-stays-open") {
        zs_reply_json(io, fd, nullptr, 0, "");
        fdprintf(fd, "|still open");
    }
    zs_io_free(io);
    if (fd >= 0)
        ::close(fd);
}

class ReplyTest : public ::testing::Test {
protected:
    TestBus bus{&replyHandler};
};

struct Pipe {
    Pipe() { EXPECT_EQ(::pipe(fds), 0); }
    ~Pipe()
    {
        closeWrite();
        ::close(fds[0]);
    }
    void closeWrite()
    {
        if (fds[1] >= 0)
            ::close(fds[1]);
        fds[1] = -1;
    }
    std::string readAll()
    {
        closeWrite();
        bool eof = false;
        std::string text = OrvexTest::readToEof(fds[0], 5000, &eof);
        EXPECT_TRUE(eof) << "the server kept a copy of the descriptor open";
        return text;
    }
    int fds[2] = {-1, -1};
};

}  // namespace

TEST_F(ReplyTest, ForwardWritesTheObjectAsItStands)
{
    ASSERT_TRUE(bus.ok());
    auto r = bus.call("forward");
    ASSERT_EQ(r.rc, 0) << r.error;
    EXPECT_EQ(r.body, "{\"path\":\"a\\/b\",\"pi\":3.1,\"big\":1.2e5,\"word\":\"caf\xc3\xa9\"}");
    EXPECT_EQ(bus.call("forward-empty").body, "{}");
    EXPECT_EQ(bus.call("forward-null").body, "{}");
}

TEST_F(ReplyTest, StatusKeysAreAddedAndErrorsDropTheData)
{
    EXPECT_EQ(bus.call("success").body, "{\"error_code\":0,\"error_message\":\"\"}");
    EXPECT_EQ(bus.call("error-clears-data").body, "{\"error_code\":404,\"error_message\":\"signin\"}");
    EXPECT_EQ(bus.call("no-message").body, "{\"error_code\":7}");
    EXPECT_EQ(bus.call("raw-bytes-message").body, "{\"error_code\":404,\"error_message\":\"bad?\"}");
}

TEST_F(ReplyTest, CallersObjectIsKeptWithTheStatusKeys)
{
    auto r = bus.call("keep");
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(r.body, "{\"a\":\"x\\/y\",\"error_code\":0,\"error_message\":\"\"}");
    ASSERT_TRUE(keptReplied.tryWait(10000));
    JsonRef data = JsonRef::adopt(keptData.exchange(nullptr));
    ASSERT_TRUE(data);
    EXPECT_EQ(data.get()->refcount, 1u);
    EXPECT_EQ(json_object_size(data.get()), 3u);
}

TEST_F(ReplyTest, DescriptorGetsHeaderAndJsonWithoutNewline)
{
    Pipe forward;
    auto r = bus.call("forward-empty", "", forward.fds[1]);
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(r.body, "");
    EXPECT_EQ(forward.readAll(), "Content-Type: application/json; charset=utf-8\r\n\r\n{}");

    Pipe status;
    r = bus.call("descriptor-stays-open", "", status.fds[1]);
    ASSERT_EQ(r.rc, 0);
    EXPECT_EQ(r.body, "");
    EXPECT_EQ(status.readAll(),
        "Content-Type: application/json; charset=utf-8\r\n\r\n{\"error_code\":0,\"error_message\":\"\"}|still open");
}

TEST(ReplyWriter, AppendsToTheChannelAndReportsFailure)
{
    ZsIoPtr io = makeZsIo();
    EXPECT_EQ(json_write_io("abc", 3, io.get()), 0);
    EXPECT_EQ(std::string(zs_io_read(io.get(), 0), zs_io_size(io.get())), "abc");
    EXPECT_LT(json_write_io("abc", 3, nullptr), 0);
}

TEST(ReplyWriter, NoChannelMeansNothingWritten)
{
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    zs_reply_json(nullptr, fds[1], nullptr, 500, "x");
    zs_reply_forward(nullptr, fds[1], nullptr);
    ZsIoPtr scratch = makeZsIo();  // not a call: never alive
    zs_reply_json(scratch.get(), fds[1], nullptr, 0, "");
    EXPECT_EQ(zs_io_size(scratch.get()), 0u);
    ::close(fds[1]);
    bool eof = false;
    EXPECT_EQ(OrvexTest::readToEof(fds[0], 1000, &eof), "");
    EXPECT_TRUE(eof);
    ::close(fds[0]);
}
