// ufs volumes on the SD card: making, mounting, files across the block
// map's boundaries, directories and listings.
#include "kernel/kernel_errors.h"
#include "kernel/kernel_start.h"
#include "kernel/vfs.h"
#include "support/files.h"
#include "support/kernel_helpers.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <thread>
#include <random>
#include <set>

using namespace vukra;
using namespace vukra::kernel;

namespace {

struct Ufs : ::testing::Test {
    test::TempWorkingDir dir;
    Ufs() { kernel_start(); }

    // Makes a volume and mounts it at "/mem".
    void make(std::uint32_t nodes, std::uint32_t blocks, std::uint32_t block_size) {
        UfsMakeArgument a{nodes, blocks, block_size, 0x800000};
        ASSERT_EQ(kernel::mkfs(kUfsx, "/dev/sdcard0", &a), 0);
        ASSERT_EQ(kernel::mount(kUfsx, "/dev/sdcard0", "/mem"), 0);
    }

    // The first bytes of the card.
    std::string head(std::size_t count) {
        Descriptor fd = kernel::open("/dev/sdcard0", kOpenRead);
        std::string bytes(count, '\0');
        kernel::read(fd, bytes.data(), count);
        kernel::close(fd);
        return bytes;
    }

    void write_head(const std::string& bytes, long at = 0) {
        Descriptor fd = kernel::open("/dev/sdcard0", kOpenWrite);
        kernel::lseek(fd, at, 0);
        kernel::write(fd, bytes.data(), bytes.size());
        kernel::close(fd);
    }
};

std::uint32_t le32(const std::string& s, std::size_t at) {
    std::uint32_t v;
    std::memcpy(&v, s.data() + at, 4);
    return v;
}

TEST_F(Ufs, MkfsWritesTheHeaderAndMountChecksIt) {
    make(100, 1000, 100); // 100 is no block size: 32 it is
    kernel::umount("/mem");
    std::string h = head(29 + 200);
    EXPECT_EQ(h.substr(0, 7), "ufs 1.5");
    EXPECT_EQ(static_cast<unsigned char>(h[7]) | static_cast<unsigned char>(h[8]) << 8, 32);
    EXPECT_EQ(le32(h, 13), 1000u / 8 + 1) << "block bitmap";
    EXPECT_EQ(le32(h, 17), 100u / 8 + 1) << "node bitmap";
    EXPECT_EQ(le32(h, 9), le32(h, 13) + le32(h, 17)) << "allocation area";
    EXPECT_EQ(le32(h, 21), 100u * 18) << "node table";
    EXPECT_EQ(le32(h, 25), 1000u * 32) << "data area";
    // The root's record: a directory, its time, no blocks.
    const std::size_t root = 29 + le32(h, 9);
    std::string record = head(root + 18).substr(root);
    EXPECT_EQ(record[0], 8);
    EXPECT_NE(le32(record, 8), 0u);
    EXPECT_EQ(record.substr(12), std::string(6, '\xFF'));

    UfsMakeArgument too_many{16, 10000000, 512, 0x800000};
    ASSERT_EQ(kernel::mkfs(kUfsx, "/dev/sdcard0", &too_many), 0);
    h = head(29);
    const std::uint32_t blocks = le32(h, 25) / 512;
    EXPECT_EQ(blocks, (0x800000u - 16 * 18 - (16 / 8 + 1)) / 512 - 5) << "the largest count that fits";
    // Mount refuses other versions and large blocks.
    make(16, 100, 32);
    kernel::umount("/mem");
    const std::string good = head(29);
    write_head("ufs 1.2");
    EXPECT_EQ(kernel::mount(kUfsx, "/dev/sdcard0", "/mem"), -1);
    EXPECT_EQ(kernel_error(), kErrRefused);
    write_head("xyz 9.9");
    EXPECT_EQ(kernel::mount(kUfsx, "/dev/sdcard0", "/mem"), -1);
    write_head(good);
    write_head(std::string("\x01\x02", 2), 7); // a block size of 513
    EXPECT_EQ(kernel::mount(kUfsx, "/dev/sdcard0", "/mem"), -1);
    UfsMakeArgument big{16, 100, 1024, 0x800000};
    ASSERT_EQ(kernel::mkfs(kUfs, "/dev/sdcard0", &big), 0);
    EXPECT_EQ(kernel::mount(kUfs, "/dev/sdcard0", "/mem"), -1) << "a volume made with 1024 does not mount";
    write_head(good);
    EXPECT_EQ(kernel::mount(kUfs, "/dev/sdcard0", "/mem"), 0) << "ufs and ufsx share the format";
}

TEST_F(Ufs, AWriteInPlaceShowsTheTimeItHappened) {
    make(16, 100, 32);
    ASSERT_TRUE(test::put_file("/mem/f", "before"));
    NodeStatus made{};
    ASSERT_EQ(kernel::stat("/mem/f", made), 0);
    // The kernel clock runs on from its start: once its second has moved
    // past the file's (within two of the host's), a write of the same
    // length shows a later time.
    const std::time_t give_up = std::time(nullptr) + 3;
    while (kernel_seconds() <= made.time && std::time(nullptr) < give_up) std::this_thread::yield();
    const Descriptor fd = kernel::open("/mem/f", kOpenWrite);
    ASSERT_EQ(kernel::write(fd, "after!", 6), 6);
    kernel::close(fd);
    NodeStatus written{};
    ASSERT_EQ(kernel::stat("/mem/f", written), 0);
    EXPECT_GT(written.time, made.time);
}

TEST_F(Ufs, FilesAcrossTheDirectSingleAndDoubleIndirectBlocks) {
    const std::uint32_t b = 32; // one direct block of 32, 16 * 32 single, 256 * 32 double: 8736 bytes
    make(64, 2000, b);
    std::mt19937 random(3);
    for (std::size_t size : {1u, 32u, 33u, 544u, 545u, 4000u, 8736u}) {
        std::string data(size, '\0');
        for (char& c : data) c = static_cast<char>(random());
        const std::string path = "/mem/f" + std::to_string(size);
        ASSERT_TRUE(test::put_file(path.c_str(), data)) << size;
        EXPECT_EQ(test::get_file(path.c_str()), data) << size;
    }
    // One byte past the limit does not fit.
    Descriptor fd = kernel::open("/mem/f8736", kOpenWrite | kOpenAppend);
    EXPECT_EQ(kernel::write(fd, "x", 1), -1);
    kernel::close(fd);
    // Writes in the middle and a read across a boundary.
    fd = kernel::open("/mem/f8736", kOpenWrite);
    kernel::lseek(fd, 540, 0);
    EXPECT_EQ(kernel::write(fd, "ABCDEFGH", 8), 8);
    kernel::close(fd);
    fd = kernel::open("/mem/f8736", kOpenRead);
    char back[8];
    kernel::lseek(fd, 540, 0);
    ASSERT_EQ(kernel::read(fd, back, 8), 8);
    EXPECT_EQ(std::string(back, 8), "ABCDEFGH");
    kernel::close(fd);

    // Freeing gives every block back.
    FsStatus before{};
    kernel::fsstat("/mem", before);
    for (std::size_t size : {1u, 32u, 33u, 544u, 545u, 4000u, 8736u})
        EXPECT_EQ(kernel::remove(("/mem/f" + std::to_string(size)).c_str()), 0);
    FsStatus after{};
    kernel::fsstat("/mem", after);
    EXPECT_EQ(after.free_blocks, after.blocks);
    EXPECT_EQ(after.free_nodes, after.nodes - 1);
    EXPECT_LT(before.free_blocks, after.free_blocks);
}

TEST_F(Ufs, TruncateKeepsTheHeadAndZeroesWhatComesBack) {
    make(16, 1000, 32);
    std::string data(2000, 'a');
    ASSERT_TRUE(test::put_file("/mem/t", data));
    Descriptor fd = kernel::open("/mem/t", kOpenRead | kOpenWrite);
    ASSERT_EQ(kernel::truncate(fd, 40), 0);
    kernel::lseek(fd, 100, 0);
    kernel::write(fd, "z", 1);
    kernel::close(fd);
    std::string back = test::get_file("/mem/t");
    ASSERT_EQ(back.size(), 101u);
    EXPECT_EQ(back.substr(0, 40), std::string(40, 'a'));
    EXPECT_EQ(back.substr(40, 60), std::string(60, '\0'));
    EXPECT_EQ(back[100], 'z');
}

// Pages of a listing, each from a told position on a fresh open, as a
// server without state lists; positions told before a change still lead
// to real entries.
TEST_F(Ufs, ListingsResumeFromToldPositions) {
    make(128, 2000, 32);
    ASSERT_EQ(kernel::mkdir("/mem/d"), 0);
    std::set<std::string> made;
    for (int i = 0; i < 60; ++i) {
        const std::string name = "entry-" + std::string(static_cast<std::size_t>(i % 7 + 1), 'x') + std::to_string(i);
        ASSERT_TRUE(test::put_file(("/mem/d/" + name).c_str(), "")) << name;
        made.insert(name);
    }
    auto page = [](long& cookie, int count) {
        std::vector<std::string> names;
        Descriptor fd = kernel::open("/mem/d", kOpenRead);
        kernel::seekdir(fd, cookie);
        DirEntry e{};
        while (static_cast<int>(names.size()) < count && kernel::readdir(fd, e) == 1) names.emplace_back(e.name);
        cookie = kernel::telldir(fd);
        kernel::close(fd);
        return names;
    };
    // Pages that give the whole listing once: vukra_fs_tool. A change under
    // a told position: entries before it go, one is renamed.
    long cookie = 0;
    std::vector<std::string> first = page(cookie, 20);
    ASSERT_EQ(first.size(), 20u);
    for (int i = 0; i < 5; ++i) ASSERT_EQ(kernel::remove(("/mem/d/" + first[static_cast<std::size_t>(i)]).c_str()), 0);
    ASSERT_EQ(kernel::rename(("/mem/d/" + first[5]).c_str(), "/mem/d/a-much-longer-name-than-before"), 0);
    std::set<std::string> now = test::names_in("/mem/d");
    std::set<std::string> rest;
    for (std::vector<std::string> names; !(names = page(cookie, 8)).empty();) {
        for (const std::string& n : names) {
            EXPECT_EQ(now.count(n), 1u) << "a real entry: " << n;
            EXPECT_TRUE(rest.insert(n).second) << "once: " << n;
        }
    }
    std::set<std::string> after = made;
    for (const std::string& n : first) after.erase(n);
    EXPECT_EQ(rest, after) << "what lay after the position is listed, and nothing before it";
}

} // namespace
