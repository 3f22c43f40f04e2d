// File operations through the exports against a scripted device on a
// pseudo-terminal: the frames they send, what they make of the replies, the
// local operations. Routing by "/mem": test_image_transfer and vukra_chain.
#include "modbus_vukra.h"
#include "session/session.h"
#include "support/files.h"
#include "support/pty_pair.h"
#include "support/session_fixture.h"
#include "support/temp_dir.h"
#include "support/wire_bytes.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>

using namespace vukra;
using test::Bytes;
using test::Wire;

namespace {

constexpr std::uint32_t kAll = 0xFFFFFFFFu;

// The device: takes one request packet and answers it with a canned frame.
struct ScriptedDevice {
    const test::PtyPair& pty;
    Bytes request;
    std::thread thread;

    ScriptedDevice(const test::PtyPair& line, Bytes reply_frame) : pty(line) {
        thread = std::thread([this, reply = std::move(reply_frame)] {
            request = pty.receive_packet(3000);
            if (request.empty() || reply.empty()) return;
            pty.send(test::slip_packet(reply));
        });
    }
    // The request frame as the device saw it.
    Bytes seen() {
        if (thread.joinable()) thread.join();
        return request;
    }
    ~ScriptedDevice() {
        if (thread.joinable()) thread.join();
    }
};

struct RemoteFsTest : ::testing::Test {
    test::TempWorkingDir dir;
    test::PtyPair pty;
    modbus_vukra_session* s = nullptr;

