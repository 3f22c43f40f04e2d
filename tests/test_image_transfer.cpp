// getfs and putfs: the device's card copied into the library's local card
// and back, against vukra-sim with a card image and against a fake device
// that serves crafted images; cancel, a vanishing device, a device card
// smaller than the image and a damaged volume under "/mem". Host threads
// beside the timer: test_stress.
#include "kernel/vfs.h"
#include "modbus_vukra.h"
#include "remotefs/image_transfer.h"
#include "remotefs/local_server.h"
#include "session/session.h"
#include "support/fake_card_device.h"
#include "support/session_fixture.h"
#include "support/sim_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <thread>
#include <vector>

using namespace vukra;
using test::read_all;

namespace {

// The parts of an image as the transfer sees them.
struct Layout {
    std::uint32_t block_size = 0, map_start = 0, map_size = 0, groups = 0, metadata_size = 0;
    std::uint32_t data_start() const { return map_start + map_size + metadata_size; }
    std::uint32_t chunk() const { return block_size * 8; }
};

std::uint32_t le32(const std::string& b, std::size_t at) {
    std::uint32_t v = 0;
    for (int i = 3; i >= 0; --i) v = v << 8 | static_cast<std::uint8_t>(b[at + static_cast<std::size_t>(i)]);
    return v;
}

Layout layout_of(const std::string& image) {
    Layout l;
    std::size_t at = 7;
    if (image.compare(0, 7, "ufs 1.5") == 0) {
        l.block_size = static_cast<std::uint8_t>(image[7]) | static_cast<std::uint32_t>(static_cast<std::uint8_t>(image[8])) << 8;
        at = 9;
    } else {
        l.block_size = 32;
    }
    l.map_size = le32(image, at);
    l.groups = le32(image, at + 4);
    l.metadata_size = le32(image, at + 12);
    l.map_start = static_cast<std::uint32_t>(at + 20);
    return l;
}

void put_le32(std::string& b, std::size_t at, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + static_cast<std::size_t>(i)] = static_cast<char>(v >> (8 * i));
}

std::string random_bytes(std::size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (auto& c : s) c = static_cast<char>(gen());
    return s;
}

struct Info {
    std::int32_t words[MODBUS_VUKRA_INFO_WORDS] = {};
    std::int32_t direction() const { return words[MODBUS_VUKRA_INFO_DIRECTION]; }
    std::int32_t phase() const { return words[MODBUS_VUKRA_INFO_PHASE]; }
    std::int32_t progress() const { return words[MODBUS_VUKRA_INFO_PROGRESS]; }
    // Direction, phase and progress together.
    std::vector<std::int32_t> transfer() const { return {direction(), phase(), progress()}; }
};

Info info_of(modbus_vukra_session* s) {
    Info i;
    modbus_vukra_op_session_info(s, i.words);
    return i;
}

bool mem_mounted_locally() {
    kernel::NodeStatus status{};
    return kernel::stat("/mem/hello", status) == 0;
}

struct ImageTransfer : test::SessionFixture {
    // vukra-ufs on the card image, its output dropped: its exit status.
    int on_card(const std::string& arguments) const {
        return std::system((VUKRA_UFS_PATH " " + card + " " + arguments + " >/dev/null 2>&1").c_str());
    }
    // vukra-sim's arguments to serve the card, and more.
    std::vector<std::string> serving(std::vector<std::string> more = {}) const {
        more.insert(more.begin(), {"--table", "table.xml", "--image", card});
        return more;
    }
    // A card with /hello and a file of size bytes at /big.
    void make_card(std::size_t big = 0) {
        ASSERT_EQ(on_card("mkfs"), 0);
        test::write_file("hello.txt", "hello from the card\n");
        ASSERT_EQ(on_card("put hello.txt /hello"), 0);
        if (big > 0) {
            test::write_file("big.bin", random_bytes(big, 7));
            ASSERT_EQ(on_card("put big.bin /big"), 0);
        }
    }
    // getfs with its listing of /mem kept off the test's output.
    static std::int32_t getfs(modbus_vukra_session* s) {
        testing::internal::CaptureStdout();
        const std::int32_t r = modbus_vukra_op_protected_getfs(s);
        testing::internal::GetCapturedStdout();
        return r;
    }
};

