// Register transactions on the line, against a scripted device on a pty.
#include "link/register_transactions.h"
#include "support/files.h"
#include "support/pty_pair.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <string>
#include <functional>
#include <thread>
#include <vector>

using namespace vukra;
using test::PtyPair;

namespace {

struct TransactionTest : ::testing::Test {
    test::TempWorkingDir dir;
    PtyPair pty;
    link::Port* port = nullptr;
    table::RegisterRecord reg{};
    table::TypeRecord type{};

    TransactionTest() {
        test::write_file("table.xml", R"(<root><type_list>
<type name="int16" words="1"/><type name="int32" words="2"/></type_list><table_list>
<table name="t" base="FFF0"><register_list>
<register name="one" type="int16" offset="0"/><register name="two" type="int32" offset="20"/>
</register_list></table></table_list></root>)");
        table::load("table.xml");
        const link::SerialSettings quick{400000, 'N', 8, 1, 500};
        port = link::serial_open(0, pty.slave_path.c_str(), 0, &quick);
    }
    ~TransactionTest() override { link::serial_close(port); }

    // The request as it arrived, after the device answered it with reply.
    std::string answer_with(const std::string& reply) {
        std::vector<std::uint8_t> request;
        std::thread device([&] {
            request = pty.receive_packet(1000);
            if (!reply.empty()) pty.send_packet(reply);
        });
        result = run();
        device.join();
        return {request.begin(), request.end()};
    }

    std::function<int()> run;
    int result = 99;
};

TEST_F(TransactionTest, ReadOfTwoWordsGivesTheHostNumber) {
    ASSERT_TRUE(table::find_register(reg, type, "two"));
    std::uint32_t value = 0;
    run = [&] { return link::modbus_read_registers(port, reg, type, &value, sizeof value); };
    testing::internal::CaptureStdout();
    std::string request = answer_with(":01030412345678E4\r\n");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, 1);
    EXPECT_EQ(value, 0x12345678u);
    // 0xFFF0 + 0x20 is sent cut to 16 bits and printed in full.
    EXPECT_EQ(request, ":010300100002EA\r\n");
    EXPECT_EQ(out.substr(0, out.find('\n') + 1), "0x10010, int32, 2 mots\n");
    EXPECT_NE(out.find("Frame : [:010300100002EA<CR><LF>]\n"), std::string::npos);
    EXPECT_NE(out.find("Ok ("), std::string::npos);
}

// On purpose: a buffer travels as one big-endian number, so its elements
// go on the wire last first.
TEST_F(TransactionTest, WritesSendTheValueMostSignificantFirstAndABufferLastElementFirst) {
    ASSERT_TRUE(table::find_register(reg, type, "two"));
    std::uint32_t value = 0x2A;
    run = [&] { return link::modbus_write_registers(port, reg, type, &value); };
    testing::internal::CaptureStdout();
    EXPECT_EQ(answer_with(":011000100002DD\r\n"), ":01100010000204000000" "2AAF\r\n");
    EXPECT_EQ(result, 1);
    ASSERT_TRUE(table::find_register(reg, type, "one"));
    const table::TypeRecord buffer{"buffer_short3", 3, "short", 2, 0, "TYPE_BUFFER_SHORT3"};
    const std::int16_t elements[3] = {1, 2, 3};
    run = [&] { return link::modbus_write_registers(port, reg, buffer, elements); };
    EXPECT_EQ(answer_with(":0110FFF00003FD\r\n").substr(0, 27), ":0110FFF0000306" "000300020001");
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, 1);
}

// Each wrong answer: its result, the cause kept for the tools, what is printed.
TEST_F(TransactionTest, WrongAnswersTheirResultsAndCauses) {
    ASSERT_TRUE(table::find_register(reg, type, "one"));
    std::uint16_t value = 0;
    const auto read = [&] { return link::modbus_read_registers(port, reg, type, &value, sizeof value); };
    const auto write = [&] { return link::modbus_write_registers(port, reg, type, &value); };
    struct Case {
        std::function<int()> call;
        const char* reply;
        int result;
        link::Failure failure;
        int code;
        const char* printed;
    };
    const Case cases[] = {
        {read, ":01830379\r\n", 0, link::Failure::kException, 3, "0xfff0, int16, 1 mot\n"},
        {read, ":0183027A\r\n", 0, link::Failure::kException, 2, "Fonction incorrecte\nError ("},
        {read, ":0103020001F8\r\n", -1, link::Failure::kBadFrame, 0, "Erreur LRC\nTrame incorrecte\n"},
        {read, "", -1, link::Failure::kNoReply, 0, ""},
        {read, ":0104020001F8\r\n", 0, link::Failure::kWrongFunction, 0, "Fonction incorrecte\n"},
        {read, ":0103020001F9\r\n", 1, link::Failure::kNone, 0, "Ok ("},
        {write, ":01100001000" "1ED\r\n", 0, link::Failure::kWrongEcho, 0, "adresse d'ecriture incorrecte\n"},
        {write, ":0110FFF00002FE\r\n", 0, link::Failure::kWrongEcho, 0, "nombre de registres ecrits incorrect\n"},
    };
    for (const Case& c : cases) {
        run = c.call;
        testing::internal::CaptureStdout();
        answer_with(c.reply);
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(result, c.result) << c.reply;
        EXPECT_EQ(link::last_outcome().failure, c.failure) << c.reply;
        EXPECT_EQ(link::last_outcome().exception_code, c.code) << c.reply;
        EXPECT_NE(out.find(c.printed), std::string::npos) << out;
    }
}

// On purpose: the register path does not purge the line, so a reply that
// comes after its request timed out is taken as the answer to the next one.
TEST_F(TransactionTest, ALateReplyAnswersTheNextRequest) {
    ASSERT_TRUE(table::find_register(reg, type, "one"));
    std::uint16_t value = 0;
    testing::internal::CaptureStdout();
    std::thread device([&] {
        pty.receive(19, 1000);     // the first request; its reply comes too late (time-out 500 ms)
        pty.receive(19, 1000);     // the second request, sent after the time-out
        pty.send_packet(":0103021111D8\r\n"); // the late reply to the first
        pty.send_packet(":0103022222B6\r\n"); // the reply to the second
    });
    int first = link::modbus_read_registers(port, reg, type, &value, sizeof value);
    int second = link::modbus_read_registers(port, reg, type, &value, sizeof value);
    device.join();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(first, -1);
    EXPECT_EQ(second, 1);
    EXPECT_EQ(value, 0x1111) << "the second read took the first request's reply";
}

TEST_F(TransactionTest, AReplyDeclaringMoreThanTheDestinationHoldsStaysInside) {
    ASSERT_TRUE(table::find_register(reg, type, "one"));
    std::uint8_t value[4] = {0, 0, 0x77, 0x77};
    run = [&] { return link::modbus_read_registers(port, reg, type, value, 2); };
    testing::internal::CaptureStdout();
    answer_with(":0103FF01020304F3\r\n");
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(result, 1);
    // The four bytes present (not the LRC), as one big-endian number, cut to the 2 asked for.
    EXPECT_EQ((std::vector<int>{value[0], value[1], value[2], value[3]}), (std::vector<int>{4, 3, 0x77, 0x77}));
}

} // namespace
