// Named registers through the library's exports against vukra-sim on a pty.
#include "link/register_transactions.h"
#include "modbus_vukra.h"
#include "session/session.h"
#include "support/files.h"
#include "support/sim_process.h"
#include "support/temp_dir.h"
#include "table/value_parse.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

using namespace vukra;

namespace {

struct EndToEnd : ::testing::Test {
    test::TempWorkingDir dir;
    EndToEnd() {
        test::write_file("table.xml", test::read_file(VUKRA_EXAMPLES_DIR "/table.xml"));
    }
    modbus_vukra_session* open(const test::SimProcess& sim) {
        testing::internal::CaptureStdout();
        modbus_vukra_session* s = modbus_vukra_op_session_open(sim.port().c_str());
        testing::internal::GetCapturedStdout();
        return s;
    }
};

// Writes text to the register by its type and reads it back as text.
std::string round_trip(modbus_vukra_session* s, const char* name, const char* text) {
    std::uint8_t value[256] = {};
    std::uint8_t back[256] = {};
    char shown[MODBUS_VUKRA_TEXT_SIZE];
    table::RegisterRecord reg;
    table::TypeRecord type;
    if (!table::find_register(reg, type, name) || !table::parse_value(type, text, value, sizeof value))
        return "<no such value>";
    std::int32_t count = 2 * type.words;
    testing::internal::CaptureStdout();
    std::int32_t wrote = modbus_vukra_op_protected_writereg(s, name, value, count);
    std::int32_t read = modbus_vukra_op_protected_readreg(s, name, back, count);
    testing::internal::GetCapturedStdout();
    if (wrote != count || read != count) return "<transfer failed>";
    if (std::memcmp(value, back, static_cast<std::size_t>(count)) != 0) return "<different value>";
    return modbus_vukra_op_register_btoa(shown, name, back) ? shown : "<no text>";
}

// The example table with every register readable and writable, for a
// device that lets the host write all of them.
void write_open_table(const char* name) {
    std::string text = test::read_file("table.xml");
    for (std::size_t at; (at = text.find("access=\"R\"")) != std::string::npos;) text.replace(at, 10, "access=\"RW\"");
    for (std::size_t at; (at = text.find("access=\"W\"")) != std::string::npos;) text.replace(at, 10, "access=\"RW\"");
    test::write_file(name, text);
}

TEST_F(EndToEnd, EveryTypeMakesTheRoundTrip) {
    write_open_table("open.xml");
    test::SimProcess sim({"--table", "open.xml"});
    modbus_vukra_session* s = open(sim);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(round_trip(s, "setpoint", "-2.25"), "-2.250000");
    EXPECT_EQ(round_trip(s, "offset_trim", "-32768"), "-32768");
    EXPECT_EQ(round_trip(s, "heater_on", "0"), "0");
    EXPECT_EQ(round_trip(s, "cycle_count", "65535"), "65535");
    EXPECT_EQ(round_trip(s, "energy", "-2000000000"), "-2000000000");
    EXPECT_EQ(round_trip(s, "uptime", "4000000000"), "4000000000");
    EXPECT_EQ(round_trip(s, "gain", "1.5"), "1.500000\n");
    EXPECT_EQ(round_trip(s, "probe_raw", "7 -8 9"), "7\n-8\n9\n");
    EXPECT_EQ(round_trip(s, "history", "123456 -7"), "123456\n-7\n");

    // Initial values come from the table's "value" attributes.
    std::uint32_t serial = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "serial_number", &serial, 4), 4);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(serial, 123456u);
    EXPECT_EQ(modbus_vukra_op_session_close(s), 0);
}

TEST_F(EndToEnd, CountsAreLimitedAndBadRequestsSendNothing) {
    test::SimProcess sim({"--table", "table.xml"});
    modbus_vukra_session* s = open(sim);
    ASSERT_NE(s, nullptr);
    std::uint8_t big[300] = {};
    testing::internal::CaptureStdout();
    EXPECT_EQ(modbus_vukra_op_protected_writereg(s, "offset_trim", big, 300), 256);
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "offset_trim", big, 0), 0);
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "offset_trim", big, 300), 256);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.find("0x"), 0u);

    testing::internal::CaptureStdout();
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "no_such_register", big, 2), -1);
    EXPECT_EQ(modbus_vukra_op_protected_writereg(s, "no_such_register", big, 2), -1);
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "offset_trim", nullptr, 2), -1);
    EXPECT_EQ(modbus_vukra_op_protected_readreg(nullptr, "offset_trim", big, 2), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "nothing went to the device";
    EXPECT_EQ(modbus_vukra_op_session_close(s), 0);
}

