// The front end as an operator uses it on many devices: start that keeps a healthy session,
// time-outs, --json anywhere, one device's log lines, a fleet started from a file and one
// call for many sessions, and device text that cannot forge the listing. Real programs,
// under tests/isolate.sh.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>

#include "common/paths.h"
#include "tests/support/daemon.h"

namespace Orvex::Test {
namespace {

using FrontEnd = FrontEndTest;
using Clock = std::chrono::steady_clock;

// The JSON lines of a fleet command, by MAC; the summary under "".
std::map<std::string, JsonRef> linesByMac(const std::string& out)
{
    std::map<std::string, JsonRef> byMac;
    for (const std::string& line : lines(out)) {
        JsonRef json = parseJson(line);
        byMac[textAt(json.get(), "mac")] = std::move(json);
    }
    return byMac;
}

json_int_t number(const JsonRef& object, const char* key)
{
    return json_integer_value(json_object_get(object.get(), key));
}

TEST_F(FrontEnd, StartKeepsARunningSessionUnlessToldToReplaceIt)
{
    Devsim first("token", false), second("legacy", false);
    const std::string mac = "02:00:00:00:10:01";
    ASSERT_EQ(start(mac, first.port(), "secret", false).status, 0);
    const pid_t healthy = lockHolder(mac);

    // A typo must not end the healthy session: nothing reaches either device.
    const size_t seen = first.requests().size();
    RunResult typo = start(mac, second.port(), "wrong", false);
    EXPECT_EQ(typo.status, 7);
    EXPECT_EQ(typo.out, "");
    EXPECT_EQ(typo.err, "orvexctl: a session already runs for MAC " + mac + " (pid " + std::to_string(healthy) +
                            ", token device 127.0.0.1:" + std::to_string(first.port()) +
                            "); stop it first or give --replace\n");
    EXPECT_EQ(lockHolder(mac), healthy);
    EXPECT_EQ(first.requests().size(), seen);
    EXPECT_TRUE(second.requests().empty());

    RunResult replaced = start(mac, second.port(), "secret", false, {"--pass-env", "DEVICE_PASS", "--replace"});
    EXPECT_EQ(replaced.status, 0) << replaced.err;
    EXPECT_NE(lockHolder(mac), healthy);
    EXPECT_EQ(first.requestsTo("GET", "/zem/oauth/logout").size(), 1u) << "the old session signed out";
    EXPECT_TRUE(contains(ctl({"status", mac}).out, " legacy 127.0.0.1:" + std::to_string(second.port()) + " "));
}

TEST_F(FrontEnd, TimeOutsBoundStartAndCallAndJsonIsTakenAnywhere)
{
    Devsim slow("token", false, {"--delay-ms", "4000"});
    auto begin = Clock::now();
    RunResult late = start("02:00:00:00:11:01", slow.port(), "secret", false,
        {"--pass-env", "DEVICE_PASS", "--timeout", "1"});
    EXPECT_LT(Clock::now() - begin, 3s);
    EXPECT_EQ(late.status, 3);
    EXPECT_EQ(late.err, "orvexctl: the session for MAC 02:00:00:00:11:01 did not answer the sign-in within 1 s\n");
    // It is still signing in, slowly: out of the way.
    EXPECT_TRUE(signalSession("02:00:00:00:11:01", SIGKILL));

    Devsim device("token", false);
    const std::string mac = "02:00:00:00:11:02";
    ASSERT_EQ(start(mac, device.port(), "secret", false).status, 0);
    RunResult info = ctl({"call", mac, "get_device_system_info", "--json"});
    EXPECT_EQ(info.status, 0) << info.err;
    EXPECT_EQ(textAt(parseJson(info.out).get(), "model"), "ZEM-880");
    ASSERT_TRUE(signalSession(mac, SIGSTOP));
    begin = Clock::now();
    RunResult hung = ctl({"call", "--timeout", "1", mac, "get_device_system_info"});
    EXPECT_LT(Clock::now() - begin, 3s) << "a suspended session must not hold the caller 30 s";
    EXPECT_EQ(hung.status, 3);
    EXPECT_EQ(hung.err, "orvexctl: the session for MAC " + mac + " did not answer get_device_system_info within 1 s\n");

    RunResult stopped = ctl({"stop", "--all", "--json"});
    EXPECT_EQ(stopped.status, 0) << stopped.err;
    JsonRef report = parseJson(stopped.out);
    ASSERT_EQ(json_array_size(json_object_get(report.get(), "ended")), 1u) << stopped.out;
    EXPECT_EQ(textAt(json_array_get(json_object_get(report.get(), "ended"), 0), "mac"), mac);
    EXPECT_EQ(json_array_size(json_object_get(report.get(), "survivors")), 0u);
}

TEST_F(FrontEnd, LogsShowOneDevicesLinesFollowThemAndUseTheJournalForAUnit)
{
    Devsim device("token", false);
    const std::string mine = "02:00:00:00:12:01", other = "02:00:00:00:12:02";
    ASSERT_EQ(start(mine, device.port(), "secret", false).status, 0);
    ASSERT_EQ(start(other, device.port(), "secret", false).status, 0);
    const std::string pid = std::to_string(lockHolder(mine));

    RunResult all = ctl({"logs", mine, "-n", "1000"});
    EXPECT_EQ(all.status, 0) << all.err;
    std::vector<std::string> shown = lines(all.out);
    ASSERT_FALSE(shown.empty());
    for (const std::string& line : shown)
        EXPECT_TRUE(contains(line, "] [" + mine + " " + pid + "] ")) << line;
    const std::string signedIn = "[Information] [" + mine + " " + pid + "] [Session] signed in to token device 127.0.0.1:" +
                                 std::to_string(device.port()) + " (http)";
    EXPECT_TRUE(std::any_of(shown.begin(), shown.end(), [&](const std::string& l) { return contains(l, signedIn); }))
        << all.out;
    // The README's example line has the shape of the lines written (digits aside).
    auto shape = [](std::string line) {
        std::replace_if(line.begin(), line.end(), [](char ch) { return ch >= '0' && ch <= '9'; }, '9');
        return line.substr(0, line.find("] [") + 3);
    };
    const std::string readme = readFile(std::string(ORVEX_SOURCE_DIR) + "/README.md");
    const size_t example = readme.find(" [Information] [00:11:22:33:44:55 4242] [Session] ...`");
    ASSERT_NE(example, std::string::npos);
    const size_t tick = readme.rfind('`', example);
    EXPECT_EQ(shape(readme.substr(tick + 1, example - tick + 40)), shape(shown.front()));
    // The legacy probe that found the family is no warning: the token family signed in.
    EXPECT_FALSE(contains(all.out, "[Warning]")) << all.out;
    EXPECT_EQ(lines(ctl({"logs", mine, "-n", "2"}).out).size(), 2u);

    TempDir dir;
    Child follow(Spawn{{ctlBinary(), "logs", mine, "-n", "1", "-f"}, {}, dir.file("out"), dir.file("err"), false});
    // Its last line printed: from now on it follows.
    ASSERT_TRUE(waitFor([&] { return readFile(dir.file("out")) == shown.back() + "\n"; })) << readFile(dir.file("out"));
    ASSERT_TRUE(signalSession(other, SIGTERM));
    ASSERT_TRUE(signalSession(mine, SIGTERM));
    const std::string ends = "[" + mine + " " + pid + "] [Session] process " + pid + " ends, stopped: SIGTERM\n";
    EXPECT_TRUE(waitFor([&] { return contains(readFile(dir.file("out")), ends); })) << readFile(dir.file("out"));
    std::string followed = readFile(dir.file("out"));
    EXPECT_TRUE(contains(followed, "[" + mine + " " + pid + "] [Session] SIGTERM received: stopping\n")) << followed;
    EXPECT_FALSE(contains(followed, other)) << followed;

    // A service manager's instance: the journal has its lines.
    writeFile(dir.file("journalctl"), "#!/bin/sh\necho \"journalctl $*\"\n", 0755);
    const std::string unit = "02:00:00:00:12:03";
    Daemon instance(unit, {}, daemonBinary(), {}, kServiceManagerEnv);
    ASSERT_TRUE(waitFor([&] { return answers(unit); }));
    RunResult journal = ctl({"logs", unit, "-n", "5", "-f"}, {"PATH=" + dir.path() + ":/usr/bin:/bin"});
    EXPECT_EQ(journal.status, 0) << journal.err;
    EXPECT_EQ(journal.out, "journalctl --no-pager -u orvex-session@" + unit + " -n 5 -f\n");
}

TEST_F(FrontEnd, StartsAFleetFromAFileAndCallsManySessionsAtOnce)
{
    std::unique_ptr<Child> sim;
    const std::vector<int> ports = startFleet(3, sim);
    const std::string a = "02:00:00:00:13:01", b = "02:00:00:00:13:02", c = "02:00:00:00:13:03";
    TempDir dir;
    const std::string devices = writeFile(dir.file("devices"),
        "# MAC IP PORT USER SECURE\n" + a + " 127.0.0.1 " + std::to_string(ports[0]) + " admin\n" + b + ", 127.0.0.1, " +
            std::to_string(ports[1]) + ", admin, plain\n\n" + c + " 127.0.0.1 " + std::to_string(ports[2]) +
            " admin no  # the third\n",
        0644);
    const std::string open = writeFile(dir.file("open"), a + " secret\n", 0644);
    RunResult refused = ctl({"start", "--from", devices, "--pass-file", open});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.err, "orvexctl: " + open + ": may be read or written by others (mode 0644): refused; chmod 600 it\n");
    EXPECT_EQ(lockHolder(a), 0);

