// The platform layer's locks, threads, clock, names and files.
#include "platform/platform.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>

using namespace vukra;

namespace {

struct Shared {
    platform::RecursiveLock lock;
    long counter = 0;
    std::atomic<bool> go{false};
};

void add_many(void* raw) {
    auto* shared = static_cast<Shared*>(raw);
    while (!shared->go) platform::sleep_ms(0);
    for (int i = 0; i < 20000; ++i) {
        platform::LockGuard outer(shared->lock);
        platform::LockGuard inner(shared->lock); // the owner may enter again
        ++shared->counter;
    }
}

TEST(Platform, RecursiveLockThreadsAndClock) {
    Shared shared;
    platform::lock_init(shared.lock);
    platform::Thread a, b;
    ASSERT_TRUE(platform::thread_start(a, add_many, &shared));
    ASSERT_TRUE(platform::thread_start(b, add_many, &shared));
    EXPECT_NE(a.id, b.id);
    shared.go = true;
    EXPECT_TRUE(platform::thread_join(a, 10000));
    EXPECT_TRUE(platform::thread_join(b, 10000));
    EXPECT_EQ(shared.counter, 40000);
    EXPECT_EQ(a.handle, 0);
    platform::lock_destroy(shared.lock);
    // A join gives up after its time-out, which the clock measures.
    std::atomic<bool> release{false};
    platform::Thread t;
    ASSERT_TRUE(platform::thread_start(
        t, [](void* raw) { while (!*static_cast<std::atomic<bool>*>(raw)) platform::sleep_ms(1); }, &release));
    const std::uint32_t start = platform::clock_ms();
    EXPECT_FALSE(platform::thread_join(t, 50));
    EXPECT_GE(platform::clock_ms() - start, 50u);
    EXPECT_NE(t.handle, 0);
    release = true;
    EXPECT_TRUE(platform::thread_join(t, 5000));
}

TEST(Platform, FilesAndFileLocks) {
    test::TempWorkingDir dir;
    int f = platform::file_open("image.o", platform::kFileRead | platform::kFileWrite | platform::kFileCreate);
    ASSERT_GE(f, 0);
    const unsigned char bytes[] = {0x00, 0x0A, 0x0D, 0x1A, 0xFF};
    EXPECT_EQ(platform::file_write(f, bytes, sizeof bytes), 5);
    EXPECT_EQ(platform::file_seek(f, 0, platform::kSeekEnd), 5);
    EXPECT_EQ(platform::file_seek(f, 1, platform::kSeekSet), 1);
    unsigned char back[4] = {};
    EXPECT_EQ(platform::file_read(f, back, sizeof back), 4);
    EXPECT_EQ(std::memcmp(back, bytes + 1, 4), 0);
    EXPECT_EQ(platform::file_close(f), 0);
    EXPECT_LT(platform::file_open("missing.o", platform::kFileRead), 0);
    // A file lock has one holder and leaves the file usable.
    f = platform::file_open("image.o", platform::kFileRead | platform::kFileWrite);
    ASSERT_GE(f, 0);
    {
        platform::FileLockHolder first("image.o");
        ASSERT_EQ(first.result(), platform::FileLockResult::kHeld);
        platform::FileLockHolder second("image.o");
        EXPECT_EQ(second.result(), platform::FileLockResult::kInUse) << "a second holder fails at once";
        EXPECT_EQ(platform::file_write(f, "data", 4), 4) << "other handles still write";
        platform::file_close(f); // closing another handle keeps the lock
        EXPECT_EQ(platform::FileLockHolder("image.o").result(), platform::FileLockResult::kInUse);
    }
    EXPECT_EQ(platform::FileLockHolder("image.o").result(), platform::FileLockResult::kHeld) << "released";
    EXPECT_EQ(platform::FileLockHolder("missing.o").result(), platform::FileLockResult::kFailed);
}

} // namespace