TEST_F(EndToEnd, AnUnmappedRegisterGetsAnExceptionReply) {
    // The device knows only the first table of the host's.
    std::string device_table = test::read_file("table.xml");
    std::size_t cut = device_table.find("<table name=\"status\"");
    std::size_t end = device_table.find("</table_list>");
    device_table.erase(cut, end - cut);
    test::write_file("device.xml", device_table);
    test::SimProcess sim({"--table", "device.xml"});
    modbus_vukra_session* s = open(sim);
    ASSERT_NE(s, nullptr);
    table::RegisterRecord reg;
    table::TypeRecord type;
    ASSERT_TRUE(table::find_register(reg, type, "temperature"));
    float value = 0;
    testing::internal::CaptureStdout();
    EXPECT_EQ(link::modbus_read_registers(s->port, reg, type, &value, sizeof value), 0);
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "temperature", &value, 4), -1);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Frame : [:0183027A<CR><LF>]"), std::string::npos);
    EXPECT_NE(out.find("Fonction incorrecte\n"), std::string::npos);
    EXPECT_EQ(modbus_vukra_op_session_close(s), 0);
}

// The device keeps to the table's access: a write of an "R" register and a
// read of a "W" one get exception 2, and the failure's cause says so.
TEST_F(EndToEnd, TheDeviceRefusesWhatTheAccessForbids) {
    test::SimProcess sim({"--table", "table.xml"});
    modbus_vukra_session* s = open(sim);
    ASSERT_NE(s, nullptr);
    std::uint16_t word = 7;
    testing::internal::CaptureStdout();
    EXPECT_EQ(modbus_vukra_op_protected_writereg(s, "cycle_count", &word, 2), -1);
    link::TransactionOutcome refused_write = link::last_outcome();
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "reset", &word, 2), -1);
    link::TransactionOutcome refused_read = link::last_outcome();
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "cycle_count", &word, 2), 2);
    link::TransactionOutcome done = link::last_outcome();
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(refused_write.failure, link::Failure::kException);
    EXPECT_EQ(refused_write.exception_code, 2);
    EXPECT_EQ(refused_read.failure, link::Failure::kException);
    EXPECT_EQ(done.failure, link::Failure::kNone);
    EXPECT_EQ(word, 4711) << "the refused write left the value";
    EXPECT_NE(out.find(":019002"), std::string::npos) << out;
    EXPECT_EQ(modbus_vukra_op_session_close(s), 0);
}

// On purpose: a read copies the byte count the host asks for (up to 256),
// whatever the register's size: the bytes past the value are the transfer
// area's zeros, and the host's area is filled that far.
TEST_F(EndToEnd, AReadCopiesTheCountAskedWhateverTheSize) {
    test::SimProcess sim({"--table", "table.xml"});
    modbus_vukra_session* s = open(sim);
    ASSERT_NE(s, nullptr);
    std::uint8_t area[300];
    std::memset(area, 0x55, sizeof area);
    testing::internal::CaptureStdout();
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "offset_trim", area, 300), 256);
    testing::internal::GetCapturedStdout();
    std::int16_t trim;
    std::memcpy(&trim, area, 2);
    EXPECT_EQ(trim, -12);
    EXPECT_EQ(area[255], 0);
    EXPECT_EQ(area[256], 0x55);
    EXPECT_EQ(modbus_vukra_op_session_close(s), 0);
}

TEST_F(EndToEnd, ACorruptedReplyIsRefused) {
    test::SimProcess sim({"--table", "table.xml", "--corrupt", "1", "--seed", "5"});
    modbus_vukra_session* s = open(sim);
    ASSERT_NE(s, nullptr);
    table::RegisterRecord reg;
    table::TypeRecord type;
    ASSERT_TRUE(table::find_register(reg, type, "energy"));
    std::int32_t value = 0;
    for (int i = 0; i < 5; ++i) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(link::modbus_read_registers(s->port, reg, type, &value, sizeof value), -1);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_TRUE(out.find("Erreur LRC") != std::string::npos || out.find("Trame incorrecte") != std::string::npos)
            << out;
    }
    EXPECT_EQ(modbus_vukra_op_session_close(s), 0);
}

TEST_F(EndToEnd, ASilentDeviceTimesOut) {
    test::SimProcess sim({"--table", "table.xml", "--silent"});
    modbus_vukra_session* s = open(sim);
    ASSERT_NE(s, nullptr);
    std::int16_t value = 0;
    testing::internal::CaptureStdout();
    std::uint32_t start = platform::clock_ms();
    EXPECT_EQ(modbus_vukra_op_protected_readreg(s, "offset_trim", &value, 2), -1);
    std::uint32_t waited = platform::clock_ms() - start;
    testing::internal::GetCapturedStdout();
    EXPECT_GE(waited, 4000u) << "the session's read time-out";
    EXPECT_EQ(modbus_vukra_op_session_close(s), 0);
}

TEST_F(EndToEnd, OpenFailsCleanlyWithoutATable) {
    std::remove("table.xml");
    test::SimProcess sim({"--table", VUKRA_EXAMPLES_DIR "/table.xml"});
    testing::internal::CaptureStdout();
    EXPECT_EQ(modbus_vukra_op_session_open(sim.port().c_str()), nullptr);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("error: cannot open xml input file: table.xml\r\n"), std::string::npos);
    EXPECT_FALSE(session::is_open());
}

} // namespace
