// The port probe of SyslogServerOption against real sockets and the real lsof. Runs under
// tests/isolate.sh (see option.cmake): private network namespace, /usr/sbin/lsof present.
#include "tests/support/option.h"
#include "tests/support/process.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>
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

// The compiled listener running under the file name "rsyslogd"; stopped by closing its stdin.
class Rsyslogd {
public:
    explicit Rsyslogd(const std::string& protocol)
    {
        std::filesystem::copy_file(ORVEX_OPTION_LISTENER, dir_.file("rsyslogd"));
        Test::Spawn spawn{{dir_.file("rsyslogd"), protocol}, {}, dir_.file("port"), ""};
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
