// The port probe of SyslogServerOption against real sockets and real processes. Runs under
// tests/isolate.sh (see option.cmake): a private network namespace, so the sockets it sees
// are its own.
#include "tests/support/option.h"
#include "tests/support/process.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

using namespace Orvex;
using namespace Orvex::Test;

namespace {

struct HeldPort {
    UniqueFd fd;
    int port = 0;
};

// A loopback socket of this very process; TCP ones listen. Port 0 picks a free one.
HeldPort holdPort(int type, int port = 0)
{
    HeldPort held;
    held.port = port;
    held.fd = Test::loopbackSocket(type, held.port);
    EXPECT_TRUE(held.fd) << port;
    return held;
}

// The compiled listener running under a file name ("rsyslogd" by default), as root with
// every capability; stopped by closing its stdin.
class Rsyslogd {
public:
    explicit Rsyslogd(const std::string& protocol, const std::string& name = "rsyslogd")
    {
        std::filesystem::copy_file(ORVEX_OPTION_LISTENER, dir_.file(name));
        Test::Spawn spawn{{dir_.file(name), protocol}, {}, dir_.file("port"), ""};
        spawn.stdinPipe = true;
        child_ = std::make_unique<Test::Child>(spawn);
        Test::waitFor([this] { return Test::readFile(dir_.file("port")).find('\n') != std::string::npos; });
        port = std::atoi(Test::readFile(dir_.file("port")).c_str());
    }
    ~Rsyslogd()
    {
        child_->closeStdin();
        child_->wait();
    }
    int port = 0;

private:
    Test::TempDir dir_;
    std::unique_ptr<Test::Child> child_;
};

std::string ports(int tcp, int udp)
{
    return "{\"tcp_port\":" + std::to_string(tcp) + ",\"udp_port\":" + std::to_string(udp) + "}";
}

// A loopback port held by a process of uid nobody.
std::function<std::string()> portOfNobody(int type)
{
    return [type] {
        int port = 0;
        return Test::loopbackSocket(type, port).release() >= 0 ? std::to_string(port) : "";
    };
}

// The record's outcome as root without capabilities sees it (the daemon under its unit):
// the descriptors of other users' processes, and of root's that hold capabilities, are
// closed to it. "verdict:" and the outcome, or why there is none.
std::string outcomeWithoutCapabilities(const std::string& args)
{
    Test::TempDir dir;
    Test::inChild([&] {
        std::ofstream(dir.file("verdict"))
            << (Test::dropCapabilities() ? "verdict:" + outcome<SyslogServerOption>(args) : "capset refused");
    });
    return Test::readFile(dir.file("verdict"));
}

class PortProbe : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (std::getenv("ORVEX_ISOLATED"))
            return;
        // Under ctest (which sets ORVEX_BUILD_DIR) a missing isolation is a registration fault.
        if (std::getenv("ORVEX_BUILD_DIR"))
            FAIL() << "ctest ran this without tests/isolate.sh";
        GTEST_SKIP() << "needs tests/isolate.sh (ctest runs it so)";
    }
};

}  // namespace

TEST_F(PortProbe, AcceptsFreePorts)
{
    int tcp = holdPort(SOCK_STREAM).port;  // released again at once
    int udp = holdPort(SOCK_DGRAM).port;
    JsonRef args = JsonRef::adopt(json_loads(ports(tcp, udp).c_str(), 0, nullptr));
    SyslogServerOption option(args.get());
    EXPECT_EQ(option.tcp_port, tcp);
    EXPECT_EQ(option.udp_port, udp);
}

TEST_F(PortProbe, AcceptsPortsHeldByRsyslogd)
{
    Rsyslogd tcp("tcp"), udp("udp");
    ASSERT_GT(tcp.port, 0);
    ASSERT_GT(udp.port, 0);
    EXPECT_EQ(outcome<SyslogServerOption>(ports(tcp.port, udp.port)), "");
}

TEST_F(PortProbe, RefusesPortsHeldByAnyOtherProgramPerProtocol)
{
    HeldPort tcp = holdPort(SOCK_STREAM);
    HeldPort udp = holdPort(SOCK_DGRAM);
    HeldPort free = holdPort(SOCK_DGRAM);
    free.fd.reset();
    EXPECT_EQ(outcome<SyslogServerOption>(ports(tcp.port, free.port)), "tcp_port occupied");
    EXPECT_EQ(outcome<SyslogServerOption>(ports(free.port, udp.port)), "udp_port occupied");
    // Each probe looks at its own protocol only: a UDP socket leaves the TCP port free.
    EXPECT_EQ(outcome<SyslogServerOption>(ports(udp.port, tcp.port)), "");
}

TEST_F(PortProbe, ProbesOnlyGivenPortsAfterTheirRangeTcpFirst)
{
    HeldPort tcp = holdPort(SOCK_STREAM, 1514);
    HeldPort udp = holdPort(SOCK_DGRAM, 1514);
    EXPECT_EQ(outcome<SyslogServerOption>("{}"), "");  // the defaults are not probed
    EXPECT_EQ(outcome<SyslogServerOption>(R"({"tcp_port":"1514"})"), "tcp_port occupied");
    EXPECT_EQ(outcome<SyslogServerOption>(R"({"udp_port":"1514abc"})"), "udp_port occupied");
    EXPECT_EQ(outcome<SyslogServerOption>(R"({"tcp_port":1514,"udp_port":0})"), "tcp_port occupied");
    EXPECT_EQ(outcome<SyslogServerOption>(R"({"tcp_port":0,"udp_port":1514})"), "tcp_port incorrect");
    EXPECT_EQ(outcome<SyslogServerOption>(R"({"enable":true,"tcp_port":1514})"), "syslog cannot enable while both tcp/udp disabled");
}

// The unit gives the daemon no capabilities, so the probe cannot see which process holds a
// socket of another user or of a root process with capabilities; it must still refuse
// ports of other programs and accept those of the system log daemon.
TEST_F(PortProbe, TellsTheSystemLogDaemonApartWithoutPrivilegeOverOtherProcesses)
{
    Orvex::Test::Stranger tcp(portOfNobody(SOCK_STREAM)), udp(portOfNobody(SOCK_DGRAM));
    ASSERT_TRUE(tcp && udp) << "needs root to play uid nobody";
    const int tcpPort = std::atoi(tcp.said().c_str()), udpPort = std::atoi(udp.said().c_str());
    int free = holdPort(SOCK_DGRAM).port;
    EXPECT_EQ(outcomeWithoutCapabilities(ports(free, free)), "verdict:");
    EXPECT_EQ(outcomeWithoutCapabilities(ports(tcpPort, free)), "verdict:tcp_port occupied");
    EXPECT_EQ(outcomeWithoutCapabilities(ports(free, udpPort)), "verdict:udp_port occupied");
    {
        Rsyslogd other("tcp", "syslog-ng");
        EXPECT_EQ(outcomeWithoutCapabilities(ports(other.port, free)), "verdict:tcp_port occupied");
    }
    Rsyslogd rsyslogTcp("tcp"), rsyslogUdp("udp");
    EXPECT_EQ(outcomeWithoutCapabilities(ports(rsyslogTcp.port, rsyslogUdp.port)), "verdict:");
    // The system log daemon runs as root: a port of nobody is still another program's.
    EXPECT_EQ(outcomeWithoutCapabilities(ports(tcpPort, rsyslogUdp.port)), "verdict:tcp_port occupied");
}