    const std::string passwords = writeFile(dir.file("passwords"), a + " secret\n" + b + " wrong\n" + c + " secret\n", 0600);
    RunResult started = ctl({"start", "--from", devices, "--pass-file", passwords, "--parallel", "2"});
    EXPECT_EQ(started.status, 1) << started.err;
    std::map<std::string, JsonRef> results = linesByMac(started.out);
    ASSERT_EQ(results.size(), 4u) << started.out;
    EXPECT_EQ(number(results[a], "exit"), 0);
    EXPECT_EQ(textAt(json_object_get(results[a].get(), "reply"), "model"), "NVX-4200");
    EXPECT_EQ(number(results[b], "exit"), 5);
    EXPECT_EQ(textAt(results[b].get(), "error"), "sign-in to 127.0.0.1:" + std::to_string(ports[1]) + " for " + b +
                                                   " failed: credentials");
    EXPECT_EQ(number(results[c], "exit"), 0);
    EXPECT_EQ(lines(started.out).back(), "{\"devices\":3,\"succeeded\":2,\"failed\":1}");

    // The refused one ends right after its reply: --all takes the sessions that run then.
    ASSERT_TRUE(waitFor([&] { return lockHolder(b) == 0; }));
    RunResult added = ctl({"call", "--all", "add_device_rsyslog_client", R"({"address":"192.0.2.9","mode":3,"port":514})"});
    EXPECT_EQ(added.status, 0) << added.err;
    std::map<std::string, JsonRef> replies = linesByMac(added.out);
    ASSERT_EQ(replies.size(), 3u) << added.out;
    for (const std::string& mac : {a, c})
        EXPECT_EQ(dump(json_object_get(replies[mac].get(), "reply")), "{\"id\":1,\"success\":true}") << mac;
    EXPECT_EQ(lines(added.out).back(), "{\"devices\":2,\"succeeded\":2,\"failed\":0}");