TEST_F(ImageTransfer, GetCopiesTheUsedGroupsAndZerosTheOthers) {
    make_card(20000);
    {
        test::SimProcess sim(serving());
        modbus_vukra_session* s = open(sim.port());
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(modbus_vukra_op_protected_putfs(s), -1) << "no mirror yet";
        ASSERT_EQ(modbus_vukra_op_protected_mount(s), 0);
        ASSERT_EQ(getfs(s), 0) << modbus_vukra_op_session_error(s);
        EXPECT_EQ(info_of(s).transfer(), (std::vector<std::int32_t>{1, 4, 100})) << "done";
        EXPECT_EQ(s->mirror_enabled, 3);
        ASSERT_NE(s->mirror, nullptr);

        // /mem paths now go to the mirror, the others to the device.
        ASSERT_EQ(modbus_vukra_op_protected_lookup(s, "/mem/hello", nullptr), 0);
        EXPECT_EQ(s->mirror_selected, 1);
        EXPECT_EQ(read_all(s), "hello from the card\n");
        modbus_vukra_attributes attributes{};
        ASSERT_EQ(modbus_vukra_op_protected_lookup(s, "/dev/sdcard0", &attributes), 0);
        EXPECT_EQ(s->mirror_selected, 0);
        EXPECT_EQ(attributes.words[1] & 2u, 2u) << "the device's card node";

        // A second get replaces the mirror.
        ASSERT_EQ(getfs(s), 0) << modbus_vukra_op_session_error(s);
        ASSERT_EQ(modbus_vukra_op_protected_lookup(s, "/mem/big", nullptr), 0);
        EXPECT_EQ(read_all(s), random_bytes(20000, 7));
        close(s);
    }
    const std::string device = test::read_file(card);
    const std::string local = test::read_file("sdcard0.o");
    const Layout l = layout_of(device);
    ASSERT_EQ(l.block_size, 512u);
    // The last group reaches past the card's end: its copy stops there.
    const std::size_t card_end = 0x800000;
    ASSERT_GT(l.data_start() + static_cast<std::size_t>(l.groups) * l.chunk(), card_end);
    ASSERT_EQ(local.size(), card_end + 4) << "the local card file grew past its end marker";
    EXPECT_EQ(local.compare(0, l.data_start(), device, 0, l.data_start()), 0) << "header, map and metadata";
    int used = 0;
    for (std::uint32_t i = 0; i < l.groups; ++i) {
        const std::size_t at = l.data_start() + static_cast<std::size_t>(i) * l.chunk();
        const std::size_t length = std::min<std::size_t>(l.chunk(), card_end - at);
        if (device[l.map_start + i] != 0) {
            ++used;
            EXPECT_EQ(local.compare(at, length, device, at, length), 0) << "group " << i;
        } else {
            EXPECT_EQ(local.substr(at, length), std::string(length, '\0')) << "unused group " << i;
        }
    }
    EXPECT_GE(used, 5) << "the big file's groups at least";
}

TEST_F(ImageTransfer, PutSendsWhatChangedUnderMemBack) {
    make_card();
    {
        test::SimProcess sim(serving());
        modbus_vukra_session* s = open_mounted(sim.port());
        ASSERT_NE(s, nullptr);
        ASSERT_EQ(getfs(s), 0) << modbus_vukra_op_session_error(s);
        ASSERT_EQ(modbus_vukra_op_protected_create(s, "/mem/new.txt"), 0);
        const std::string text = "written under /mem\n";
        ASSERT_EQ(modbus_vukra_op_protected_write(s, text.data(), static_cast<std::int32_t>(text.size())),
                  static_cast<std::int32_t>(text.size()));
        ASSERT_EQ(modbus_vukra_op_protected_remove(s, "/mem/hello"), 0);
        ASSERT_EQ(modbus_vukra_op_protected_putfs(s), 0) << modbus_vukra_op_session_error(s);
        EXPECT_EQ(info_of(s).transfer(), (std::vector<std::int32_t>{2, 4, 100})) << "done";
        close(s);
    }
    ASSERT_EQ(on_card("get /new.txt out.txt"), 0);
    EXPECT_EQ(test::read_file("out.txt"), "written under /mem\n");
    EXPECT_NE(on_card("get /hello gone.txt"), 0) << "the removal travelled too";
    EXPECT_EQ(on_card("check"), 0) << "a consistent card";
}

