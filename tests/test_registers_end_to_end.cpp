// Named registers through the library's exports against vukra-sim on a pty.
#include "link/register_transactions.h"
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

// The device keeps to its table and the access: a register it does not map,
// a write of an "R" register and a read of a "W" one get exception 2.
TEST_F(EndToEnd, TheDeviceRefusesWhatItsTableForbids) {
    std::string device_table = test::read_file("table.xml");
    const std::size_t cut = device_table.find("<table name=\"status\"");
    device_table.erase(cut, device_table.find("</table_list>") - cut);
    test::write_file("device.xml", device_table);
    start({"--table", "device.xml"});
    std::uint16_t word = 7;
    float value = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "temperature", &value, 4), -1);
    EXPECT_EQ(modbus_vukra_op_protected_writereg(s, "cycle_count", &word, 2), -1);
    const link::TransactionOutcome refused_write = link::last_outcome();
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "reset", &word, 2), -1);
    const link::TransactionOutcome refused_read = link::last_outcome();
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "cycle_count", &word, 2), 2);
    const link::TransactionOutcome done = link::last_outcome();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Frame : [:0183027A<CR><LF>]"), std::string::npos) << out;
    EXPECT_NE(out.find(":019002"), std::string::npos) << out;
    EXPECT_EQ(refused_write.failure, link::Failure::kException);
    EXPECT_EQ(refused_write.exception_code, 2);
    EXPECT_EQ(refused_read.failure, link::Failure::kException);
    EXPECT_EQ(done.failure, link::Failure::kNone);
    EXPECT_EQ(word, 4711) << "the refused write left the value";
}

} // namespace
