#include "service/misc.h"
#include "zservice/channel.h"

#include "tests/support/bus.h"

#include <Poco/Event.h>

#include <gtest/gtest.h>

#include <string>

using namespace Orvex;
using Orvex::Test::ServedBus;
using Orvex::Test::Pipe;

namespace {

json_t* keptData = nullptr;  // handed over through keptReplied
Poco::Event keptReplied;

// The method name picks the reply; each call is answered once, then released.
void replyHandler(const char* method, zs_io* io, int fd)
{
    std::string m = method;
    JsonRef data = JsonRef::adopt(json_loads("{\"path\":\"a/b\",\"pi\":3.14159,\"big\":123456.0,\"word\":\"caf\\u00e9\"}", 0, nullptr));
    if (m == "forward")
        zs_reply_forward(io, fd, data.get());
    else if (m == "forward-empty" && json_object_clear(data.get()) == 0)
        zs_reply_forward(io, fd, data.get());
    else if (m == "forward-null")
        zs_reply_forward(io, fd, nullptr);
    else if (m == "success")
        zs_reply_json(io, fd, nullptr, 0, "");
    else if (m == "error")
        zs_reply_json(io, fd, data.get(), 404, "signin");
    else if (m == "no-message")
        zs_reply_json(io, fd, nullptr, 7, nullptr);
    else if (m == "keep") {
        keptData = json_pack("{s:s,s:i}", "a", "x/y", "error_code", 9);
        zs_reply_json(io, fd, keptData, 0, "");
        keptReplied.set();
    }
    zs_io_free(io);
    if (fd >= 0)
        ::close(fd);
}

}  // namespace

TEST(Reply, ForwardWritesTheObjectAsItStandsAndStatusRepliesAddTheirKeysAndDropTheData)
{
    ServedBus bus(&replyHandler);
    ASSERT_TRUE(bus.ok());
    const std::pair<const char*, const char*> table[] = {
        {"forward", "{\"path\":\"a\\/b\",\"pi\":3.1,\"big\":1.2e5,\"word\":\"caf\xc3\xa9\"}"},
        {"forward-empty", "{}"}, {"forward-null", "{}"},
        {"success", "{\"error_code\":0,\"error_message\":\"\"}"},
        {"error", "{\"error_code\":404,\"error_message\":\"signin\"}"}, {"no-message", "{\"error_code\":7}"},
    };
    for (const auto& [method, expected] : table)
        EXPECT_EQ(bus.call(method).body, expected) << method;

    EXPECT_EQ(bus.call("keep").body, "{\"a\":\"x\\/y\",\"error_code\":0,\"error_message\":\"\"}");
    ASSERT_TRUE(keptReplied.tryWait(10000));
    EXPECT_EQ(keptData->refcount, 1u) << "the caller's object was released or leaked";
    EXPECT_EQ(json_object_size(keptData), 3u);
    json_decref(keptData);
}

TEST(Reply, NothingIsWrittenWithoutALiveCaller)
{
    Pipe pipe;
    ZsIoPtr scratch = makeZsIo();  // a scratch buffer has no caller
    zs_reply_json(scratch.get(), pipe.writeEnd(), nullptr, 0, "");
    zs_reply_forward(nullptr, pipe.writeEnd(), nullptr);
    EXPECT_EQ(zs_io_size(scratch.get()), 0u);
    EXPECT_EQ(pipe.readAll(), "");
    EXPECT_LT(json_write_io("abc", 3, nullptr), 0);
    EXPECT_EQ(json_write_io("abc", 3, scratch.get()), 0);
    EXPECT_STREQ(zs_io_read(scratch.get(), 0), "abc");
}
