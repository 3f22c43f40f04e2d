// The filesystem switch's calls, limits and error codes.
#include "kernel/kernel_errors.h"
#include "kernel/kernel_start.h"
#include "kernel/vfs.h"
#include "support/kernel_helpers.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

using namespace vukra;
using namespace vukra::kernel;

namespace {

struct Vfs : ::testing::Test {
    test::TempWorkingDir dir;
    Vfs() {
        kernel_start();
        clear_kernel_error();
    }
};

TEST_F(Vfs, CreateExclusiveAndTheOpenFlags) {
    ASSERT_TRUE(test::put_file("/var/log", "12345"));
    EXPECT_EQ(kernel::open("/var/log", kOpenWrite | kOpenCreate | kOpenExclusive), -1);
    EXPECT_EQ(kernel_error(), kErrExists);
    Descriptor fd = kernel::open("/var/log", kOpenWrite | kOpenCreate | kOpenAppend);
    ASSERT_GE(fd, 0) << "without exclusive the file opens";
    EXPECT_EQ(kernel::write(fd, "6", 1), 1);
    kernel::close(fd);
    EXPECT_EQ(test::get_file("/var/log"), "123456");
    Descriptor a = kernel::open("/var/log", kOpenWrite | kOpenAppend), b = kernel::open("/var/log", kOpenWrite | kOpenAppend);
    EXPECT_EQ(kernel::write(a, "7", 1) + kernel::write(b, "8", 1), 2); // each append at the end of the moment
    kernel::close(a);
    kernel::close(b);
    EXPECT_EQ(test::get_file("/var/log"), "12345678");
    fd = kernel::open("/var/log", kOpenWrite | kOpenTruncate);
    kernel::close(fd);
    EXPECT_EQ(test::get_file("/var/log"), "");
    EXPECT_EQ(kernel::open("", kOpenRead), -1);
    EXPECT_EQ(kernel::open("/var/none", kOpenRead), -1);
    EXPECT_EQ(kernel_error(), kErrNoNode);
}

TEST_F(Vfs, DevicesAndDirectoriesRefuseWhatTheyAreNot) {
    ASSERT_EQ(kernel::mknod("/dev/ghost", kCharacterDevice, 40), 0);
    EXPECT_EQ(kernel::open("/dev/ghost", kOpenRead), -1);
    EXPECT_EQ(kernel_error(), kErrNotDevice);
    EXPECT_EQ(kernel::mount(kUfs, "/bin/init", "/mnt"), -1) << "a mount needs a device";
    EXPECT_EQ(kernel_error(), kErrNotDevice);
    Descriptor fd = kernel::open("/bin/init", kOpenRead);
    DirEntry entry{};
    EXPECT_EQ(kernel::readdir(fd, entry), -1);
    EXPECT_EQ(kernel_error(), kErrNotDirectory);
    kernel::close(fd);

    Descriptor null = kernel::open("/dev/null", kOpenRead | kOpenWrite);
    char byte;
    EXPECT_EQ(kernel::write(null, "gone", 4), 4);
    EXPECT_EQ(kernel::read(null, &byte, 1), 0);
    kernel::close(null);
    Descriptor board = kernel::open("/dev/board", kOpenRead);
    std::uint32_t code = 0;
    EXPECT_EQ(kernel::ioctl(board, kBoardCodeRequest, &code), 0);
    EXPECT_EQ(code, kBoardCode);
    EXPECT_EQ(kernel::ioctl(board, 1, nullptr), 0);
    kernel::close(board);

    std::vector<Descriptor> open_now; // twenty descriptors and no more
    for (int i = 0; i < kOpenFileSlots; ++i) open_now.push_back(kernel::open("/bin/init", kOpenRead));
    EXPECT_GE(*std::min_element(open_now.begin(), open_now.end()), 0);
    EXPECT_EQ(kernel::open("/bin/init", kOpenRead), -1);
    EXPECT_EQ(kernel_error(), kErrNoDescriptor);
    for (Descriptor d : open_now) kernel::close(d);
    EXPECT_GE(kernel::open("/bin/init", kOpenRead), 0);
}

TEST_F(Vfs, ADescriptorLinkOpensTheLinkedDescriptorAgain) {
    Descriptor pipe = kernel::open("/dev/fifo", kOpenRead | kOpenWrite);
    ASSERT_GE(pipe, 0);
    ASSERT_EQ(kernel::link_descriptor(pipe, "/var/pipe"), 0);
    NodeStatus status{};
    ASSERT_EQ(kernel::stat("/var/pipe", status), 0);
    EXPECT_EQ(status.device, 12 + pipe);
    Descriptor again = kernel::open("/var/pipe", kOpenRead);
    ASSERT_GE(again, 0);
    EXPECT_EQ(kernel::write(pipe, "through", 7), 7);
    char back[7];
    EXPECT_EQ(kernel::read(again, back, sizeof back), 7) << "one pipe behind both descriptors";
    EXPECT_EQ(std::string(back, 7), "through");
    EXPECT_EQ(kernel::rmnod("/bin/init"), -1) << "only descriptor links";
    EXPECT_EQ(kernel::rmnod("/var/pipe"), 0);
    EXPECT_EQ(kernel::stat("/var/pipe", status), -1);
    kernel::close(again);
    kernel::close(pipe);

    // Directory positions can be told and sought.
    Descriptor fd = kernel::open("/", kOpenRead);
    DirEntry first{}, entry{};
    ASSERT_EQ(kernel::readdir(fd, first), 1);
    const long after_first = kernel::telldir(fd);
    ASSERT_EQ(kernel::readdir(fd, entry), 1);
    const std::string second = entry.name;
    ASSERT_EQ(kernel::seekdir(fd, after_first), 0);
    ASSERT_EQ(kernel::readdir(fd, entry), 1);
    EXPECT_EQ(second, entry.name);
    ASSERT_EQ(kernel::rewinddir(fd), 0);
    ASSERT_EQ(kernel::readdir(fd, entry), 1);
    EXPECT_STREQ(entry.name, first.name);
    kernel::close(fd);
}

// The same rules of rename on the root filesystem (under "/var") and on a
// ufs volume ("/mem").
struct Rename : Vfs, ::testing::WithParamInterface<const char*> {
    std::string base = GetParam();
    std::string at(const std::string& name) { return base + name; }
    int rename(const std::string& from, const std::string& to) {
        clear_kernel_error();
        return kernel::rename(at(from).c_str(), at(to).c_str());
    }
    Rename() {
        if (base != "/mem") return;
        UfsMakeArgument make{64, 1000, 64, 0x800000};
        testing::internal::CaptureStdout();
        EXPECT_EQ(kernel::mkfs(kUfsx, "/dev/sdcard0", &make), 0);
        EXPECT_EQ(kernel::mount(kUfsx, "/dev/sdcard0", "/mem"), 0);
        testing::internal::GetCapturedStdout();
    }
};

TEST_P(Rename, ADirectoryNeverMovesIntoItself) {
    ASSERT_EQ(kernel::mkdir(at("/docs").c_str()), 0);
    ASSERT_EQ(kernel::mkdir(at("/docs/sub").c_str()), 0);
    ASSERT_TRUE(test::put_file(at("/docs/sub/f").c_str(), "kept"));
    for (const char* into : {"/docs/sub/docs", "/docs/x", "/docs/./sub/../sub/y", "/docs/sub/"}) {
        EXPECT_EQ(rename("/docs", into), -1) << into;
        EXPECT_EQ(kernel_error(), kErrInvalid) << into;
    }
    EXPECT_EQ(test::get_file(at("/docs/sub/f").c_str()), "kept");
    EXPECT_EQ(rename("/docs", "/docs"), 0) << "onto itself: nothing to do";
    EXPECT_EQ(rename("/docs/sub", "/sub"), 0) << "out of its parent is fine";
    EXPECT_EQ(test::get_file(at("/sub/f").c_str()), "kept");
    EXPECT_EQ(rename("/sub", "/sub2"), 0);
    EXPECT_EQ(test::get_file(at("/sub2/f").c_str()), "kept");
}

TEST_P(Rename, AnExistingNameIsReplacedOnlyByItsOwnKind) {
    ASSERT_TRUE(test::put_file(at("/new").c_str(), "new"));
    ASSERT_TRUE(test::put_file(at("/old").c_str(), "old content"));
    ASSERT_EQ(kernel::mkdir(at("/full").c_str()), 0);
    ASSERT_TRUE(test::put_file(at("/full/f").c_str(), "f"));
    ASSERT_EQ(kernel::mkdir(at("/empty").c_str()), 0);
    ASSERT_EQ(kernel::mkdir(at("/moving").c_str()), 0);

    FsStatus before{}, after{};
    kernel::fsstat(base.c_str(), before);
    EXPECT_EQ(rename("/new", "/old"), 0) << "a file replaces a file";
    EXPECT_EQ(test::get_file(at("/old").c_str()), "new");
    kernel::fsstat(base.c_str(), after);
    EXPECT_EQ(after.free_nodes, before.free_nodes + 1) << "the replaced file is freed";
    EXPECT_EQ(rename("/old", "/full"), -1);
    EXPECT_EQ(kernel_error(), kErrExists) << "a file does not replace a directory";
    EXPECT_EQ(rename("/moving", "/old"), -1);
    EXPECT_EQ(kernel_error(), kErrNotDirectory) << "nor a directory a file";
    EXPECT_EQ(rename("/moving", "/full"), -1);
    EXPECT_EQ(kernel_error(), kErrExists) << "nor a directory one that is not empty";
    EXPECT_EQ(rename("/moving", "/empty"), 0) << "an empty directory is replaced";
    EXPECT_EQ(test::get_file(at("/full/f").c_str()), "f");
    EXPECT_EQ(rename("/full/f", "/empty/g"), 0) << "into another directory";
    EXPECT_EQ(test::names_in(at("/full").c_str()).size(), 0u);
    EXPECT_EQ(test::get_file(at("/empty/g").c_str()), "f");
    ASSERT_TRUE(test::put_file(at("/empty/h").c_str(), "h"));
    EXPECT_EQ(rename("/empty/g", "/empty/h"), 0) << "within one directory";
    EXPECT_EQ(test::names_in(at("/empty").c_str()), (std::set<std::string>{"h"}));
    EXPECT_EQ(test::get_file(at("/empty/h").c_str()), "f");
    if (base == "/mem") {
        EXPECT_EQ(kernel::rename("/mem/old", "/var/old"), -1);
        EXPECT_EQ(kernel_error(), kErrNotDevice) << "no move across filesystems";
        EXPECT_EQ(test::get_file("/mem/old"), "new");
    }
}

INSTANTIATE_TEST_SUITE_P(RootAndUfs, Rename, ::testing::Values("/var", "/mem"),
                         [](const auto& p) { return std::string(p.param == std::string("/var") ? "rootfs" : "ufs"); });

} // namespace
