// getfs and putfs against vukra-sim and a fake device whose lookup does not
// tell the card's size: cancel, refusals, routing after a "/mem" lookup; the
// put of what changed against the fake device, which counts what is written.
// A vanishing device: test_line_faults; damaged volumes: the ufs image
// fuzzer; host threads: test_stress.
#include "kernel/vfs.h"
#include "modbus_vukra.h"
#include "remotefs/image_layout.h"
#include "remotefs/image_transfer.h"
#include "remotefs/local_server.h"
#include "remotefs/messages.h"
#include "session/session.h"
#include "support/fake_card_device.h"
#include "support/session_fixture.h"
#include "support/sim_process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <functional>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

using namespace vukra;
using test::read_all;

namespace {

// The parts of an image, by the transfer's own reader of its header.
remotefs::ImageLayout layout_of(const std::string& image) {
    remotefs::ImageLayout l;
    EXPECT_TRUE(remotefs::decode_layout(reinterpret_cast<const std::uint8_t*>(image.data()), l));
    return l;
}

std::string random_bytes(std::size_t n, unsigned seed) {
    std::mt19937 gen(seed);
    std::string s(n, '\0');
    for (auto& c : s) c = static_cast<char>(gen());
    return s;
}

// Direction, phase and progress of the Session's last transfer.
std::vector<std::int32_t> transfer_of(modbus_vukra_session* s) {
    std::int32_t w[MODBUS_VUKRA_INFO_WORDS] = {};
    modbus_vukra_op_session_info(s, w);
    return {w[MODBUS_VUKRA_INFO_DIRECTION], w[MODBUS_VUKRA_INFO_PHASE], w[MODBUS_VUKRA_INFO_PROGRESS]};
}

bool mem_mounted_locally() {
    kernel::NodeStatus status{};
    return kernel::stat("/mem/hello", status) == 0;
}

// A "ufs 1.5" header: block size, then the map size, group count and
// metadata size among its five fields.
std::string header15(std::uint16_t block_size, std::uint32_t map_size, std::uint32_t groups, std::uint32_t metadata) {
    std::string h = "ufs 1.5" + std::string(22, '\0');
    const std::pair<std::size_t, std::uint32_t> fields[] = {{9, map_size}, {13, groups}, {21, metadata}, {7, block_size}};
    for (const auto& [at, value] : fields)
        for (std::size_t i = 0; i < (at == 7 ? 2 : 4); ++i) h[at + i] = static_cast<char>(value >> (8 * i));
    return h;
}

struct ImageTransfer : test::SessionFixture {
    // vukra-ufs on the card image (or another), its output dropped: its exit status.
    int on_card(const std::string& arguments, const std::string& image = "") const {
        return std::system((VUKRA_UFS_PATH " " + (image.empty() ? card : image) + " " + arguments + " >/dev/null 2>&1").c_str());
    }
    // vukra-sim's arguments to serve the card, and more.
    std::vector<std::string> serving(std::vector<std::string> more = {}) const {
        more.insert(more.begin(), {"--table", "table.xml", "--image", card});
        return more;
    }
    // A card with /hello and a file of size bytes at /big.
    void make_card(std::size_t big = 20000) {
        ASSERT_EQ(on_card("mkfs"), 0);
        test::write_file("hello.txt", "hello from the card\n");
        test::write_file("big.bin", random_bytes(big, 7));
        ASSERT_EQ(on_card("put hello.txt /hello"), 0);
        ASSERT_EQ(on_card("put big.bin /big"), 0);
    }
    // A session on a fake device that has got its card, or null.
    static modbus_vukra_session* got(test::FakeCardDevice& device) {
        modbus_vukra_session* s = open_mounted(device.port());
        if (s != nullptr && getfs(s) != 0) ADD_FAILURE() << "getfs: " << modbus_vukra_op_session_error(s);
        return s;
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
    make_card();
    std::uint64_t line[2] = {};
    {
        test::SimProcess sim(serving());
        modbus_vukra_session* s = open_mounted(sim.port());
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(modbus_vukra_op_protected_putfs(s), -1) << "no mirror yet";
        ASSERT_EQ(getfs(s), 0) << modbus_vukra_op_session_error(s);
        EXPECT_EQ(s->mirror_enabled, 3);
        EXPECT_EQ(transfer_of(s), (std::vector<std::int32_t>{1, 4, 100})) << "done";
        ASSERT_EQ(modbus_vukra_transfer_bytes(s, line), 0);
        // Each get replaces the mirror and lets go of the "/mem" the one
        // before mounted, or the kernel's mount slots would run out.
        for (int i = 0; i < kernel::kMountSlots; ++i) ASSERT_EQ(getfs(s), 0) << i << ": " << modbus_vukra_op_session_error(s);
        ASSERT_EQ(modbus_vukra_op_protected_lookup(s, "/mem/big", nullptr), 0);
        EXPECT_EQ(read_all(s), random_bytes(20000, 7));
        // The whole copy put back leaves the card as below.
        ASSERT_EQ(modbus_vukra_op_protected_putfs(s), 0) << modbus_vukra_op_session_error(s);
        EXPECT_EQ(transfer_of(s), (std::vector<std::int32_t>{2, 4, 100})) << "done";
        close(s);
    }
    const std::string device = test::read_file(card);
    const std::string local = test::read_file("sdcard0.o");
    const remotefs::ImageLayout l = layout_of(device);
    ASSERT_EQ(l.block_size, 512u);
    // The last group reaches past the card's end: its copy stops there.
    const std::size_t card_end = 0x800000;
    ASSERT_GT(l.data_start() + static_cast<std::size_t>(l.group_count) * l.chunk(), card_end);
    ASSERT_EQ(local.size(), card_end + 4) << "the local card file grew past its end marker";
    EXPECT_EQ(local.compare(0, l.data_start(), device, 0, l.data_start()), 0) << "header, map and metadata";
    int used = 0;
    // What a user is shown: the bytes that crossed the line, the header
    // read twice, the map, the metadata, the used groups and the signature.
    std::uint64_t crossing = 2 * l.map_start + l.map_size + l.metadata_size;
    for (std::uint32_t i = 0; i < l.group_count; ++i) {
        const std::size_t at = l.data_start() + static_cast<std::size_t>(i) * l.chunk();
        const std::size_t length = std::min<std::size_t>(l.chunk(), card_end - at);
        const bool in_use = device[l.map_start + i] != 0;
        used += in_use ? 1 : 0;
        crossing += in_use ? length : 0;
        EXPECT_EQ(local.substr(at, length), in_use ? device.substr(at, length) : std::string(length, '\0')) << i;
    }
    EXPECT_GE(used, 5) << "the big file's groups at least";
    EXPECT_EQ(line[0], crossing);
    EXPECT_EQ(line[1], crossing);
}

// mount and mkfs name no path, but the transport looks only at the
// Session's mirror flags: after a "/mem" lookup the local server answers
// them (its mount closes what the mirror held open; the Session's own
// handle names nothing there), until a path elsewhere clears the flag.
TEST_F(ImageTransfer, MountAndMkfsAfterAMemLookupGoToTheLocalServer) {
    make_card();
    test::FakeCardDevice device(test::read_file(card));
    modbus_vukra_session* s = got(device);
    ASSERT_NE(s, nullptr);
    const int mounts = device.requests(remotefs::kOpMount);
    ASSERT_EQ(modbus_vukra_op_protected_lookup(s, "/mem/hello", nullptr), 0);
    EXPECT_EQ(modbus_vukra_op_protected_mount(s), 0);
    EXPECT_EQ(s->mirror_selected, 1);
    char byte;
    EXPECT_EQ(modbus_vukra_op_protected_read(s, &byte, 1), -1) << "the mount closed /mem/hello";
    const modbus_vukra_mkfs_params params{};
    EXPECT_EQ(modbus_vukra_op_protected_mkfs(s, &params), -1);
    EXPECT_EQ(modbus_vukra_op_session_error(s), remotefs::kServerNotOpen);
    EXPECT_EQ(device.requests(remotefs::kOpMount), mounts);
    EXPECT_EQ(device.requests(remotefs::kOpMkfs), 0);
    ASSERT_EQ(modbus_vukra_op_protected_lookup(s, "/dev/sdcard0", nullptr), 0);
    EXPECT_EQ(modbus_vukra_op_protected_mount(s), 0);
    EXPECT_EQ(device.requests(remotefs::kOpMount), mounts + 1);
    close(s);
}

TEST_F(ImageTransfer, CancelDuringTheDataPhaseStopsAtAGroupBoundary) {
    make_card(300000);
    test::SimProcess sim(serving());
    modbus_vukra_session* s = open_mounted(sim.port());
    ASSERT_NE(s, nullptr);

    std::atomic<bool> finished{false}, cancelled{false};
    std::thread watcher([&] {
        for (; !finished.load() && !cancelled.load(); std::this_thread::sleep_for(std::chrono::microseconds(200)))
            if (transfer_of(s)[0] == 1 && transfer_of(s)[1] == 2) cancelled = modbus_vukra_op_cancelfs(s) == 0;
    });
    const std::int32_t result = getfs(s);
    finished = true;
    watcher.join();
    ASSERT_TRUE(cancelled.load()) << "the watcher saw the data phase";
    EXPECT_EQ(result, -1);
    EXPECT_EQ(modbus_vukra_op_session_error(s), -11);
    EXPECT_EQ(transfer_of(s)[1], 2);
    EXPECT_LT(transfer_of(s)[2], 100);
    EXPECT_EQ(s->mirror_enabled, 0);
    EXPECT_FALSE(mem_mounted_locally());

    // The session goes on, and a get without cancel succeeds.
    EXPECT_EQ(modbus_vukra_op_protected_null(s), 0);
    ASSERT_EQ(getfs(s), 0) << modbus_vukra_op_session_error(s);
    EXPECT_TRUE(mem_mounted_locally());
    close(s);
}

// The error word after each refusal: an image the transfer does not take
// and a local card that cannot be opened leave the lookup's 0; an image
// that does not fit the local card is -12; a map that never comes -13. A
// refused header changes neither card.
TEST_F(ImageTransfer, RefusalsLeaveTheirErrorWords) {
    const std::string fits = header15(512, 4, 4, 4) + std::string(8, '\0');
    const std::string no_signature = "ufs 9.9" + fits.substr(7);
    // kind: the lookup's second word; busy: every kernel descriptor taken.
    struct Refusal { const char* what; std::string image; std::uint32_t kind; bool busy; std::int32_t error; };
    const Refusal cases[] = {
        {"a directory", fits, 8, false, 0},
        {"a local card that cannot be opened", fits, 2, true, 0},
        {"unknown signature", no_signature, 2, false, 0},
        {"block size above 512", header15(1024, 4, 4, 4) + std::string(8, '\0'), 2, false, 0},
        {"a map past the local card", header15(512, 0xFFFFFFF0u, 1, 4), 2, false, remotefs::kImageRefused},
        {"groups past the local card", header15(512, 4096, 4096, 0) + std::string(4096, '\0'), 2, false,
         remotefs::kImageRefused},
        {"a map that never comes", header15(512, 64, 64, 128), 2, false, remotefs::kTransferStalled},
    };
    for (const Refusal& c : cases) {
        SCOPED_TRACE(c.what);
        test::FakeCardDevice device(c.image, c.kind);
        modbus_vukra_session* s = open_mounted(device.port());
        ASSERT_NE(s, nullptr);
        kernel::close(kernel::open("/dev/sdcard0", 3)); // the local card exists
        const std::string before = test::read_file("sdcard0.o");
        std::vector<kernel::Descriptor> held;
        for (kernel::Descriptor fd; c.busy && (fd = kernel::open("/", kernel::kOpenRead)) >= 0;)
            held.push_back(fd);
        EXPECT_EQ(getfs(s), -1);
        for (const kernel::Descriptor fd : held) kernel::close(fd);
        EXPECT_EQ(modbus_vukra_op_session_error(s), c.error);
        EXPECT_TRUE(c.error == remotefs::kTransferStalled || test::read_file("sdcard0.o") == before) << "changed";
        EXPECT_EQ(s->mirror_enabled, 0);
        EXPECT_EQ(modbus_vukra_op_protected_null(s), 0) << "the session still works";
        close(s);
    }
}

bool write_file_under_mem(modbus_vukra_session* s, const char* path, const std::string& text) {
    return modbus_vukra_op_protected_create(s, path) == 0 &&
           modbus_vukra_op_protected_write(s, text.data(), static_cast<std::int32_t>(text.size())) ==
               static_cast<std::int32_t>(text.size());
}

TEST_F(ImageTransfer, ChangedPutSendsEachChangeInAFewBytesAndTheCardsAgree) {
    make_card();
    const std::pair<const char*, std::function<bool(modbus_vukra_session*)>> changes[] = {
        {"a small file", [](auto* s) { return write_file_under_mem(s, "/mem/new.conf", "rate=9600\n"); }},
        {"a directory", [](auto* s) { return modbus_vukra_op_protected_mkdir(s, "/mem/d") == 0; }},
        {"a rename", [](auto* s) { return modbus_vukra_op_protected_rename(s, "/mem/hello", "/mem/hi") == 0; }},
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
        const remotefs::ImageLayout l = layout_of(local);
        EXPECT_EQ(remote.compare(0, l.data_start(), local, 0, l.data_start()), 0) << "header, map and metadata";
        for (std::size_t i = 0; i < l.group_count && i < l.map_size; ++i) {
            const std::size_t at = static_cast<std::size_t>(l.data_start() + i * l.chunk());
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
        EXPECT_EQ(on_card("check", "device.img"), 0);

        // Nothing changed since: nothing written, and the local card as it was.
        EXPECT_EQ(modbus_vukra_protected_putfs_changed(s), 0);
        EXPECT_EQ(device.bytes_written(), written);
        EXPECT_EQ(test::read_file("sdcard0.o"), local);
        close(s);
    }
}

// Each refusal comes before the first write, with its error word.
TEST_F(ImageTransfer, ChangedPutRefusalsWriteNothing) {
    make_card();
    const remotefs::ImageLayout l = layout_of(test::read_file(card));
    const std::size_t big_data = l.data_start() + 2 * l.chunk(); // inside /big, far from what the change writes
    // Changes made behind the host's back: on the device, or on the local card's file.
    struct Behind {
        const char* what;
        std::function<void(test::FakeCardDevice&)> poke;
        std::int32_t error;
    };
    const auto on_local = [](std::size_t at) { // a byte of the local card's file flipped
        std::fstream f("sdcard0.o", std::ios::in | std::ios::out | std::ios::binary);
        const int byte = f.seekg(static_cast<std::streamoff>(at)).get();
        f.seekp(static_cast<std::streamoff>(at)).put(static_cast<char>(~byte));
    };
    const Behind behind[] = {
        {"the device's metadata", [&](auto& d) { d.poke(l.metadata_start() + 18 * 5, "\x01"); }, remotefs::kDeviceCardChanged},
        {"the device's map", [&](auto& d) { d.poke(l.map_start + 40, "\x01"); }, remotefs::kDeviceCardChanged},
        {"the local card's metadata", [&](auto&) { on_local(l.metadata_start() + 18 * 40); }, remotefs::kLocalCardChanged},
        {"the local card's data", [&](auto&) { on_local(big_data + 100); }, remotefs::kLocalCardChanged},
    };
    for (const Behind& b : behind) {
        SCOPED_TRACE(b.what);
        test::FakeCardDevice device(test::read_file(card));
        modbus_vukra_session* s = got(device);
        ASSERT_NE(s, nullptr);
        ASSERT_TRUE(write_file_under_mem(s, "/mem/new.conf", "rate=9600\n"));
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
