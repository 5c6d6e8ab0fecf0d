// The client side of the per-device processes when there is none to reach: no process on
// the bus, or no MAC at all (which the front end's own checks never let through). Starting,
// calling and stopping real ones is tested end to end through orvexctl (tests/e2e).
#include "common/paths.h"
#include "tests/support/session.h"

#include <sys/stat.h>

using namespace Orvex;

namespace {

// A program in the private /usr/local/sbin that starts nothing.
void writeIdleProgram()
{
    FILE* file = std::fopen(Paths::kDaemonPath, "w");
    ASSERT_NE(file, nullptr);
    std::fputs("#!/bin/sh\nexit 0\n", file);
    std::fclose(file);
    ::chmod(Paths::kDaemonPath, 0755);
}

template <typename Call>
void expectNotFound(Call call, const std::string& mac)
{
    try {
        call();
        ADD_FAILURE() << "no SessionNotFound for '" << mac << "'";
    } catch (const SessionNotFound& e) {
        EXPECT_EQ(e.message(), mac);
        EXPECT_EQ(e.code(), 0);
    }
}

}  // namespace

TEST(SessionBus, NobodyListeningOrNoMacIsSessionNotFoundWithTheMac)
{
    if (!Orvex::Test::isolated())
        GTEST_SKIP() << "needs tests/isolate.sh (writes /usr/local/sbin)";
    writeIdleProgram();
    for (const char* mac : {"66:77:88:99:AA:BB", ""}) {
        JsonRef args = JsonRef::adopt(json_pack("{ss}", "mac", mac));
        DeviceOption device(args.get());
        MacOption macOption(args.get());
        json_t* raw = args.get();
        expectNotFound([&] { Session::call(raw, device, "get_device_system_info"); }, mac);
        expectNotFound([&] { Session::stop(raw, macOption); }, mac);
        expectNotFound([&] { Session::start(raw, device); }, mac);
    }
}
