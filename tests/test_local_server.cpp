// The local server's handlers in-process: requests made with the codec and
// the operation's request table, replies decoded with its reply table, on a
// ufs volume mounted at "/mem". vukra-sim serves the device's files with
// these handlers, so the end-to-end tests check attributes, names, listings
// and the observer's write-back through the line; here the mirror's rules.
#include "kernel/kernel_diagnostics.h"
#include "kernel/kernel_errors.h"
#include "kernel/kernel_start.h"
#include "kernel/vfs.h"
#include "remotefs/local_server.h"
#include "remotefs/messages.h"
#include "support/kernel_helpers.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstring>
#include <utility>
#include <string>
#include <vector>

using namespace vukra;
using namespace vukra::remotefs;
using Bytes = std::vector<std::uint8_t>;

namespace {

constexpr std::int32_t kCard = 512 * 1024;

// A request record through its operation's request table.
template <typename Request>
Bytes encoded(std::uint8_t code, const Request& request, std::uint32_t extra = 0) {
    alignas(8) std::uint8_t area[kPayloadCapacity];
    std::uint32_t size = kOperations[code].request_size + extra;
    const std::int32_t n = encode(area, sizeof area, &request, size, kOperations[code].request);
    if (n < 0) ADD_FAILURE() << "request of code " << int(code) << " does not encode";
    return Bytes(area, area + std::max(n, 0));
}

struct Served {
    std::int32_t result = -1;
    alignas(8) std::uint8_t payload[kPayloadCapacity] = {};
};

// Serves payload under code and decodes the reply into reply; the served
// result (the reply's length, or -1).
template <typename Reply>
std::int32_t serve(std::uint8_t code, const Bytes& payload, Reply& reply) {
    static Served served;
    std::memset(&reply, 0, sizeof reply);
    alignas(8) std::uint8_t in[kPayloadCapacity + 8];
    if (!payload.empty()) std::memcpy(in, payload.data(), payload.size());
    served.result = local_serve(code, served.payload, in, static_cast<std::uint32_t>(payload.size()));
    if (served.result < 0) return served.result;
    EXPECT_LE(served.result, static_cast<std::int32_t>(kPayloadCapacity));
    std::uint32_t capacity = kOperations[code].reply_capacity;
    EXPECT_GE(decode(&reply, served.payload, static_cast<std::uint32_t>(served.result), capacity,
                     kOperations[code].reply),
              0)
        << "reply of code " << int(code) << " does not decode";
    return served.result;
}

// A request served and its reply decoded, the service checked.
template <typename Reply, typename Request>
Reply ask(std::uint8_t code, const Request& request, std::uint32_t extra = 0) {
    Reply reply;
    EXPECT_GE(serve(code, encoded(code, request, extra), reply), 0);
    return reply;
}

using Words = std::vector<std::uint32_t>;

struct LocalServer : ::testing::Test {
    test::TempWorkingDir dir;
    std::uint32_t volume = 0;

    LocalServer() {
        kernel::set_diagnostic_stream(nullptr);
        kernel::kernel_start();
        EXPECT_TRUE(test::mount_card(kCard, kernel::UfsMakeArgument{128, 0xFFFFFFFF, 512, kCard}));
    }

    MountReply mount(std::uint8_t a = 0, std::uint8_t b = 1, std::uint8_t c = 1, std::uint8_t d = 1) {
        const MountReply reply = ask<MountReply>(kOpMount, MountRequest{"host", MountFlags{{a, b, c, d}}});
        if (reply.status == 0) volume = reply.volume;
        return reply;
    }

    LookupReply designate(std::uint8_t code, const char* path, FileHandle from = {0, -1}) {
        return ask<LookupReply>(code, LookupRequest{volume, from, path});
    }
    LookupReply lookup(const char* path, FileHandle from = {0, -1}) { return designate(kOpLookup, path, from); }

    std::int32_t by_path(std::uint8_t code, const char* path) {
        return ask<StatusReply>(code, PathRequest{volume, path}).status;
    }
    std::int32_t rename(const char* from, const char* to) {
        return ask<StatusReply>(kOpRename, RenameRequest{volume, from, to}).status;
    }

