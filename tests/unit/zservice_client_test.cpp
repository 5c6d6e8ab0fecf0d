// zs_call's failures, addresses on disk and in the abstract namespace, channels as
// plain buffers, and NULL everywhere.
#include "tests/support/bus.h"

#include <gtest/gtest.h>

#include "zservice/channel.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

using namespace Orvex::Test;

namespace {

int callErrno(const std::string& address, zs_io* io, int timeout = 5, const std::string& method = "m")
{
    errno = 0;
    EXPECT_EQ(-1, zs_call(address.c_str(), method.c_str(), io, timeout, -1));
    return errno;
}

}  // namespace

TEST(ZserviceCall, NobodyListeningIsReportedAsRefusedOrMissing)
{
    EXPECT_EQ(ECONNREFUSED, callErrno(uniqueAddress("nobody"), nullptr));
    EXPECT_EQ(ENOENT, callErrno("/nonexistent-dir/orvex-bus.sock", nullptr));
}

TEST(ZserviceCall, SilentServerTimesOutWithinTheWholeExchangeLimit)
{
    const std::string address = uniqueAddress("silent");
    Orvex::UniqueFd listener(rawListen(address));  // never accepts: the call sits in the backlog
    Orvex::ZsIoPtr io = Orvex::makeZsIo();
    zs_io_printf(io.get(), "keep");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ETIMEDOUT, callErrno(address, io.get(), 1));
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    EXPECT_GE(ms.count(), 900);
    EXPECT_LT(ms.count(), 3000);
    EXPECT_STREQ("keep", zs_io_read(io.get(), 0));
}

TEST(ZserviceCall, RefusesBadArgumentsBeforeConnecting)
{
    TestService service;
    Orvex::ZsIoPtr io = Orvex::makeZsIo();
    ASSERT_EQ(0, zs_io_realloc(io.get(), ZS_MAX_BODY + 1));
    EXPECT_EQ(EMSGSIZE, callErrno(service.address(), io.get()));

    const std::string tooLong = "@" + std::string(sizeof(sockaddr_un::sun_path), 'a');
    EXPECT_EQ(ENAMETOOLONG, callErrno(tooLong, nullptr));
    EXPECT_EQ(nullptr, zs_create(tooLong.c_str(), 4, 1, TestService::echo));
    const std::string longest = "@" + std::string(sizeof(sockaddr_un::sun_path) - 1, 'a');
    zs* bus = zs_create(longest.c_str(), 4, 1, TestService::echo);
    EXPECT_NE(nullptr, bus);
    zs_free(bus);

    for (const std::string& method : {std::string(ZS_MAX_NAME + 1, 'm'), std::string()})
        EXPECT_EQ(EINVAL, callErrno(service.address(), nullptr, 5, method));
    EXPECT_EQ(0, service.calls());
    // The reply is discarded when no channel is given.
    EXPECT_EQ(0, zs_call(service.address().c_str(), "m", nullptr, 5, -1));
}

TEST(ZserviceAddress, TakenAddressIsRefusedAndSocketFilesAreReplacedAndRemoved)
{
    TestService live;
    EXPECT_EQ(nullptr, zs_create(live.address().c_str(), 4, 1, TestService::echo));

    TempDir dir;
    const std::string path = dir.file("bus.sock");
    ASSERT_EQ(0, close(rawListen(path)));  // a crashed server's leftover socket file
    {
        TestService onDisk({}, 4, 1, path);
        ASSERT_NE(nullptr, onDisk.bus());
        EXPECT_EQ(nullptr, zs_create(path.c_str(), 4, 1, TestService::echo));
        Orvex::ZsIoPtr io = Orvex::makeZsIo();
        ASSERT_EQ(0, zs_call(path.c_str(), "disk", io.get(), 5, -1));
        EXPECT_STREQ("echo:disk:", zs_io_read(io.get(), 0));
    }
    struct stat st{};
    EXPECT_NE(0, lstat(path.c_str(), &st));
}

TEST(ZserviceChannel, BufferKeepsItsContentZeroTerminated)
{
    Orvex::ZsIoPtr holder = Orvex::makeZsIo();
    zs_io* io = holder.get();
    EXPECT_STREQ("", zs_io_read(io, 0));
    EXPECT_EQ(5, zs_io_write(io, "hello", 5));
    EXPECT_EQ(5, zs_io_printf(io, " %s%03d", "n", 7));
    EXPECT_EQ(10u, zs_io_size(io));
    EXPECT_STREQ("hello n007", zs_io_read(io, 0));
    EXPECT_STREQ("n007", zs_io_read(io, 6));
    EXPECT_STREQ("", zs_io_read(io, 10));
    EXPECT_STREQ("", zs_io_read(io, 1000));

    EXPECT_EQ(0, zs_io_realloc(io, 2));
    EXPECT_STREQ("he", zs_io_read(io, 0));
    EXPECT_EQ(0, zs_io_realloc(io, 4));
    EXPECT_EQ(0, memcmp("he\0\0", zs_io_read(io, 0), 5));

    const std::string large(100000, 'z');
    EXPECT_EQ(0, zs_io_realloc(io, 0));
    for (int i = 0; i < 10; ++i)
        zs_io_write(io, large.data(), large.size());
    EXPECT_EQ(1000000u, zs_io_size(io));
    EXPECT_EQ(0, zs_io_read(io, 0)[1000000]);
    EXPECT_EQ(0, zs_io_alive(io));
    EXPECT_EQ(-1, zs_reply(io));
}
