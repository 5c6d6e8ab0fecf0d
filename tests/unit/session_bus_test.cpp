// The client side of the per-device processes: a fake per-device service on the bus at
// the real address (private network namespace, so abstract names meet nothing else), and a
// fake program file in the private /usr/local/sbin.
#include "common/misc.h"
#include "tests/unit/session_support.h"

#include "tests/support/bus.h"

#include <sys/stat.h>

#include <cstring>
#include <thread>

using namespace Orvex;

namespace {

constexpr const char* kMac = "00:11:22:33:44:55";
constexpr const char* kProgram = "/usr/local/sbin/orvex-session";

// What the fake per-device process saw and what it answers; one call at a time.
std::mutex gMutex;
std::vector<std::pair<std::string, std::string>> gCalls;
std::string gAnswer;

void fakeHandler(const char* method, zs_io* io, int fd)
{
    std::string answer;
    {
        std::lock_guard<std::mutex> lock(gMutex);
        gCalls.emplace_back(method, zs_io_read(io, 0));
        answer = gAnswer;
    }
    zs_io_realloc(io, 0);
    zs_io_write(io, answer.data(), answer.size());
    zs_reply(io);
    zs_io_free(io);
    if (fd >= 0)
        ::close(fd);
}

class FakeDevice {
public:
    explicit FakeDevice(const std::string& answer)
    {
        std::lock_guard<std::mutex> lock(gMutex);
        gCalls.clear();
        gAnswer = answer;
        if (!bus_.ok())
            throw std::runtime_error("cannot serve " + bus_.address());
    }
    std::vector<std::pair<std::string, std::string>> calls() const
    {
        std::lock_guard<std::mutex> lock(gMutex);
        return gCalls;
    }

private:
    Test::ServedBus bus_{std::string("@/var/run/orvex/orvex-session@") + kMac, &fakeHandler};
};

JsonRef object(const char* text)
{
    return Harness::parseJson(text);
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
    EXPECT_EQ(Harness::dump(raw), R"({"done":true,"error_code":0,"error_message":""})");
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
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].first, "signin");
    EXPECT_EQ(calls[0].second, R"({"ip":"192.0.2.7","port":8080,"secure":true,"user":"admin","pass":"p\/w"})");
    EXPECT_EQ(Harness::dump(raw), R"({"error_code":0,"error_message":"","model":"NVX-4200"})");
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
    EXPECT_EQ(Harness::dump(raw), R"({"keep":1})");
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

TEST_F(SessionBus, StopAllEndsEveryProcessRunningTheProgram)
{
    std::string copy = std::string("cp /bin/sleep ") + kProgram;
    ASSERT_EQ(std::system(copy.c_str()), 0);
    pid_t pid = ::fork();
    if (pid == 0) {
        ::execl(kProgram, kProgram, "30", static_cast<char*>(nullptr));
        ::_exit(127);
    }
    // lsof finds the process only once it runs the program; wait for the exec to show.
    std::string exe = "/proc/" + std::to_string(pid) + "/exe";
    for (int i = 0; i < 5000; ++i) {
        char target[256] = {0};
        if (::readlink(exe.c_str(), target, sizeof target - 1) > 0 && std::strstr(target, "orvex-session"))
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    Session::stop();
    int status = 0;
    ::waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}
