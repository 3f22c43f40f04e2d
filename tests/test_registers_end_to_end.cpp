// Named registers through the library's exports against vukra-sim on a pty.
#include "link/register_transactions.h"
#include "modbus_vukra.h"
#include "session/session.h"
#include "support/session_fixture.h"
#include "support/sim_process.h"
#include "table/value_parse.h"

#include <gtest/gtest.h>

#include <cstdio>
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

// Writes text to the register by its type and reads it back as text.
std::string round_trip(modbus_vukra_session* s, const char* name, const char* text) {
    std::uint8_t value[256] = {}, back[256] = {};
    char shown[MODBUS_VUKRA_TEXT_SIZE];
    table::RegisterRecord reg;
    table::TypeRecord type;
    if (!table::find_register(reg, type, name) || !table::parse_value(type, text, value, sizeof value)) return "<no value>";
    const std::int32_t count = 2 * type.words;
    testing::internal::CaptureStdout();
    const std::int32_t wrote = modbus_vukra_op_protected_writereg(s, name, value, count);
    const std::int32_t read = modbus_vukra_op_protected_readreg(s, name, back, count);
    testing::internal::GetCapturedStdout();
    if (wrote != count || read != count) return "<transfer failed>";
    if (std::memcmp(value, back, static_cast<std::size_t>(count)) != 0) return "<different value>";
    return modbus_vukra_op_register_btoa(shown, name, back) ? shown : "<no text>";
}

TEST_F(EndToEnd, EveryTypeMakesTheRoundTripOnADeviceThatLetsAllBeWritten) {
    std::string text = test::read_file("table.xml");
    for (const char* access : {"access=\"R\"", "access=\"W\""})
        for (std::size_t at; (at = text.find(access)) != std::string::npos;) text.replace(at, 10, "access=\"RW\"");
    test::write_file("open.xml", text);
    start({"--table", "open.xml"});
    const char* const cases[][3] = {
        {"setpoint", "-2.25", "-2.250000"},      {"offset_trim", "-32768", "-32768"}, {"heater_on", "0", "0"},
        {"cycle_count", "65535", "65535"},       {"energy", "-2000000000", "-2000000000"},
        {"uptime", "4000000000", "4000000000"},  {"gain", "1.5", "1.500000\n"},
        {"probe_raw", "7 -8 9", "7\n-8\n9\n"},   {"history", "123456 -7", "123456\n-7\n"}};
    for (const auto& c : cases) EXPECT_EQ(round_trip(s, c[0], c[1]), c[2]) << c[0];
}

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

TEST_F(EndToEnd, OpenFailsCleanlyWithoutATable) {
    std::remove("table.xml");
    test::SimProcess device({"--table", VUKRA_EXAMPLES_DIR "/table.xml"});
    testing::internal::CaptureStdout();
    EXPECT_EQ(modbus_vukra_op_session_open(device.port().c_str()), nullptr);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("error: cannot open xml input file: table.xml\r\n"),
              std::string::npos);
    EXPECT_FALSE(session::is_open());
}

} // namespace