TEST_F(ImageTransfer, CancelDuringTheDataPhaseStopsAtAGroupBoundary) {
    make_card(300000);
    test::SimProcess sim(serving());
    modbus_vukra_session* s = open_mounted(sim.port());
    ASSERT_NE(s, nullptr);

    std::atomic<bool> finished{false};
    std::atomic<int> cancelled_in_phase{0};
    std::thread watcher([&] {
        while (!finished.load()) {
            const Info i = info_of(s);
            if (i.direction() == 1 && i.phase() == 2) {
                cancelled_in_phase = 2;
                EXPECT_EQ(modbus_vukra_op_cancelfs(s), 0);
                return;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    });
    const std::int32_t result = getfs(s);
    finished = true;
    watcher.join();
    ASSERT_EQ(cancelled_in_phase.load(), 2) << "the watcher saw the data phase";
    EXPECT_EQ(result, -1);
    EXPECT_EQ(modbus_vukra_op_session_error(s), -11);
    EXPECT_EQ(info_of(s).phase(), 2);
    EXPECT_LT(info_of(s).progress(), 100);
    EXPECT_EQ(s->mirror_enabled, 0);
    EXPECT_FALSE(mem_mounted_locally());

    // The session goes on, and a get without cancel succeeds.
    EXPECT_EQ(modbus_vukra_op_protected_null(s), 0);
    ASSERT_EQ(getfs(s), 0) << modbus_vukra_op_session_error(s);
    EXPECT_TRUE(mem_mounted_locally());
    close(s);
}

TEST_F(ImageTransfer, DeviceThatVanishesFailsWithinTheTimeOut) {
    make_card(100000);
    {
        test::SimProcess sim(serving({"--drop-after", "30"}));
        modbus_vukra_session* s = open_mounted(sim.port());
        ASSERT_NE(s, nullptr);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(getfs(s), -1);
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(modbus_vukra_op_session_error(s), 513);
        EXPECT_LT(took, std::chrono::milliseconds(5000 + 1000)) << "one read time-out, not one per request";
        EXPECT_FALSE(mem_mounted_locally());
        EXPECT_EQ(s->mirror_enabled, 0);
        close(s);
    }
    test::SimProcess sim(serving());
    modbus_vukra_session* s = open_mounted(sim.port());
    ASSERT_NE(s, nullptr);
    ASSERT_EQ(getfs(s), 0) << modbus_vukra_op_session_error(s);
    EXPECT_TRUE(mem_mounted_locally());
    close(s);
}

TEST_F(ImageTransfer, EachSessionsGetLetsGoOfTheMemBefore) {
    // The kernel outlives Sessions, and "/mem" stays mounted after one
    // closes: the next Session's get must unmount it, or the mounts pile
    // up until the kernel has no slot left.
    make_card();
    for (int i = 0; i < kernel::kMountSlots + 1; ++i) {
        SCOPED_TRACE(i);
        test::FakeCardDevice device(test::read_file(card));
        modbus_vukra_session* s = open_mounted(device.port());
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(getfs(s), 0) << modbus_vukra_op_session_error(s);
        close(s);
    }
    EXPECT_TRUE(mem_mounted_locally());
}

// ---- crafted images from a fake device ------------------------------------

std::string header15(std::uint16_t block_size, std::uint32_t map_size, std::uint32_t groups, std::uint32_t metadata) {
    std::string h = "ufs 1.5";
    h.push_back(static_cast<char>(block_size & 0xFF));
    h.push_back(static_cast<char>(block_size >> 8));
    h.append(20, '\0');
    put_le32(h, 9, map_size);
    put_le32(h, 13, groups);
    put_le32(h, 21, metadata);
    return h;
}

struct RefusedImage {
    const char* what;
    std::string image;
    std::uint32_t kind;
    std::int32_t error;
};

TEST_F(ImageTransfer, DamagedImagesAreRefusedAndTheSessionGoesOn) {
    std::string truncated = header15(512, 64, 64, 128); // no map behind it
    std::string no_signature = header15(512, 4, 4, 4) + std::string(12, '\0');
    no_signature.replace(0, 7, "ufs 9.9");
    const RefusedImage cases[] = {
        {"unknown signature", no_signature, 2, remotefs::kImageRefused},
        {"block size above 512", header15(1024, 4, 4, 4) + std::string(8, '\0'), 2, remotefs::kImageRefused},
        {"block size 0", header15(0, 4, 4, 4) + std::string(8, '\0'), 2, remotefs::kImageRefused},
        {"map larger than the card", header15(512, 0xFFFFFFF0u, 1, 4), 2, remotefs::kImageRefused},
        {"more groups than the map describes", header15(512, 4, 5, 4) + std::string(8, '\0'), 2, remotefs::kImageRefused},
        {"groups past the card's end", header15(512, 4096, 4096, 0) + std::string(4096, '\0'), 2, remotefs::kImageRefused},
        {"a directory", header15(512, 4, 4, 4) + std::string(8, '\0'), 8, remotefs::kImageRefused},
        {"a map that never comes", truncated, 2, remotefs::kTransferStalled},
    };
    for (const RefusedImage& c : cases) {
        SCOPED_TRACE(c.what);
        test::FakeCardDevice device(c.image, c.kind);
        modbus_vukra_session* s = open_mounted(device.port());
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(getfs(s), -1);
        EXPECT_EQ(modbus_vukra_op_session_error(s), c.error);
        EXPECT_EQ(s->mirror_enabled, 0);
        EXPECT_EQ(modbus_vukra_op_protected_null(s), 0) << "the session still works";
        close(s);
    }
}

TEST_F(ImageTransfer, ImageWithNoGroupInUseMovesOnlyHeaderMetadataAndSignature) {
    make_card(50000);
    const std::string full = test::read_file(card);
    const Layout l = layout_of(full);
    std::string empty_map = full;
    std::fill(empty_map.begin() + l.map_start, empty_map.begin() + l.map_start + l.map_size, '\0');
    {
        // First a card with data, so that the local groups are not zeros.
        test::FakeCardDevice device(full);
        modbus_vukra_session* s = open_mounted(device.port());
        ASSERT_NE(s, nullptr);
        ASSERT_EQ(getfs(s), 0) << modbus_vukra_op_session_error(s);
        close(s);
    }
    const std::string before = test::read_file("sdcard0.o");
    ASSERT_NE(before.find_first_not_of('\0', l.data_start()), std::string::npos);

    test::FakeCardDevice device(empty_map);
    modbus_vukra_session* s = open_mounted(device.port());
    ASSERT_NE(s, nullptr);
    getfs(s); // the mount of a volume without its groups may fail; the copy is what counts here
    EXPECT_EQ(info_of(s).phase(), 4);
    EXPECT_EQ(info_of(s).progress(), 100);
    // signature, block size, fields, the map and metadata in pieces of
    // 1024 at most, the signature again: nothing of the data region.
    const int expected_reads = 3 + static_cast<int>((l.map_size + 1023) / 1024) +
                               static_cast<int>((l.metadata_size + 1023) / 1024) + 1;
    EXPECT_EQ(device.reads(), expected_reads);
    close(s);
    const std::string after = test::read_file("sdcard0.o");
    EXPECT_EQ(after.compare(0, l.data_start(), empty_map, 0, l.data_start()), 0);
    const std::size_t end = l.data_start() + static_cast<std::size_t>(l.groups) * l.chunk();
    EXPECT_EQ(after.find_first_not_of('\0', l.data_start()) >= end, true) << "every group zeroed";
}

// ---- a card that is not what the image claims -----------------------------

// Bytes of the local card, written through its host file, from which the
// kernel reads the card directly.
void patch_local_card(std::size_t at, const std::string& bytes) {
    std::fstream f("sdcard0.o", std::ios::binary | std::ios::in | std::ios::out);
    f.seekp(static_cast<std::streamoff>(at));
    f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// "/mem" let go, so that the local card can be changed below it.
void unmount_mem() {
    remotefs::local_server_close();
    kernel::umount("/mem");
}

TEST_F(ImageTransfer, PutStaysWithinTheDevicesSmallerCard) {
    constexpr std::size_t kCard = 1 << 20; // the local card keeps its 8 MiB
    test::write_file(card, std::string(kCard, '\0'));
    ASSERT_EQ(on_card("mkfs"), 0);
    test::SimProcess sim(serving());
    modbus_vukra_session* s = open_mounted(sim.port());
    ASSERT_NE(s, nullptr);
    ASSERT_EQ(getfs(s), 0) << modbus_vukra_op_session_error(s);
    unmount_mem();
    const std::string device = test::read_file(card);
    const Layout l = layout_of(device);
    const std::uint32_t last = l.groups - 1;
    const std::size_t last_at = l.data_start() + static_cast<std::size_t>(last) * l.chunk();
    ASSERT_LT(last_at, kCard);
    ASSERT_GT(last_at + l.chunk(), kCard) << "the last group reaches past the card's end";
    ASSERT_GT(l.map_size, l.groups) << "room in the map for one group more";
    const std::string head = device.substr(0, l.map_start + l.map_size);

    // A used group starting past the device's card: refused before
    // anything is written, though it lies within the local card.
    std::string claims_more = head;
    put_le32(claims_more, l.map_start - 16, l.groups + 1);
    claims_more[l.map_start + l.groups] = 1;
    patch_local_card(0, claims_more);
    EXPECT_EQ(modbus_vukra_op_protected_putfs(s), -1);
    EXPECT_EQ(modbus_vukra_op_session_error(s), remotefs::kImageRefused);
    EXPECT_TRUE(test::read_file(card) == device) << "the device's card as it was";

    // The last group in use: its copy ends at the device card's end.
    std::string last_used = head;
    last_used[l.map_start + last] = 1;
    patch_local_card(0, last_used);
    const std::string group = random_bytes(l.chunk(), 3);
    patch_local_card(last_at, group);
    ASSERT_EQ(modbus_vukra_op_protected_putfs(s), 0) << modbus_vukra_op_session_error(s);
    const std::string after = test::read_file(card);
    EXPECT_EQ(after.size(), kCard) << "nothing written past the card";
    EXPECT_EQ(after.compare(last_at, std::string::npos, group, 0, kCard - last_at), 0) << "the group up to the end";
    close(s);
}

// A volume whose header passes the transfer's checks but whose map or
// metadata are garbage: the mount, listings and reads under "/mem" fail
// or give what they find, within bounds, and the session goes on.
TEST_F(ImageTransfer, DamagedVolumeUnderMemGivesErrorsNotCrashes) {
    make_card(30000);
    ASSERT_EQ(on_card("mkdir /d"), 0);
    ASSERT_EQ(on_card("put hello.txt /d/inner"), 0);
    const std::string good = test::read_file(card);
    const Layout l = layout_of(good);
    const std::size_t metadata_at = l.map_start + l.map_size;
    struct Damage {
        const char* what;
        std::size_t at, size;
        unsigned seed; // 0: bytes of 0xFF
    };
    const Damage damages[] = {
        {"metadata in random bytes", metadata_at, l.metadata_size, 5},
        {"metadata in 0xFF", metadata_at, l.metadata_size, 0},
        {"the metadata's second half in random bytes", metadata_at + l.metadata_size / 2, l.metadata_size / 2, 6},
        {"map in random bytes", l.map_start, l.map_size, 7},
    };
    int mounted = 0;
    for (const Damage& d : damages) {
        SCOPED_TRACE(d.what);
        std::string image = good;
        image.replace(d.at, d.size, d.seed == 0 ? std::string(d.size, '\xFF') : random_bytes(d.size, d.seed));
        test::FakeCardDevice device(image);
        modbus_vukra_session* s = open_mounted(device.port());
        ASSERT_NE(s, nullptr);
        if (getfs(s) == 0) {
            ++mounted;
            for (const char* listed : {"/mem", "/mem/d"}) {
                if (modbus_vukra_op_protected_lookup(s, listed, nullptr) != 0) continue;
                for (int page = 0; page < 64; ++page) {
                    modbus_vukra_dir_entry* first = nullptr;
                    const std::int32_t eof = modbus_vukra_op_protected_readdir(s, &first);
                    const std::vector<std::string> names = test::take_names(first);
                    EXPECT_LE(names.size(), 256u);
                    if (eof != 0) break;
                }
            }
            for (const char* file : {"/mem/hello", "/mem/big", "/mem/d/inner"}) {
                if (modbus_vukra_op_protected_lookup(s, file, nullptr) != 0) continue;
                char buffer[1024];
                for (int piece = 0; piece < 64; ++piece) {
                    const std::int32_t n = modbus_vukra_op_protected_read(s, buffer, sizeof buffer);
                    EXPECT_LE(n, 1024);
                    if (n <= 0) break;
                }
            }
        } else {
            EXPECT_EQ(s->mirror_enabled, 0) << "a failed get leaves no mirror";
        }
        EXPECT_EQ(modbus_vukra_op_protected_null(s), 0) << "the session still works";
        close(s);
        unmount_mem();
    }
    EXPECT_GT(mounted, 0) << "some damage reached the mounted volume";
}

} // namespace
