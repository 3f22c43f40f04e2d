// Ports named tcp://: the names, and sessions through vukra-sim --listen,
// which plays the device behind a serial device server.
#include "link/port_name.h"
#include "support/session_fixture.h"
#include "support/sim_process.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

using namespace vukra;

namespace {

TEST(TcpName, TakesHostsAndPortsAndRefusesTheRest) {
    const char* const good[][3] = {{"tcp://127.0.0.1:4001", "127.0.0.1", "4001"},
                                   {"tcp://[::1]:7", "::1", "7"},
                                   {"tcp://dev-3.plant:65535", "dev-3.plant", "65535"}};
    for (const auto& g : good) {
        link::TcpAddress a{};
        EXPECT_TRUE(link::parse_tcp_name(g[0], a)) << g[0];
        EXPECT_STREQ(a.host, g[1]);
        EXPECT_STREQ(a.service, g[2]);
    }
    for (const char* bad : {"tcp://", "tcp://host", "tcp://host:", "tcp://:80", "tcp://host:0", "tcp://host:65536",
                            "tcp://host:8a", "tcp://::1:80", "tcp://[::1]80", "tcp://[]:80", "tcp://h/x:80",
                            "tcp://host:123456", "TCP://host:80", "/dev/ttyS0"}) {
        link::TcpAddress a{};
        EXPECT_FALSE(link::parse_tcp_name(bad, a)) << bad;
    }
    EXPECT_FALSE(link::is_tcp_name("/dev/ttyS0"));
}

using Clock = std::chrono::steady_clock;
long ms_since(Clock::time_point start) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

struct TcpSession : test::SessionFixture {
    std::unique_ptr<test::SimProcess> sim;
    void start(const std::string& listen) {
        sim = std::make_unique<test::SimProcess>(
            std::vector<std::string>{"--table", "table.xml", "--image", card, "--listen", listen}, true);
    }
};

// Registers and files go through; a server that goes away makes each call
// fail as a silent device does, within the time-out and a second, and the
// first call once it is back goes through on a new connection.
TEST_F(TcpSession, CarriesRegistersAndFilesAndSurvivesTheServersRestart) {
    start("127.0.0.1:0");
    const std::string port = sim->port();
    ASSERT_EQ(port.rfind("tcp://127.0.0.1:", 0), 0u) << port;
    modbus_vukra_session* s = open(port);
    ASSERT_NE(s, nullptr);
    std::int16_t trim = 77, back = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(modbus_vukra_op_protected_writereg(s, "offset_trim", &trim, 2), 2);
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "offset_trim", &back, 2), 2);
    EXPECT_EQ(back, 77);
    EXPECT_EQ(modbus_vukra_op_protected_mount(s), 0);
    std::int32_t info[MODBUS_VUKRA_INFO_WORDS] = {};
    modbus_vukra_op_session_info(s, info);
    EXPECT_GT(info[3], 0) << "the exchange's bits per second, counted as on a line";

    sim.reset(); // the server is gone
    Clock::time_point t = Clock::now();
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "offset_trim", &back, 2), -1);
    EXPECT_LT(ms_since(t), 5000);
    t = Clock::now();
    EXPECT_EQ(modbus_vukra_op_protected_mount(s), -1);
    EXPECT_EQ(modbus_vukra_op_session_error(s), 513);
    EXPECT_LT(ms_since(t), 5000);

    start(port.substr(6)); // back on the same port
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "offset_trim", &back, 2), 2);
    EXPECT_EQ(back, -12); // a new device, from its table
    EXPECT_EQ(modbus_vukra_op_protected_mount(s), 0);
    testing::internal::GetCapturedStdout();
    close(s);
}

} // namespace