    RemoteFsTest() {
        test::write_file("table.xml", "<root><type_list/><table_list/></root>");
        s = modbus_vukra_op_session_open(pty.slave_path.c_str());
    }
    ~RemoteFsTest() override {
        if (s != nullptr) modbus_vukra_op_session_close(s);
    }
    // Every test starts with a session open.
    void SetUp() override { ASSERT_NE(s, nullptr); }
    // Nothing reaches the device within a moment.
    bool line_quiet() const { return pty.receive_packet(200).empty(); }
};

TEST_F(RemoteFsTest, MountSendsIdentityAndFlagsAndKeepsTheReply) {
    {   // a refused mount keeps the volume, stores the status and the flags
        ScriptedDevice refusing(pty, test::frame(1, Wire{}.item(7).item(4, {0, 1, 1, 5}).item(4, {1}).item(4, {1}).item(4, {5}).item(23).bytes));
        EXPECT_EQ(modbus_vukra_op_protected_mount(s), -1);
        refusing.seen();
        EXPECT_EQ(modbus_vukra_op_session_error(s), 23);
        EXPECT_EQ(s->volume, kAll);
        EXPECT_EQ(s->reply_flags.bytes[3], 5);
    }
    const std::string path = s->mount_path;
    const std::uint32_t text_length = static_cast<std::uint32_t>(path.size() + 1 <= 4 ? 4 : path.size() + 1 + (4 - (path.size() + 1) % 4));
    ScriptedDevice device(pty, test::frame(1, Wire{}.item(1).item(4, {0, 2, 3, 4}).item(4, {2}).item(4, {3}).item(4, {4}).item(0).bytes));
    EXPECT_EQ(modbus_vukra_op_protected_mount(s), 0);
    // Each flag byte's item carries the record's following bytes; past the record, zeros.
    EXPECT_EQ(device.seen(),
              test::frame(1, Wire{}.text(text_length, path).item(4, {0, 1, 1, 1}).item(4, {1, 1, 1}).item(4, {1, 1}).item(4, {1}).bytes));
    EXPECT_EQ(s->volume, 1u);
    EXPECT_EQ(s->reply_flags.bytes[1], 2);
    EXPECT_EQ(s->reply_flags.bytes[3], 4);
    std::int32_t info[7];
    ASSERT_EQ(modbus_vukra_op_session_info(s, info), 0);
    const std::uint8_t reply_flags[4] = {0, 2, 3, 4};
    EXPECT_EQ(std::memcmp(&info[1], reply_flags, 4), 0);

}

// One exchange each: the session's state before, the call, the request
// frame the device sees, its reply, and what the call makes of it.
struct Exchange {
    const char* what;
    std::function<void(modbus_vukra_session*)> before;
    std::function<std::int32_t(modbus_vukra_session*)> call;
    Bytes request, reply;
    std::int32_t result, error;
    std::function<void(modbus_vukra_session*)> after;
};

modbus_vukra_attributes got_attributes{};
modbus_vukra_usage got_usage{};
char got_bytes[8];
std::vector<std::uint8_t> sent_bytes(5000);
modbus_vukra_dir_entry* listing = nullptr;
const modbus_vukra_mkfs_params mkfs_params{{64, 8, 2}};

void at(modbus_vukra_session* s, std::uint32_t volume, std::uint32_t dir, std::int32_t file, std::int32_t position) {
    s->volume = volume;
    s->directory_ref = dir;
    s->file_descriptor = file;
    s->position = position;
}

TEST_F(RemoteFsTest, EachOperationsFrameAndWhatItMakesOfTheReply) {
    for (std::size_t i = 0; i < sent_bytes.size(); ++i) sent_bytes[i] = static_cast<std::uint8_t>(i);
    const std::vector<Exchange> exchanges = {
        {"lookup", [](auto* t) { at(t, 1, 0, -1, 77); },
         [](auto* t) { return modbus_vukra_op_protected_lookup(t, "/etc/x", &got_attributes); },
         test::frame(4, Wire{}.item(1).item(0).item(kAll).text(8, "/etc/x").bytes),
         test::frame(4, Wire{}.item(9).item(3).item(10).item(20).item(30).item(40).item(0).bytes), 0, 0,
         [](auto* t) {
             EXPECT_EQ((std::vector<std::int64_t>{t->directory_ref, t->file_descriptor, t->position, got_attributes.words[0],
                                                  got_attributes.words[3]}),
                       (std::vector<std::int64_t>{9, 3, 0, 10, 40}));
         }},
        {"failed create", [](auto* t) { at(t, 1, 0, -1, 0); }, [](auto* t) { return modbus_vukra_op_protected_create(t, "/f"); },
         test::frame(7, Wire{}.item(1).item(0).item(kAll).text(4, "/f").bytes),
         test::frame(7, Wire{}.item(0).item(kAll).item(0).item(0).item(0).item(0).item(17).bytes), -1, 17,
         [](auto* t) { EXPECT_EQ(t->file_descriptor, -1); }},
        {"read of 5000 asks 1024", [](auto* t) { at(t, 1, 0, 4, 100); std::memcpy(got_bytes, "-------", 8); },
         [](auto* t) { return modbus_vukra_op_protected_read(t, got_bytes, 5000); },
         test::frame(5, Wire{}.item(1).item(0).item(4).item(100).item(1024).bytes),
         test::frame(5, Wire{}.item(3).item(8, {'x', 'y', 'z', 'w'}).item(4, {1, 9, 9, 9}).item(4, {9, 9, 9, 0}).bytes), 3, 0,
         [](auto* t) {
             EXPECT_STREQ(got_bytes, "xyz----");
             EXPECT_EQ(t->position, 103);
         }},
        {"read status is its low byte", [](auto* t) { at(t, 1, 0, 4, 0); },
         [](auto* t) { return modbus_vukra_op_protected_read(t, got_bytes, 4); },
         test::frame(5, Wire{}.item(1).item(0).item(4).item(0).item(4).bytes),
         test::frame(5, Wire{}.item(0).item(4, {}).item(4, {0}).item(4, {0, 0, 0, 0x85}).bytes), -1, 0x85,
         [](auto* t) { EXPECT_EQ(t->position, 0); }},
        {"a device claiming more than asked", [](auto* t) { at(t, 1, 0, 4, 0); std::memset(got_bytes, 0, 8); },
         [](auto* t) { return modbus_vukra_op_protected_read(t, got_bytes, 2); },
         test::frame(5, Wire{}.item(1).item(0).item(4).item(0).item(2).bytes),
         test::frame(5, Wire{}.item(900).item(8, {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}).item(4, {0}).item(0).bytes), 2, 0,
         [](auto*) { EXPECT_STREQ(got_bytes, "ab"); }},
        {"write of 5000 sends 1024", [](auto* t) { at(t, 2, 0, 6, 10); },
         [](auto* t) { return modbus_vukra_op_protected_write(t, sent_bytes.data(), 5000); },
         test::frame(6, Wire{}.item(2).item(0).item(6).item(10).item(1024).item(1028, Bytes(sent_bytes.begin(), sent_bytes.begin() + 1024)).bytes),
         test::frame(6, Wire{}.item(1000).item(0).bytes), 1000, 0, [](auto* t) { EXPECT_EQ(t->position, 1010); }},
        {"readdir", [](auto* t) { at(t, kAll, 8, -1, 2); }, [](auto* t) { return modbus_vukra_op_protected_readdir(t, &listing); },
         test::frame(12, Wire{}.item(kAll).item(8).item(kAll).item(2).item(120).bytes),
         test::frame(12, Wire{}.word(36).item(1).text(4, "a").word(24).item(2).text(8, "bbbb").word(12).item(3).text(4, "ccc")
                             .word(0).item(5).item(4, {1}).item(0).bytes), 1, 0,
         [](auto* t) {
             EXPECT_EQ(test::take_names(listing), (std::vector<std::string>{"a", "bbbb", "ccc"}));
             EXPECT_EQ(modbus_vukra_op_protected_telldir(t), 5);
         }},
        {"fsstat", [](auto* t) { at(t, 1, 0, -1, 0); }, [](auto* t) { return modbus_vukra_op_protected_fsstat(t, "/", &got_usage); },
         test::frame(13, Wire{}.item(1).text(4, "/").bytes), test::frame(13, Wire{}.item(1).item(2).item(3).item(4).item(0).bytes), 0, 0,
         [](auto*) { EXPECT_EQ(got_usage.words[3], 4u); }},
        {"remove", nullptr, [](auto* t) { return modbus_vukra_op_protected_remove(t, "/abc"); },
         test::frame(8, Wire{}.item(1).text(8, "/abc").bytes), test::frame(8, Wire{}.item(2).bytes), -1, 2, nullptr},
        {"rename", nullptr, [](auto* t) { return modbus_vukra_op_protected_rename(t, "/a", "/b"); },
         test::frame(9, Wire{}.item(1).text(4, "/a").text(4, "/b").bytes), test::frame(9, Wire{}.item(0).bytes), 0, 0, nullptr},
        {"mkdir", nullptr, [](auto* t) { return modbus_vukra_op_protected_mkdir(t, "/d"); },
         test::frame(10, Wire{}.item(1).item(0).item(kAll).text(4, "/d").bytes),
         test::frame(10, Wire{}.item(5).item(kAll).item(0).item(0).item(0).item(0).item(0).bytes), 0, 0,
         [](auto* t) { EXPECT_EQ(t->directory_ref, 5u); }},
        {"mkfs", nullptr, [](auto* t) { return modbus_vukra_op_protected_mkfs(t, &mkfs_params); },
         test::frame(15, Wire{}.item(1).item(5).item(kAll).item(64).item(8).item(2).bytes), test::frame(15, Wire{}.item(0).bytes), 0, 0,
         nullptr},
    };
    for (const Exchange& x : exchanges) {
        SCOPED_TRACE(x.what);
        if (x.before) x.before(s);
        ScriptedDevice device(pty, x.reply);
        EXPECT_EQ(x.call(s), x.result);
        EXPECT_EQ(device.seen(), x.request);
        EXPECT_EQ(modbus_vukra_op_session_error(s), x.error);
        if (x.after) x.after(s);
    }
    EXPECT_EQ(modbus_vukra_op_protected_mkfs(s, nullptr), -1);
    EXPECT_EQ(modbus_vukra_op_protected_write(s, nullptr, 4), -1) << "no data to send";
}

// Results and error words, in order, with nothing open, a directory, a file.
TEST_F(RemoteFsTest, SeekSeekdirAndTelldirAnswerFromTheSession) {
    using Results = std::vector<std::int32_t>;
    const auto error = [&] { return modbus_vukra_op_session_error(s); };
    EXPECT_EQ((Results{modbus_vukra_op_protected_seek(s, 10, 0), error(), modbus_vukra_op_protected_seekdir(s, 3), error(),
                       modbus_vukra_op_protected_telldir(s)}),
              (Results{-1, 21, -1, 21, -1}));
    s->directory_ref = 7;
    EXPECT_EQ((Results{modbus_vukra_op_protected_seek(s, 10, 0), error(), modbus_vukra_op_protected_seekdir(s, 12),
                       modbus_vukra_op_protected_telldir(s)}),
              (Results{-1, -31, 12, 12}));
    s->directory_ref = 0;
    s->file_descriptor = 2;
    EXPECT_EQ((Results{modbus_vukra_op_protected_telldir(s), error(), modbus_vukra_op_protected_seekdir(s, 1), error(),
                       modbus_vukra_op_protected_seek(s, 100, 0), modbus_vukra_op_protected_seek(s, 10, 2),
                       modbus_vukra_op_protected_seek(s, 5, 1), modbus_vukra_op_protected_seek(s, 5, 9)}),
              (Results{-1, -56, -1, -56, 100, 90, 95, 95})); // whence 2 goes back from the current position
    EXPECT_TRUE(line_quiet());
}

TEST_F(RemoteFsTest, FsstatStatusStaysWithTheSessionThatCarriedIt) {
    modbus_vukra_session* mirror = modbus_vukra_op_session_open(nullptr);
    ASSERT_NE(mirror, nullptr);
    s->mirror = mirror;
    s->mirror_enabled = 3;
    s->mirror_selected = 1; // left over from an earlier /mem path
    ScriptedDevice device(pty, test::frame(13, Wire{}.item(0).item(0).item(0).item(0).item(30).bytes));
    modbus_vukra_usage usage;
    EXPECT_EQ(modbus_vukra_op_protected_fsstat(s, "/data", &usage), -1);
    device.seen();
    EXPECT_EQ(s->mirror_selected, 0);
    EXPECT_EQ(modbus_vukra_op_session_error(s), 30);
    EXPECT_EQ(mirror->error, 0);
}

TEST_F(RemoteFsTest, NullGoesToTheDeviceEvenWhenTheMirrorIsSelected) {
    s->mirror_enabled = 3;
    s->mirror_selected = 1;
    {
        ScriptedDevice device(pty, test::frame(0, Wire{}.item(0).bytes));
        EXPECT_EQ(modbus_vukra_op_protected_null(s), 0);
        EXPECT_EQ(device.seen(), test::frame(0, Wire{}.item(kAll).bytes));
        EXPECT_EQ(s->mirror_selected, 1) << "null leaves the selection alone";
    }
    s->file_descriptor = 1;
    EXPECT_EQ(modbus_vukra_op_protected_read(s, nullptr, 1), -1) << "other codes are served locally";
    EXPECT_TRUE(line_quiet());
}

} // namespace
