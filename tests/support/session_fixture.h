// What the tests of sessions on a device share: a temporary working
// directory holding the example register table and the path of a card
// image in it, sessions opened and closed with the library's diagnostics
// kept off the test's output, whole-file reads through the current handle
// and the names of listings.
#pragma once

#include "modbus_vukra.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace vukra::test {

struct SessionFixture : ::testing::Test {
    TempWorkingDir dir;
    std::string card = (dir.path() / "card.img").string();

    SessionFixture() { write_file("table.xml", read_file(VUKRA_EXAMPLES_DIR "/table.xml")); }

    static modbus_vukra_session* open(const std::string& port) {
        testing::internal::CaptureStdout();
        modbus_vukra_session* s = modbus_vukra_op_session_open(port.c_str());
        testing::internal::GetCapturedStdout();
        return s;
    }
    // A session on port that has mounted the device's volume, or null (a
    // failure recorded) when the open or the mount failed.
    static modbus_vukra_session* open_mounted(const std::string& port) {
        modbus_vukra_session* s = open(port);
        if (s == nullptr) {
            ADD_FAILURE() << "no session on " << port;
        } else if (modbus_vukra_op_protected_mount(s) != 0) {
            ADD_FAILURE() << "mount failed: " << modbus_vukra_op_session_error(s);
            close(s);
            s = nullptr;
        }
        return s;
    }
    static void close(modbus_vukra_session* s) {
        testing::internal::CaptureStdout();
        EXPECT_EQ(modbus_vukra_op_session_close(s), 0);
        testing::internal::GetCapturedStdout();
    }
};

// The current file from the current position to its end (at most 1024
// bytes per request), or "<read failed>".
inline std::string read_all(modbus_vukra_session* s) {
    std::string out;
    char buffer[5000];
    std::int32_t n;
    while ((n = modbus_vukra_op_protected_read(s, buffer, sizeof buffer)) > 0) out.append(buffer, static_cast<std::size_t>(n));
    return n == 0 ? out : "<read failed>";
}

// The names of a listing the library handed over, its entries freed.
inline std::vector<std::string> take_names(modbus_vukra_dir_entry* first) {
    std::vector<std::string> names;
    while (first != nullptr) {
        names.emplace_back(first->name);
        modbus_vukra_dir_entry* next = first->next;
        std::free(first);
        first = next;
    }
    return names;
}

} // namespace vukra::test
