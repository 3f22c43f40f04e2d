// The kernel's start: its tree, its nodes, its files, and the boot readers.
#include "kernel/kernel_errors.h"
#include "kernel/kernel_start.h"
#include "support/files.h"
#include "support/kernel_helpers.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

using namespace vukra;
using namespace vukra::kernel;
using test::names_in;
using Names = std::set<std::string>;

namespace {

struct KernelStart : ::testing::Test {
    test::TempWorkingDir dir;
    KernelStart() {
        testing::internal::CaptureStdout();
        EXPECT_EQ(kernel_start(), 0);
        start_output = testing::internal::GetCapturedStdout();
    }
    std::string start_output;
};

TEST_F(KernelStart, BuildsTheTreeAndTheDeviceNodesOnce) {
    EXPECT_EQ(names_in("/"), (Names{"dev", "bin", "usr", "etc", "var", "mnt", "mem"}));
    NodeStatus status{};
    ASSERT_EQ(kernel::stat("/dev/sdcard0", status), 0);
    EXPECT_EQ(status.kind, kBlockDevice);
    EXPECT_EQ(status.device, 11);
    ASSERT_EQ(kernel::stat("/dev/net/slip", status), 0);
    EXPECT_EQ(status.kind, kCharacterDevice);
    EXPECT_EQ(status.device, 6);
    // "/usr" stays a plain directory: the system disk holds no filesystem.
    ASSERT_EQ(kernel::stat("/usr", status), 0);
    EXPECT_EQ(status.kind, kNodeDirectory);
    EXPECT_EQ(mount_slot(1), nullptr);

    EXPECT_EQ(start_output, "") << "the start makes nodes; a disk's image is made by its first open";
    EXPECT_GT(kernel_seconds(), 0u) << "the clock was read";
    EXPECT_EQ(kernel_start(), -1);
    EXPECT_EQ(names_in("/bin"), (Names{"init"}));
    // uname: the room its fields need, a buffer too short, a name it does not know
    const int names[] = {0, 1};
    std::size_t length = 0;
    EXPECT_EQ(kernel::uname(names, 2, nullptr, &length), 0);
    EXPECT_EQ(length, 160u);
    char buffer[160];
    length = 159;
    EXPECT_EQ(kernel::uname(names, 2, buffer, &length), -1);
    length = 160;
    ASSERT_EQ(kernel::uname(names, 2, buffer, &length), 0);
    EXPECT_STREQ(buffer + 64, "2.5.0.6") << "the second field at its offset";
    const int bad[] = {1};
    EXPECT_EQ(kernel::uname(bad, 1, buffer, &length), -1);
}

TEST_F(KernelStart, MountFileMountsKnownTypesAndSkipsTheRest) {
    UfsMakeArgument make{64, 1000, 64, 0x800000};
    ASSERT_EQ(kernel::mkfs(kUfsx, "/dev/sdcard0", &make), 0);
    ASSERT_EQ(kernel::mkdir("/etc/boot"), 0);
    ASSERT_TRUE(test::put_file("/etc/boot/.mount", "fat /dev/hd/hdc /mnt\r\n\n  ufsx  /dev/sdcard0 /mem"));
    apply_mount_file("/etc/boot/.mount");
    ASSERT_NE(mount_slot(1), nullptr);
    EXPECT_EQ(mount_slot(1)->type, kUfsx);
    EXPECT_EQ(mount_slot(2), nullptr);
    EXPECT_TRUE(names_in("/mem").empty());
    EXPECT_TRUE(test::put_file("/mem/on-the-card", "x"));
}

TEST_F(KernelStart, BootFileRunsTheCommandsForThisBoard) {
    EXPECT_EQ(parse_board_code("0x1A2B"), 0x1A2Bu);
    EXPECT_EQ(parse_board_code("1A2B"), 0xA2Bu) << "the first character is never read";
    EXPECT_EQ(parse_board_code("0x12G4"), 0u);
    EXPECT_EQ(parse_board_code("0x123456789"), 0x23456789u) << "only the last eight digits count";

    ASSERT_TRUE(test::put_file("/etc/.boot",
                               "/dev/board:42:\n"
                               "0x1A2B:first  for  us:\n"
                               // Another board's code: fields ended by ":" are dropped until
                               // a "!" (its alternative follows) or a ";" (skip the line).
                               "0x9999:for another board:\n"
                               "0:dropped too:\n"
                               "0x7777:never!instead of it;\n"
                               "0x8888:skipped;  rest of line:\n"
                               "0:last:\n"));
    ASSERT_EQ(run_boot_file("/etc/.boot"), 0);
    const std::vector<std::vector<std::string>> expected = {
        {"first", "first", "for", "us"},
        {"instead", "instead", "of", "it"},
        {"last", "last"},
    };
    EXPECT_EQ(programs_run(), expected);
}

TEST_F(KernelStart, WithoutABootFileInitRunsWithItsSixWords) {
    ASSERT_EQ(run_boot_file("/usr/etc/.boot"), 0);
    ASSERT_EQ(programs_run().size(), 1u);
    EXPECT_EQ(programs_run()[0],
              (std::vector<std::string>{"/bin/init", "-t", "5000", "-i", "/dev/ttyp0", "-o", "/dev/ttyp0"}));
}

} // namespace
