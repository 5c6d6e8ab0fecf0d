// The client side of the per-device processes: a fake per-device service on the bus at
// the real address (private network namespace, so abstract names meet nothing else), and a
// fake program file in the private /usr/local/sbin.
#include "common/misc.h"
#include "common/paths.h"
#include "tests/support/session.h"

#include "tests/support/daemon.h"

#include <sys/stat.h>

#include <cstring>
#include <thread>

using namespace Orvex;

namespace {

constexpr const char* kMac = "00:11:22:33:44:55";
constexpr const char* kProgram = Paths::kDaemonPath;

// The per-device process on its real address: records each call and answers `answer`.
class FakeDevice {
public:
    explicit FakeDevice(std::string answer) : answer_(std::move(answer))
    {
        if (!service_.bus())
            throw std::runtime_error("cannot serve " + service_.address());
    }
    std::vector<std::pair<std::string, std::string>> calls() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }

private:
    void answer(const char* method, zs_io* io, int fd)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            calls_.emplace_back(method, zs_io_read(io, 0));
        }
        zs_io_realloc(io, 0);
        zs_io_write(io, answer_.data(), answer_.size());
        zs_reply(io);
        zs_io_free(io);
        if (fd >= 0)
            ::close(fd);
    }

    const std::string answer_;
    mutable std::mutex mutex_;
    std::vector<std::pair<std::string, std::string>> calls_;
    Orvex::Test::TestService service_{[this](const char* m, zs_io* io, int fd) { answer(m, io, fd); }, 30, 0,
        Paths::busAddress(kMac)};
};

JsonRef object(const char* text)
{
    return Orvex::Test::parseJson(text);
}

void writeProgram(const std::string& script)
{
    FILE* file = std::fopen(kProgram, "w");
    ASSERT_NE(file, nullptr);
    std::fputs(script.c_str(), file);
    std::fclose(file);
    ::chmod(kProgram, 0755);
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

class SessionBus : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!Orvex::Test::isolated())
            GTEST_SKIP() << "needs tests/isolate.sh (writes /usr/local/sbin)";
    }
};

}  // namespace

TEST_F(SessionBus, CallForwardsTheObjectAndReplacesItWithTheReply)
{
    FakeDevice device(R"({"error_code":0,"error_message":"","done":true})");
    JsonRef args = object(R"({"mac":"00:11:22:33:44:55"})");
    DeviceOption option(args.get());
    JsonRef inout = object(R"({"id":[7],"path":"a/b"})");
    json_t* raw = inout.get();
    Session::call(raw, option, "del_device_rsyslog_client");
    auto calls = device.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].first, "del_device_rsyslog_client");
    EXPECT_EQ(calls[0].second, R"({"id":[7],"path":"a\/b"})");
    EXPECT_EQ(Orvex::Test::dump(raw), R"({"done":true,"error_code":0,"error_message":""})");
}

TEST_F(SessionBus, StartLaunchesTheProgramThenSignsItIn)
{
    char marker[] = "/tmp/orvex-session-launch-XXXXXX";
    int fd = mkstemp(marker);
    ASSERT_GE(fd, 0);
    ::close(fd);
    writeProgram(std::string("#!/bin/sh\necho \"$@\" > ") + marker + "\n");
    FakeDevice device(R"({"model":"NVX-4200","error_code":0,"error_message":""})");
    JsonRef args = object(
        R"({"mac":"00:11:22:33:44:55","ip":"192.0.2.7","port":8080,"secure":true,"user":"admin","pass":"p/w"})");
    DeviceOption option(args.get());
    JsonRef out = object(R"({"stale":1})");
    json_t* raw = out.get();
    Session::start(raw, option);
    EXPECT_EQ(get_file_context(marker), std::string("-m ") + kMac + "\n");
    ::unlink(marker);
    auto calls = device.calls();
    // A readiness ping first, then the sign-in.
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].first, "ping");
    EXPECT_EQ(calls[1].first, "signin");
    EXPECT_EQ(calls[1].second, R"({"ip":"192.0.2.7","port":8080,"secure":true,"user":"admin","pass":"p\/w"})");
    EXPECT_EQ(Orvex::Test::dump(raw), R"({"error_code":0,"error_message":"","model":"NVX-4200"})");
}

TEST_F(SessionBus, StopAsksTheProcessToSignOutAndKeepsTheObject)
{
    FakeDevice device(R"({"error_code":0,"error_message":""})");
    JsonRef args = object(R"({"mac":"00:11:22:33:44:55"})");
    MacOption option(args.get());
    JsonRef out = object(R"({"keep":1})");
    json_t* raw = out.get();
    Session::stop(raw, option);
    auto calls = device.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].first, "signout");
    EXPECT_EQ(calls[0].second, "");
    EXPECT_EQ(Orvex::Test::dump(raw), R"({"keep":1})");
}

TEST_F(SessionBus, NobodyListeningOrNoMacIsSessionNotFoundWithTheMac)
{
    writeProgram("#!/bin/sh\nexit 0\n");
    for (const char* mac : {"66:77:88:99:AA:BB", ""}) {
        JsonRef args = object("{}");
        json_object_set_new(args.get(), "mac", json_string(mac));
        DeviceOption device(args.get());
        MacOption macOption(args.get());
        json_t* raw = args.get();
        expectNotFound([&] { Session::call(raw, device, "get_device_system_info"); }, mac);
        expectNotFound([&] { Session::stop(raw, macOption); }, mac);
        expectNotFound([&] { Session::start(raw, device); }, mac);
    }
}


TEST_F(SessionBus, StopWithoutAMacEndsEverySessionProcessWhichSignsOut)
{
    Orvex::Test::SignedIn a("legacy", false, "00:11:22:33:44:66"), b("token", false, "00:11:22:33:44:77");
    Session::stop();
    EXPECT_EQ(a.daemon.process().wait(), 0) << a.daemon.log();
    EXPECT_EQ(b.daemon.process().wait(), 0) << b.daemon.log();
    EXPECT_EQ(a.device.requestsTo("POST", "/cgi-bin/authLogout.cgi").size(), 1u);
    EXPECT_EQ(b.device.requestsTo("GET", "/zem/oauth/logout").size(), 1u);
}
