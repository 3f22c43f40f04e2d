// The disks backed by files, and a faulty disk in place of one.
#include "kernel/device_table.h"
#include "kernel/kernel_diagnostics.h"
#include "kernel/kernel_errors.h"
#include "kernel/kernel_start.h"
#include "kernel/vfs.h"
#include "support/files.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

using namespace vukra;
using namespace vukra::kernel;

namespace {

struct FileDisks : ::testing::Test {
    test::TempWorkingDir dir;
    FileDisks() { kernel_start(); }
};

TEST_F(FileDisks, FirstOpensMakeTheImagesAndTheSdCardKeepsItsEnd) {
    Descriptor card = kernel::open("/dev/sdcard0", kOpenRead | kOpenWrite);
    ASSERT_GE(card, 0);
    EXPECT_EQ(std::filesystem::file_size("sdcard0.o"), 8388612u);
    testing::internal::CaptureStdout();
    Descriptor flash = kernel::open("/dev/hd/hdc", kOpenRead);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "fsflash creation size 131072 bytes ok.\n");
    EXPECT_EQ(std::filesystem::file_size("fsflash.o"), 131072u);

    EXPECT_EQ(kernel::lseek(card, -512, 2), 0x800000);
    char buffer[16];
    EXPECT_EQ(kernel::read(card, buffer, sizeof buffer), -1) << "at the size";
    ASSERT_EQ(kernel::lseek(card, 0x800000 - 8, 0), 0x800000 - 8);
    EXPECT_EQ(kernel::read(card, buffer, sizeof buffer), 12) << "a read may run past the size to the file's end";

    std::int32_t size = 0;
    std::int32_t* where = &size;
    EXPECT_EQ(kernel::ioctl(card, 1, &where), 0);
    EXPECT_EQ(size, 0x800000);

    // The card's message goes where a program sends the diagnostics; stdout by default.
    std::int32_t resized = 0x100000;
    testing::internal::CaptureStdout();
    std::FILE* before = set_diagnostic_stream(nullptr);
    EXPECT_EQ(kernel::ioctl(card, 2, &resized), 0);
    EXPECT_EQ(set_diagnostic_stream(before), nullptr);
    EXPECT_EQ(kernel::ioctl(card, 2, &resized), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "sdcard0 creation size 1048576 bytes ok.\n") << "once";
    resized = 0x800000;
    kernel::ioctl(card, 2, &resized);

    // One open and one close leave the image open: writes still land.
    kernel::close(flash);
    flash = kernel::open("/dev/hd/hdc", kOpenRead | kOpenWrite);
    ASSERT_EQ(kernel::write(flash, "flash", 5), 5);
    kernel::close(flash);
    kernel::close(card);
    EXPECT_EQ(test::read_file("fsflash.o").substr(0, 5), "flash");
}

// A disk that fails its transfers after a budget of bytes, to stand in for
// a card that breaks half-way.
long budget = 0;
std::string disk(64 * 1024, '\0');

// Moves up to count bytes between the disk at fd's position and the caller
// within the budget; -1 once the budget is spent or past the disk's end.
template <typename Move> long transfer(Descriptor fd, std::size_t count, Move move) {
    std::int32_t& position = descriptor_position(fd);
    if (budget <= 0 || position < 0 || static_cast<std::size_t>(position) >= disk.size()) return -1;
    std::size_t n = std::min({count, disk.size() - static_cast<std::size_t>(position), static_cast<std::size_t>(budget)});
    move(disk.data() + position, n);
    position += static_cast<std::int32_t>(n);
    budget -= static_cast<long>(n);
    return static_cast<long>(n);
}
long faulty_read(Descriptor fd, void* buffer, std::size_t count) {
    return transfer(fd, count, [&](char* at, std::size_t n) { std::memcpy(buffer, at, n); });
}
long faulty_write(Descriptor fd, const void* buffer, std::size_t count) {
    return transfer(fd, count, [&](char* at, std::size_t n) { std::memcpy(at, buffer, n); });
}

long faulty_seek(Descriptor fd, long offset, int whence) {
    std::int32_t& position = descriptor_position(fd);
    position = static_cast<std::int32_t>((whence == 1 ? position : whence == 2 ? static_cast<long>(disk.size()) : 0) + offset);
    return position;
}

int accept_open(Descriptor, std::uint32_t) { return 0; }
int accept_close(Descriptor) { return 0; }

constexpr char kFaultyName[] = "sdcard0\0\0\0\0\0";
const DriverDescriptor kFaultyDisk{kFaultyName, kBlockDevice, nullptr, accept_open, accept_close, nullptr,
                                   nullptr, faulty_read, faulty_write, faulty_seek, nullptr, nullptr};

TEST_F(FileDisks, AFaultyDiskFailsCleanlyAndTheImageStillMounts) {
    const DriverDescriptor* card = replace_device_driver(11, &kFaultyDisk);
    budget = 1 << 30;
    UfsMakeArgument make{32, 1000, 64, static_cast<std::uint32_t>(disk.size())};
    ASSERT_EQ(kernel::mkfs(kUfsx, "/dev/sdcard0", &make), 0);
    ASSERT_EQ(kernel::mount(kUfsx, "/dev/sdcard0", "/mem"), 0);
    std::string data(20000, 'd');
    Descriptor fd = kernel::open("/mem/file", kOpenWrite | kOpenCreate);
    ASSERT_GE(fd, 0);
    budget = 3000; // the disk breaks part-way through this write
    EXPECT_EQ(kernel::write(fd, data.data(), data.size()), -1);
    kernel::close(fd);
    budget = 1 << 30;
    EXPECT_EQ(kernel::umount("/mem"), 0);
    ASSERT_EQ(kernel::mount(kUfsx, "/dev/sdcard0", "/mem"), 0) << "what was written before the fault still mounts";
    NodeStatus status{};
    EXPECT_EQ(kernel::stat("/mem/file", status), 0);
    budget = 10; // and an open through a broken disk fails without harm
    EXPECT_EQ(kernel::open("/mem/file", kOpenRead), -1);
    budget = 1 << 30;
    kernel::umount("/mem");
    replace_device_driver(11, card);
}

} // namespace