    RunResult named = ctl({"call", "--macs", devices, "get_device_rsyslog_client"});
    EXPECT_EQ(named.status, 1);
    replies = linesByMac(named.out);
    EXPECT_TRUE(contains(dump(json_object_get(replies[c].get(), "reply")), "192.0.2.9")) << named.out;
    EXPECT_EQ(number(replies[b], "exit"), 3);
    EXPECT_EQ(textAt(replies[b].get(), "error"), "no session process answers for MAC " + b);
    sim->closeStdin();
}

TEST_F(FrontEnd, DeviceTextIsShownEscapedAndBoundedAndStoredBounded)
{
    const std::string forged = "nas\n02:00:00:00:00:99 pid 1 running up 5s\x1b]0;owned\x07\x1b[2J\xe2\x80\xae";
    Devsim device("token", false, {"--hostname", forged + std::string(100000, 'x')});
    const std::string mac = "02:00:00:00:14:01";
    ASSERT_EQ(start(mac, device.port(), "secret", false).status, 0);
    RunResult info = ctl({"call", mac, "get_device_system_info"});
    EXPECT_GT(textAt(parseJson(info.out).get(), "hostname").size(), 100000u) << "callers still get what the device said";

    RunResult list = ctl({"list"});
    ASSERT_EQ(lines(list.out).size(), 1u) << list.out;
    EXPECT_TRUE(std::none_of(list.out.begin(), list.out.end() - 1,
        [](char ch) { return static_cast<unsigned char>(ch) < 0x20 || ch == 0x7f; })) << "a control character got through";
    // 64 characters shown, in quotes: it holds blanks.
    EXPECT_TRUE(contains(list.out, " hostname=\"nas\\n02:00:00:00:00:99 pid 1 running up 5s\\x1b]0;owned\\x07\\x1b[2J"
                                   "\\u202exxxxxxxx...\" idle ")) << list.out;
    EXPECT_LT(list.out.size(), 600u);

    struct stat st{};
    ASSERT_EQ(stat(Paths::statusPath(mac).c_str(), &st), 0);
    EXPECT_LT(st.st_size, 4096) << "the status file grew with the device's answer";
    JsonRef status = parseJson(ctl({"status", mac, "--json"}).out);
    EXPECT_EQ(textAt(status.get(), "hostname").size(), 256u);
    EXPECT_EQ(textAt(status.get(), "hostname").rfind(forged, 0), 0u);
}

}  // namespace
}  // namespace Orvex::Test
