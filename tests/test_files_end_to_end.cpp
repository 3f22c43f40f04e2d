// The remote filesystem through the library's exports against vukra-sim on
// a pty, with an SD card image that is checked with vukra-ufs afterwards.
#include "support/session_fixture.h"
#include "support/sim_process.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

namespace {

using vukra::test::read_all;
using FilesEndToEnd = vukra::test::SessionFixture;

// What a command prints on standard output.
std::string output_of(const std::string& command) {
    std::string out;
    std::FILE* p = popen(command.c_str(), "r");
    if (p == nullptr) return out;
    char buffer[4096];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, p)) > 0) out.append(buffer, n);
    pclose(p);
    return out;
}

std::string pattern(std::size_t n) {
    std::string s;
    for (std::size_t i = 0; i < n; ++i) s.push_back(static_cast<char>('A' + (i * 7 + i / 13) % 26));
    return s;
}

// Writes all of bytes at the current position, the calls' results in calls.
bool write_all(modbus_vukra_session* s, const std::string& bytes, std::vector<int>& calls) {
    for (std::size_t done = 0; done < bytes.size();) {
        const std::int32_t n = modbus_vukra_op_protected_write(s, bytes.data() + done,
                                                               static_cast<std::int32_t>(bytes.size() - done));
        calls.push_back(n);
        if (n <= 0) return false;
        done += static_cast<std::size_t>(n);
    }
    return true;
}

TEST_F(FilesEndToEnd, FilesOnTheCardThroughTheLine) {
    const std::string big = pattern(5000);
    {
        vukra::test::SimProcess sim({"--table", "table.xml", "--image", card});
        modbus_vukra_session* s = open(sim.port());
        ASSERT_NE(s, nullptr);

        // Nothing is served before the mount.
        EXPECT_EQ(modbus_vukra_op_protected_lookup(s, "/mem", nullptr), -1);
        EXPECT_EQ(modbus_vukra_op_session_error(s), 19);
        ASSERT_EQ(modbus_vukra_op_protected_mount(s), 0);

        ASSERT_EQ(modbus_vukra_op_protected_create(s, "/mem/big"), 0);
        std::vector<int> calls;
        ASSERT_TRUE(write_all(s, big, calls));
        EXPECT_EQ(calls, (std::vector<int>{1024, 1024, 1024, 1024, 904}));
        EXPECT_EQ(modbus_vukra_op_protected_seek(s, 0, 0), 0);
        EXPECT_EQ(read_all(s), big);
        EXPECT_EQ(modbus_vukra_op_protected_seek(s, 4990, 0), 4990);
        char tail[64];
        EXPECT_EQ(modbus_vukra_op_protected_read(s, tail, 64), 10);
        EXPECT_EQ(std::string(tail, 10), big.substr(4990));

        modbus_vukra_attributes attributes{};
        ASSERT_EQ(modbus_vukra_op_protected_lookup(s, "/mem/big", &attributes), 0);
        EXPECT_EQ(attributes.words[1], 1u);
        EXPECT_EQ(attributes.words[2], 5000u);

        ASSERT_EQ(modbus_vukra_op_protected_mkdir(s, "/mem/dir"), 0);
        for (const char* name : {"/mem/dir/a", "/mem/dir/b"}) ASSERT_EQ(modbus_vukra_op_protected_create(s, name), 0);
        // Names moved, removed, made and failing.
        EXPECT_EQ(modbus_vukra_op_protected_rename(s, "/mem/dir/a", "/mem/moved"), 0);
        EXPECT_EQ(modbus_vukra_op_protected_lookup(s, "/mem/moved", nullptr), 0);
        EXPECT_EQ(modbus_vukra_op_protected_remove(s, "/mem/moved"), 0);
        EXPECT_EQ(modbus_vukra_op_protected_lookup(s, "/mem/moved", nullptr), -1);
        EXPECT_EQ(modbus_vukra_op_session_error(s), -44);
        EXPECT_EQ(modbus_vukra_op_protected_rmdir(s, "/mem/dir"), -1);
        EXPECT_EQ(modbus_vukra_op_session_error(s), -20);
        EXPECT_EQ(modbus_vukra_op_protected_mkdir(s, "/mem/sub"), 0);
        EXPECT_EQ(modbus_vukra_op_protected_rmdir(s, "/mem/sub"), 0);
        EXPECT_EQ(modbus_vukra_op_protected_remove(s, "/mem/none"), -1);
        EXPECT_EQ(modbus_vukra_op_session_error(s), -44);

        modbus_vukra_usage usage{};
        ASSERT_EQ(modbus_vukra_op_protected_fsstat(s, "/mem", &usage), 0);
        EXPECT_EQ(usage.words[0], 512u);
        EXPECT_LT(usage.words[2], usage.words[1]);
        EXPECT_EQ(usage.words[3], 256u - 1 - 1 - 1 - 1); // root, big, dir and its name

        // The raw card is current and can be written back as it is: the
        // volume comes back afterwards with its files.
        ASSERT_EQ(modbus_vukra_op_protected_lookup(s, "/dev/sdcard0", &attributes), 0);
        EXPECT_EQ(attributes.words[1] & 3u, 2u);
        char head[7];
        ASSERT_EQ(modbus_vukra_op_protected_read(s, head, 7), 7);
        EXPECT_EQ(std::string(head, 7), "ufs 1.5");
        EXPECT_EQ(modbus_vukra_op_protected_seek(s, 0, 0), 0);
        EXPECT_EQ(modbus_vukra_op_protected_write(s, head, 7), 7);
        ASSERT_EQ(modbus_vukra_op_protected_lookup(s, "/mem/big", nullptr), 0);
        EXPECT_EQ(read_all(s), big);
        EXPECT_EQ(modbus_vukra_op_session_close(s), 0);
    }
    // What was written is in the image once the sim has ended.
    const std::string ufs = std::string(VUKRA_UFS_PATH) + " " + card;
    EXPECT_EQ(output_of(ufs + " cat /./dir/../big"), big);
    EXPECT_EQ(output_of(ufs + " tree"), "/\n  big\n  dir/\n    b\n");
    EXPECT_EQ(output_of(ufs + " ls /dir"), "b\n");
}

} // namespace
