// The register table read by register_btoa and register_atob on one host
// thread while another opens sessions, each of which loads the table anew.
// Run under ThreadSanitizer, a reload that is not kept apart from the
// conversions shows as a data race.
#include "modbus_vukra.h"
#include "support/files.h"
#include "support/pty_pair.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

using namespace vukra;

TEST(TableThreads, ConversionsRunWhileSessionsReloadTheTable) {
    test::TempWorkingDir dir;
    test::PtyPair pty;
    test::write_file("table.xml", R"(<root><type_list><type name="int16" words="1"/></type_list><table_list>
<table name="t" base="0"><register_list><register name="level" type="int16" offset="0"/>
<register name="other" type="int16" offset="1"/><register name="odd" type="uint16" offset="2"/></register_list></table></table_list></root>)");
    testing::internal::CaptureStdout();
    modbus_vukra_session* first = modbus_vukra_op_session_open(pty.slave_path.c_str());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(modbus_vukra_op_session_close(first), 0);
    std::atomic<bool> done{false};
    std::atomic<int> wrong{0};
    std::thread host([&] {
        for (int i = 0; i < 300 || !done; ++i) {
            std::uint16_t word = 0;
            char text[MODBUS_VUKRA_TEXT_SIZE];
            if (modbus_vukra_op_register_atob(&word, "level", "-7") != 0) ++wrong;
            const char* shown = modbus_vukra_op_register_btoa(text, "level", &word);
            if (shown == nullptr || std::string(shown) != "-7") ++wrong;
        }
    });
    for (int i = 0; i < 20; ++i) {
        modbus_vukra_session* s = modbus_vukra_op_session_open(pty.slave_path.c_str());
        EXPECT_NE(s, nullptr);
        if (s == nullptr) break; // the host thread is joined all the same
        EXPECT_EQ(modbus_vukra_op_session_close(s), 0);
    }
    done = true;
    host.join();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(wrong.load(), 0);
    std::uint16_t word = 0;
    char text[MODBUS_VUKRA_TEXT_SIZE];
    ASSERT_EQ(modbus_vukra_op_register_atob(&word, "other", "12"), 0);
    EXPECT_STREQ(modbus_vukra_op_register_btoa(text, "other", &word), "12");
    // What the conversions refuse: a register not in the table, a type it does not declare.
    EXPECT_EQ(modbus_vukra_op_register_btoa(text, "missing", &word), nullptr);
    EXPECT_EQ(modbus_vukra_op_register_atob(&word, "missing", "1"), -1);
    EXPECT_EQ(modbus_vukra_op_register_atob(&word, "odd", "1"), -1);
    EXPECT_EQ(modbus_vukra_op_register_btoa(text, "odd", &word), nullptr);
}