    WriteReply write(FileHandle h, std::int32_t position, const std::string& bytes) {
        const auto n = static_cast<std::uint32_t>(bytes.size());
        const WriteRequest request{volume, h, position, n,
                                   WireBuffer{static_cast<std::int32_t>(n),
                                              reinterpret_cast<const std::uint8_t*>(bytes.data())}};
        return ask<WriteReply>(kOpWrite, request, n);
    }

    // The bytes read and the reply.
    std::string read(FileHandle h, std::int32_t position, std::uint32_t count, ReadReply& reply) {
        reply = ask<ReadReply>(kOpRead, ReadRequest{volume, h, position, count});
        if (reply.status != 0 || reply.data.data == nullptr) return "";
        return std::string(reinterpret_cast<const char*>(reply.data.data), reply.count);
    }
    std::int32_t read_status(FileHandle h, std::int32_t position = 0) {
        ReadReply reply;
        read(h, position, 3, reply);
        return reply.status;
    }

    // A readdir's status, its nodes freed.
    std::int32_t readdir_status(FileHandle h) {
        const auto reply = ask<ReaddirReply>(kOpReaddir, ReaddirRequest{volume, h, 0, kReaddirCount});
        free_nodes(reply.entries);
        return reply.status;
    }

    FsstatReply fsstat(const char* path) { return ask<FsstatReply>(kOpFsstat, PathRequest{volume, path}); }
};

TEST_F(LocalServer, MountAcceptsFlags011AndAlwaysAnswersItsOwnFlags) {
    // Before any mount nothing is served.
    EXPECT_EQ(lookup("/mem").status, kServerWrongVolume);

    // Each reply: status, volume, then its own flags.
    const auto words = [](const MountReply& r) {
        return Words{static_cast<std::uint32_t>(r.status), r.volume, r.flags.bytes[0], r.flags.bytes[1], r.flags.bytes[2], r.flags.bytes[3]};
    };
    EXPECT_EQ(words(mount(1, 1, 1, 1)), (Words{static_cast<std::uint32_t>(kServerMountRefused), 0, 0, 1, 1, 1}));
    EXPECT_EQ(words(mount(0, 1, 1, 9)), (Words{0, 1, 0, 1, 1, 1})); // the fourth byte is not looked at

    // Another volume number is not the mounted one.
    volume = 2;
    EXPECT_EQ(lookup("/mem").status, kServerWrongVolume);
    volume = 1;
    EXPECT_EQ(lookup("/mem").status, 0);

    // A refused mount leaves nothing mounted; a mount request that does not
    // decode is refused the same way.
    MountReply garbage;
    ASSERT_GE(serve(kOpMount, Bytes{1, 2, 3}, garbage), 0);
    EXPECT_EQ(words(garbage)[0], static_cast<std::uint32_t>(kServerMountRefused));
    EXPECT_EQ(lookup("/mem").status, kServerWrongVolume);
}

TEST_F(LocalServer, TheMirrorServesOnlyPathsUnderMem) {
    mount();
    ASSERT_TRUE(test::put_file("/mem/a", "a"));
    const std::vector<std::int32_t> outside = {
        lookup("/dev/sdcard0").status, lookup("/memory").status,     lookup("/").status,
        by_path(kOpRemove, "/bin/init"), by_path(kOpRmdir, "/usr"),  fsstat("/usr").status,
        rename("/mem/a", "/a"),          designate(kOpCreate, "/etc/x").status, designate(kOpMkdir, "/etc/d").status};
    EXPECT_EQ(outside, std::vector<std::int32_t>(9, kServerOutside));
    EXPECT_TRUE(test::names_in("/etc").empty());

    // ".." does not leave "/mem" once inside, mounted or not.
    LookupReply escape = lookup("/mem/../dev/sdcard0");
    EXPECT_EQ(escape.status, kernel::kErrNoNode);
    EXPECT_EQ(escape.handle.tag, -1);
    EXPECT_EQ(lookup("/mem/..").attributes.words[1], 8u);
    local_server_close();
    EXPECT_EQ(kernel::umount("/mem"), 0);
    EXPECT_EQ(lookup("/mem/../dev/sdcard0").status, kernel::kErrNoNode);
    EXPECT_EQ(lookup("/mem/./../../dev/null").status, kernel::kErrNoNode);
    ASSERT_EQ(kernel::mount(kernel::kUfsx, "/dev/sdcard0", "/mem"), 0);

    // A relative path starts at the current directory, else at "/mem".
    ASSERT_EQ(kernel::mkdir("/mem/d"), 0);
    ASSERT_TRUE(test::put_file("/mem/d/inner", "in"));
    LookupReply d = lookup("/mem/d");
    ASSERT_EQ(d.status, 0);
    EXPECT_EQ(lookup("inner", d.handle).attributes.words[2], 2u);
    EXPECT_EQ(lookup("a").attributes.words[2], 1u);
    EXPECT_EQ(lookup("inner", FileHandle{77, -1}).status, kServerNotOpen);
}

TEST_F(LocalServer, WriteAndReadMoveAtMost1024BytesAndTellTheEnd) {
    mount();
    LookupReply made = designate(kOpCreate, "/mem/data");
    ASSERT_EQ(made.status, 0);
    ASSERT_GE(made.handle.tag, 0);
    EXPECT_EQ(made.attributes.words[1] + made.attributes.words[2], 1u);

    std::string content;
    for (int i = 0; i < 3000; ++i) content.push_back(static_cast<char>('a' + i % 23));
    for (std::int32_t at = 0; at < 3000; at += 1024) {
        WriteReply w = write(made.handle, at, content.substr(static_cast<std::size_t>(at), 1024));
        EXPECT_EQ(w.status, 0);
        EXPECT_EQ(w.count, std::min<std::uint32_t>(1024, 3000 - static_cast<std::uint32_t>(at)));
    }
    EXPECT_EQ(test::get_file("/mem/data"), content);

    ReadReply r;
    EXPECT_EQ(read(made.handle, 0, 5000, r), content.substr(0, 1024)); // clamped
    EXPECT_EQ(r.eof, 0);
    EXPECT_EQ(read(made.handle, 2048, 1024, r), content.substr(2048));
    EXPECT_EQ((Words{r.count, static_cast<std::uint32_t>(r.eof)}), (Words{952, 1}));
    EXPECT_EQ(read(made.handle, 3000, 10, r), "");
    EXPECT_EQ((Words{static_cast<std::uint32_t>(r.status), static_cast<std::uint32_t>(r.eof)}), (Words{0, 1}));

    // A count above what the data item holds, or above 1024, is no request.
    WriteRequest lying{volume, made.handle, 0, 100, WireBuffer{8, reinterpret_cast<const std::uint8_t*>("12345678")}};
    EXPECT_EQ(ask<WriteReply>(kOpWrite, lying, 8).status, kServerBadRequest);
    EXPECT_EQ(write(made.handle, 0, std::string(1025, 'z')).status, kServerBadRequest);
    EXPECT_EQ(test::get_file("/mem/data"), content);

    // Creating an existing file empties it.
    LookupReply again = designate(kOpCreate, "/mem/data");
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.attributes.words[2], 0u);
    EXPECT_EQ(test::get_file("/mem/data"), "");
}

TEST_F(LocalServer, HandlesNotOpenAreRefused) {
    mount();
    ASSERT_TRUE(test::put_file("/mem/f", "abc"));
    LookupReply file = lookup("/mem/f");
    FileHandle stale = file.handle;
    EXPECT_EQ(read_status(FileHandle{0, stale.tag + 1}), kServerNotOpen);
    EXPECT_EQ(write(FileHandle{0, -1}, 0, "x").status, kServerNotOpen);
    EXPECT_EQ(readdir_status(stale), kServerNotOpen); // a file is no directory

    // The next lookup closes the file: its handle is stale.
    ASSERT_EQ(lookup("/mem").status, 0);
    EXPECT_EQ(read_status(stale), kServerNotOpen);
    // A failed lookup leaves nothing open (a mount closes what was: test_image_transfer).
    LookupReply missing = lookup("/mem/none");
    EXPECT_EQ(missing.status, kernel::kErrNoNode);
    EXPECT_EQ(std::make_pair(missing.handle.node, missing.handle.tag), std::make_pair(0u, -1));
}

} // namespace
