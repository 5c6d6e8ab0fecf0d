#include "tests/unit/zservice_support.h"

#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

namespace Orvex::Test {

namespace {

std::atomic<int> callCount{0};
// The handler of the one TestService alive at a time (set before its loop starts).
TestService::Handler currentHandler;

}  // namespace

int openFdCount()
{
    DIR* dir = opendir("/proc/self/fd");
    int count = 0;
    while (readdir(dir))
        ++count;
    closedir(dir);
    return count;
}

int settledFdCount()
{
    {
        TestService warmUp;
    }
    return openFdCount();
}

TestService::TestService(Handler onCall, int recvTimeout, int policy, std::string address)
{
    callCount = 0;
    currentHandler = onCall ? std::move(onCall) : Handler(&TestService::echo);
    served_ = std::make_unique<ServedBus>(address, &TestService::dispatch, recvTimeout, policy);
}

int TestService::calls() const
{
    return callCount.load();
}

void TestService::dispatch(const char* method, zs_io* io, int fd)
{
    ++callCount;
    currentHandler(method, io, fd);
}

void TestService::echo(const char* method, zs_io* io, int fd)
{
    if (strcmp(method, "raw") != 0) {
        std::string reply = std::string("echo:") + method + ":" + zs_io_read(io, 0);
        zs_io_realloc(io, 0);
        zs_io_write(io, reply.data(), reply.size());
    }
    zs_reply(io);
    zs_io_free(io);
    if (fd >= 0)
        close(fd);
}

}  // namespace Orvex::Test
