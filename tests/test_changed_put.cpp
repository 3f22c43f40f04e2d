// The put of what changed, against a fake device that holds its card in
// memory and counts the bytes written to it: each kind of change under
// "/mem" travels in a few bytes and leaves the two cards alike; the
// refusals write nothing. A device that vanishes half way: test_line_faults.
#include "modbus_vukra.h"
#include "remotefs/image_transfer.h"
#include "support/fake_card_device.h"
#include "support/session_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <functional>

using namespace vukra;

namespace {

std::uint32_t le(const std::string& b, std::size_t at, int bytes) {
    std::uint32_t v = 0;
    for (int i = bytes - 1; i >= 0; --i) v = v << 8 | static_cast<std::uint8_t>(b[at + static_cast<std::size_t>(i)]);
    return v;
}

// Where a "ufs 1.5" image's map, metadata and groups lie.
struct Layout {
    std::size_t block_size, map_start = 29, map_size, groups, metadata_size;
    explicit Layout(const std::string& image)
        : block_size(le(image, 7, 2)), map_size(le(image, 9, 4)), groups(le(image, 13, 4)), metadata_size(le(image, 21, 4)) {}
    std::size_t metadata_start() const { return map_start + map_size; }
    std::size_t data_start() const { return metadata_start() + metadata_size; }
    std::size_t chunk() const { return block_size * 8; }
};

struct ChangedPut : test::SessionFixture {
    int on_card(const std::string& file, const std::string& arguments) const {
        return std::system((VUKRA_UFS_PATH " " + file + " " + arguments + " >/dev/null 2>&1").c_str());
    }
    // A card with /etc/hello and a file of 20000 bytes at /big.
    void make_card() {
        ASSERT_EQ(on_card(card, "mkfs"), 0);
        ASSERT_EQ(on_card(card, "mkdir /etc"), 0);
        test::write_file("hello.txt", "hello from the card\n");
        test::write_file("big.bin", std::string(20000, 'b'));
        ASSERT_EQ(on_card(card, "put hello.txt /etc/hello"), 0);
        ASSERT_EQ(on_card(card, "put big.bin /big"), 0);
    }
    // A session on the device that has got its card.
    static modbus_vukra_session* got(test::FakeCardDevice& device) {
        modbus_vukra_session* s = open_mounted(device.port());
        testing::internal::CaptureStdout();
        if (s != nullptr && modbus_vukra_op_protected_getfs(s) != 0) ADD_FAILURE() << "getfs";
        testing::internal::GetCapturedStdout();
        return s;
    }
};

bool write_file_under_mem(modbus_vukra_session* s, const char* path, const std::string& text) {
    return modbus_vukra_op_protected_create(s, path) == 0 &&
           modbus_vukra_op_protected_write(s, text.data(), static_cast<std::int32_t>(text.size())) ==
               static_cast<std::int32_t>(text.size());
}

TEST_F(ChangedPut, EachChangeTravelsInAFewBytesAndTheCardsAgree) {
    make_card();
    const std::pair<const char*, std::function<bool(modbus_vukra_session*)>> changes[] = {
        {"a small file", [](auto* s) { return write_file_under_mem(s, "/mem/etc/new.conf", "rate=9600\n"); }},
        {"a directory", [](auto* s) { return modbus_vukra_op_protected_mkdir(s, "/mem/etc/d") == 0; }},
        {"a rename", [](auto* s) { return modbus_vukra_op_protected_rename(s, "/mem/etc/hello", "/mem/hi") == 0; }},
        {"a removal", [](auto* s) { return modbus_vukra_op_protected_remove(s, "/mem/big") == 0; }},
    };
    for (const auto& [what, change] : changes) {
        SCOPED_TRACE(what);
        test::FakeCardDevice device(test::read_file(card));
        modbus_vukra_session* s = got(device);
        ASSERT_NE(s, nullptr);
        ASSERT_TRUE(change(s));
        const std::int32_t written = modbus_vukra_protected_putfs_changed(s);
        EXPECT_GT(written, 0) << modbus_vukra_op_session_error(s);
        EXPECT_EQ(written, device.bytes_written());
        EXPECT_LT(written, 1200) << "a block and a few pieces of metadata and map";

        const std::string local = test::read_file("sdcard0.o"), remote = device.card();
        const Layout l(local);
        EXPECT_EQ(remote.compare(0, l.data_start(), local, 0, l.data_start()), 0) << "header, map and metadata";
        for (std::size_t i = 0; i < l.groups && i < l.map_size; ++i) {
            const std::size_t at = l.data_start() + i * l.chunk();
            if (local[l.map_start + i] != 0) {
                EXPECT_EQ(remote.compare(at, l.chunk(), local, at, l.chunk()), 0) << i;
            }
        }
        // The data first, then the metadata, then the map (the header does not change).
        std::vector<int> regions;
        for (const std::size_t at : device.write_positions())
            regions.push_back(at >= l.data_start() ? 2 : at >= l.metadata_start() ? 1 : 0);
        EXPECT_TRUE(std::is_sorted(regions.rbegin(), regions.rend()));
        test::write_file("device.img", remote);
        EXPECT_EQ(on_card("device.img", "check"), 0);

        // Nothing changed since: nothing written, and the local card as it was.
        EXPECT_EQ(modbus_vukra_protected_putfs_changed(s), 0);
        EXPECT_EQ(device.bytes_written(), written);
        EXPECT_EQ(test::read_file("sdcard0.o"), local);
        close(s);
    }
}

// Each refusal comes before the first write, with its error word.
TEST_F(ChangedPut, RefusalsWriteNothing) {
    make_card();
    const Layout l(test::read_file(card));
    const std::size_t big_data = l.data_start() + 2 * l.chunk(); // inside /big, far from what the change writes
    // Changes made behind the host's back: on the device, or on the local card's file.
    struct Behind {
        const char* what;
        std::function<void(test::FakeCardDevice&)> poke;
        std::int32_t error;
    };
    const auto on_local = [](std::size_t at, char byte) {
        std::fstream("sdcard0.o", std::ios::in | std::ios::out).seekp(static_cast<std::streamoff>(at)).put(byte);
    };
    const Behind behind[] = {
        {"the device's metadata", [&](auto& d) { d.poke(l.metadata_start() + 18 * 5, "\x01"); }, remotefs::kDeviceCardChanged},
        {"the device's map", [&](auto& d) { d.poke(l.map_start + 40, "\x01"); }, remotefs::kDeviceCardChanged},
        {"the local card's metadata", [&](auto&) { on_local(l.metadata_start() + 18 * 40, 1); }, remotefs::kLocalCardChanged},
        {"the local card's data", [&](auto&) { on_local(big_data + 100, 'x'); }, remotefs::kLocalCardChanged},
    };
    for (const Behind& b : behind) {
        SCOPED_TRACE(b.what);
        test::FakeCardDevice device(test::read_file(card));
        modbus_vukra_session* s = got(device);
        ASSERT_NE(s, nullptr);
        ASSERT_TRUE(write_file_under_mem(s, "/mem/etc/new.conf", "rate=9600\n"));
        b.poke(device);
        EXPECT_EQ(modbus_vukra_protected_putfs_changed(s), -1);
        EXPECT_EQ(modbus_vukra_op_session_error(s), b.error);
        EXPECT_EQ(device.bytes_written(), 0);
        close(s);
    }
    // No getfs by this session.
    test::FakeCardDevice device(test::read_file(card));
    modbus_vukra_session* s = open_mounted(device.port());
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(modbus_vukra_protected_putfs_changed(s), -1);
    EXPECT_EQ(modbus_vukra_op_session_error(s), remotefs::kNoGetfs);
    EXPECT_EQ(device.requests(remotefs::kOpLookup), 0);
    close(s);
}

} // namespace
