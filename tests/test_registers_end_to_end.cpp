// Named registers through the library's exports against vukra-sim on a pty.
#include "modbus_vukra.h"
#include "session/session.h"
#include "support/session_fixture.h"
#include "support/sim_process.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

using namespace vukra;

namespace {

struct EndToEnd : test::SessionFixture {
    modbus_vukra_session* s = nullptr;
    void start(std::vector<std::string> arguments) {
        sim.emplace(arguments);
        s = open(sim->port());
        ASSERT_NE(s, nullptr);
    }
    ~EndToEnd() override {
        if (s != nullptr) close(s);
    }
    std::optional<test::SimProcess> sim;
};

// A read copies the count asked for (up to 256) whatever the register's
// size: past the value, the transfer area's zeros. Initial values come from
// the table's "value" attributes. Bad requests send nothing.
TEST_F(EndToEnd, CountsAreLimitedAndBadRequestsSendNothing) {
    start({"--table", "table.xml"});
    std::uint8_t area[300];
    std::memset(area, 0x55, sizeof area);
    testing::internal::CaptureStdout();
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "offset_trim", area, 300), 256);
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "offset_trim", area + 290, 0), 0);
    std::uint32_t serial = 0;
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "serial_number", &serial, 4), 4);
    EXPECT_EQ(testing::internal::GetCapturedStdout().find("0x"), 0u);
    std::int16_t trim;
    std::memcpy(&trim, area, 2);
    EXPECT_EQ(trim, -12);
    EXPECT_EQ(serial, 123456u);
    EXPECT_EQ((std::vector<int>{area[2], area[255], area[256], area[290]}), (std::vector<int>{0, 0, 0x55, 0x55}));

    std::uint8_t big[300] = {};
    testing::internal::CaptureStdout();
    EXPECT_EQ(modbus_vukra_op_protected_writereg(s, "energy", big, 300), 256);
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "no_such_register", big, 2), -1);
    EXPECT_EQ(modbus_vukra_op_protected_writereg(s, "no_such_register", big, 2), -1);
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "offset_trim", nullptr, 2), -1);
    EXPECT_EQ(modbus_vukra_op_protected_readreg(nullptr, "offset_trim", big, 2), -1);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("0x"), out.rfind("0x")) << "only the write went to the device";
}

} // namespace
