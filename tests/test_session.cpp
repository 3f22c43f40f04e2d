// The session family of exports, through the C interface.
#include "modbus_vukra.h"
#include "kernel/kernel_start.h"
#include "session/session.h"
#include "support/files.h"
#include "support/pty_pair.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

using namespace vukra;

namespace {

struct SessionTest : ::testing::Test {
    test::TempWorkingDir dir;
    test::PtyPair pty;
    SessionTest() { test::write_file("table.xml", "<root><type_list/><table_list/></root>"); }
    modbus_vukra_session* open() { return modbus_vukra_op_session_open(pty.slave_path.c_str()); }
};

void* handle_of(int fd) { return reinterpret_cast<void*>(static_cast<std::intptr_t>(fd)); }

TEST_F(SessionTest, DefaultsInfoAndAccessors) {
    modbus_vukra_session* s = open();
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->timeout_ms, 4000u);
    EXPECT_EQ(modbus_vukra_op_session_error(s), 0);

    // Seven words: the request flags, the reply flags, then phase 4 (done); no eighth.
    std::int32_t info[8];
    std::fill(std::begin(info), std::end(info), 0x55555555);
    ASSERT_EQ(modbus_vukra_op_session_info(s, info), 0);
    const std::uint8_t request_flags[4] = {0, 1, 1, 1};
    EXPECT_EQ(std::memcmp(&info[0], request_flags, 4), 0);
    EXPECT_EQ(std::vector<std::int32_t>(info + 1, info + 8), (std::vector<std::int32_t>{0, 0, 0, 0, 4, 0, 0x55555555}));
    EXPECT_EQ(modbus_vukra_op_session_info(s, nullptr), -1);
    EXPECT_EQ(modbus_vukra_op_session_close(s), 0);

    // Without a session: 4095 or -1.
    EXPECT_EQ(modbus_vukra_op_session_error(nullptr), 4095);
    EXPECT_EQ(modbus_vukra_op_session_hwnd(nullptr, nullptr, 0), 4095);
    EXPECT_EQ(modbus_vukra_op_session_callback(nullptr, nullptr), 4095);
    EXPECT_EQ(modbus_vukra_op_session_info(nullptr, info), -1);
    EXPECT_EQ(modbus_vukra_op_cancelfs(nullptr), -1);
    EXPECT_EQ(modbus_vukra_op_session_close(nullptr), -1);
}

TEST_F(SessionTest, OneSessionAtATimeAndUnconnectedRecordsOnlyWhileOneIsOpen) {
    EXPECT_EQ(modbus_vukra_op_session_open(nullptr), nullptr);
    EXPECT_EQ(modbus_vukra_op_session_open2(nullptr), nullptr);
    modbus_vukra_session* first = open();
    ASSERT_NE(first, nullptr);
    test::PtyPair other;
    EXPECT_EQ(modbus_vukra_op_session_open(other.slave_path.c_str()), nullptr);

    modbus_vukra_session* record = modbus_vukra_op_session_open(nullptr);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->port, nullptr);
    EXPECT_EQ(modbus_vukra_op_session_close(record), -1); // it has no port
    EXPECT_EQ(modbus_vukra_op_cancelfs(record), 0);
    EXPECT_EQ(record->cancel, 1);
    record->directory_ref = 5; // a directory would be open, but a record without a port runs no operation
    EXPECT_EQ(modbus_vukra_op_protected_seekdir(record, 7), -1);
    first->mirror = record; // freed by the close of the session that holds it
    ASSERT_EQ(modbus_vukra_op_session_close(first), 0);

    modbus_vukra_session* again = modbus_vukra_op_session_open(other.slave_path.c_str());
    ASSERT_NE(again, nullptr);
    EXPECT_TRUE(kernel::kernel_started()) << "the first open started the kernel";
    EXPECT_EQ(kernel::kernel_start(), -1) << "and no open starts it again";
    EXPECT_EQ(modbus_vukra_op_session_close(again), 0);

    // A port that does not exist still gives a session.
    modbus_vukra_session* nowhere = modbus_vukra_op_session_open("/dev/vukra-no-such-port");
    ASSERT_NE(nowhere, nullptr);
    EXPECT_EQ(nowhere->port->native, platform::kInvalidPort);
    EXPECT_EQ(modbus_vukra_op_session_close(nowhere), 0);
}

// open2 adopts the host's handle and close releases it; a failed open2
// leaves it the host's.
TEST_F(SessionTest, Open2AndTheHostsHandle) {
    int fd = ::open(pty.slave_path.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_GE(fd, 0);
    modbus_vukra_session* s = modbus_vukra_op_session_open2(handle_of(fd));
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->port->native, fd);
    EXPECT_EQ(modbus_vukra_op_session_close(s), 0);
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);

    fd = ::open(pty.slave_path.c_str(), O_RDWR | O_NOCTTY);
    ASSERT_EQ(std::remove("table.xml"), 0);
    testing::internal::CaptureStdout();
    EXPECT_EQ(modbus_vukra_op_session_open2(handle_of(fd)), nullptr);
    testing::internal::GetCapturedStdout();
    EXPECT_NE(::fcntl(fd, F_GETFD), -1);

    // A handle that refuses the line settings (a pipe) is not closed either.
    test::write_file("table.xml", "<root/>");
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    testing::internal::CaptureStdout();
    s = modbus_vukra_op_session_open2(handle_of(ends[0]));
    testing::internal::GetCapturedStdout();
    if (s != nullptr) modbus_vukra_op_session_close(s);
    EXPECT_NE(::fcntl(ends[0], F_GETFD), -1);
    for (int d : {ends[0], ends[1], fd}) ::close(d);
}

} // namespace
