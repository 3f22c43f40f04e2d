// The remote filesystem's item stream: every operation's request and reply
// as bytes, the padding rules, the status byte of read and readdir, and
// damaged input.
#include "remotefs/message_codec.h"
#include "remotefs/messages.h"
#include "remotefs/statuses.h"
#include "support/wire_bytes.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace vukra::remotefs;
using vukra::test::Wire;
using Bytes = std::vector<std::uint8_t>;

namespace {

constexpr std::uint32_t kAll = 0xFFFFFFFFu;

struct Encoded {
    std::int32_t result;
    std::uint32_t size;
    Bytes bytes;
};

// Encodes into a word-aligned buffer, offset bytes in.
Encoded encode_record(const void* record, std::uint32_t size, const FieldDescriptor* table, std::size_t offset = 0) {
    alignas(16) static std::uint8_t out[4096];
    std::memset(out, 0xEE, sizeof out);
    std::int32_t r = encode(out + offset, sizeof out - offset, record, size, table);
    Bytes bytes;
    if (r > 0) bytes.assign(out + offset, out + offset + r);
    return {r, size, bytes};
}

Bytes encoded(const void* record, std::uint32_t size, const FieldDescriptor* table) {
    Encoded e = encode_record(record, size, table);
    EXPECT_GE(e.result, 0);
    return e.bytes;
}

struct Decoded {
    std::int32_t result;
    std::uint32_t size; // the input bytes taken
};

// Decodes all of wire into a record of size (32-bit terms).
Decoded decode_all(void* record, const Bytes& wire, std::uint32_t size, const FieldDescriptor* table) {
    const std::int32_t r = decode(record, wire.data(), static_cast<std::uint32_t>(wire.size()), size, table);
    return {r, size};
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Each operation's request frame through the exports is in
// test_remotefs_operations; here what the frames do not show.
TEST(RemoteFsRequests, GetattrRecordSizesAndCodesWithoutARequest) {
    const GetattrRequest getattr{2, FileHandle{5, -1}};
    EXPECT_EQ(encoded(&getattr, 12, kGetattrRequestFields), Wire{}.item(2).item(5).item(kAll).bytes);

    // A buffer counts two words of the record; encoding stops at the record size given.
    const std::uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const WriteRequest write{2, FileHandle{5, -1}, 16, 8, WireBuffer{8, data}};
    Encoded w = encode_record(&write, 8 + 28, kWriteRequestFields);
    EXPECT_EQ(w.bytes, Wire{}.item(2).item(5).item(kAll).item(16).item(8).item(12, {1, 2, 3, 4, 5, 6, 7, 8}).bytes);
    EXPECT_EQ(w.size, 28u);
    Encoded cut = encode_record(&write, 8, kWriteRequestFields);
    EXPECT_EQ(cut.bytes, Wire{}.item(2).item(5).bytes);
    EXPECT_EQ(cut.size, 8u);
    for (unsigned code : {3u, 14u}) EXPECT_EQ(kOperations[code].request, nullptr) << code;
}

TEST(RemoteFsPadding, ScalarsStringsAndBuffers) {
    struct __attribute__((packed)) OneByte {
        std::uint8_t value;
    } one{0x5A};
    const FieldDescriptor byte_table[] = {{kFieldByte, 1, nullptr, 0}, {kFieldEnd, 0, nullptr, 0}};
    EXPECT_EQ(encoded(&one, 1, byte_table), Wire{}.item(4, {0x5A}).bytes);
    OneByte one_back{0};
    const Decoded one_decoded = decode_all(&one_back, Wire{}.item(4, {0x77, 0x11, 0x22, 0x33}).bytes, 1, byte_table);
    EXPECT_EQ(one_decoded.result, 1);
    EXPECT_EQ(one_back.value, 0x77);
    EXPECT_EQ(one_decoded.size, 8u);

    const FieldDescriptor string_table[] = {{kFieldString, 4, nullptr, 0}, {kFieldEnd, 0, nullptr, 0}};
    struct __attribute__((packed)) Text {
        const char* text;
    };
    const Text empty{""}, three{"abc"}, four{"abcd"}, seven{"abcdefg"}, none{nullptr};
    EXPECT_EQ(encoded(&empty, 4, string_table), Wire{}.text(4, "").bytes);
    EXPECT_EQ(encoded(&three, 4, string_table), Wire{}.text(4, "abc").bytes);
    EXPECT_EQ(encoded(&four, 4, string_table), Wire{}.text(8, "abcd").bytes);
    EXPECT_EQ(encoded(&seven, 4, string_table), Wire{}.text(12, "abcdefg").bytes) << "8 bytes: a whole word more";
    EXPECT_EQ(encoded(&none, 4, string_table), Wire{}.item(0).bytes) << "null: L = 4, zero data";

    // The padding follows the item's address, not its offset in the message.
    Encoded shifted = encode_record(&four, 4, string_table, 2);
    EXPECT_EQ(shifted.bytes, Wire{}.text(6, "abcd").bytes);

    // A null string arrives as 4 bytes; only L = 0 decodes as null.
    Text back{"x"};
    EXPECT_EQ(decode_all(&back, Wire{}.word(0).bytes, 4, string_table).result, 4);
    EXPECT_TRUE(back.text == nullptr);

    const FieldDescriptor buffer_table[] = {{kFieldBuffer, 8, nullptr, 0}, {kFieldEnd, 0, nullptr, 0}};
    const std::uint8_t eight[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const WireBuffer buffer{8, eight};
    Bytes wire = encoded(&buffer, 8, buffer_table);
    EXPECT_EQ(wire, Wire{}.item(12, {1, 2, 3, 4, 5, 6, 7, 8}).bytes);
    WireBuffer buffer_back{};
    EXPECT_EQ(decode_all(&buffer_back, wire, 8, buffer_table).result, 8);
    EXPECT_EQ(buffer_back.length, 12);
    const WireBuffer negative{-5, eight};
    EXPECT_EQ(encoded(&negative, 8, buffer_table), Wire{}.item(0).bytes);
    const WireBuffer no_data{4, nullptr};
    EXPECT_EQ(encode_record(&no_data, 8, buffer_table).result, -1);
}

// The flag byte's item carries the sender's next three record bytes; the
// status item, taken three bytes early, gives the status as its fourth byte.
TEST(RemoteFsReplies, ReadStatusIsTheFourthByteOfItsItem) {
    const Bytes wire =
        Wire{}.item(3).item(8, {'a', 'b', 'c'}).item(4, {1, 0xAA, 0xBB, 0xCC}).item(4, {0x11, 0x22, 0x33, 0x07}).bytes;
    ReadReply reply{};
    const Decoded d = decode_all(&reply, wire, 20, kReadReplyFields);
    ASSERT_EQ(d.result, 17);
    EXPECT_EQ(d.size, wire.size());
    EXPECT_EQ(reply.count, 3u);
    EXPECT_EQ(reply.data.length, 8);
    EXPECT_EQ(std::memcmp(reply.data.data, "abc", 3), 0);
    EXPECT_EQ(reply.eof, 1);
    EXPECT_EQ(reply.status, 7) << "the three bytes before the status byte do not count";
    EXPECT_EQ(errno_of(212), ENOENT) << "so -44 arrives as 212, and the table reads it so";

    // The sending side: eof's item carries the pad bytes, the status item
    // the pad bytes then the status's low byte.
    ReadReply send{};
    const std::uint8_t abc[3] = {'a', 'b', 'c'};
    send.count = 3;
    send.data = WireBuffer{3, abc};
    send.eof = 1;
    send.status = 0x1205;
    EXPECT_EQ(encoded(&send, 20, kReadReplyFields),
              Wire{}.item(3).item(4, {'a', 'b', 'c'}).item(4, {1}).item(4, {0, 0, 0, 5}).bytes);
}

// What a listing's decoding gives: test_remotefs_operations; here its size
// words and items as the local server sends them back.
TEST(RemoteFsReplies, ReaddirListOfThreeNodesCarriesItsSizeWords) {
    const Bytes list = Wire{}
                           .word(36).item(1).text(4, "a")
                           .word(24).item(2).text(4, "bb")
                           .word(12).item(3).text(4, "ccc")
                           .word(0)
                           .item(99)
                           .bytes;
    const Bytes payload = list + Wire{}.item(4, {1, 0x44, 0x55, 0x66}).item(4, {0x77, 0x88, 0x99, 0}).bytes;
    ReaddirReply reply{}; // its names point into the payload
    const Decoded d = decode_all(&reply, payload, 16, kReaddirReplyFields);
    EXPECT_EQ(d.result, 40 + 4 + 1 + 4) << "the list's 36 bytes and its own word, then cookie, flag, status";

    // The same list encodes to the same bytes, given a size that covers it.
    ReaddirReply send{};
    send.entries = reply.entries;
    send.cookie = 99;
    send.eof = 1;
    std::memcpy(send.pad, "\x44\x55\x66", 3);
    EXPECT_EQ(encoded(&send, kAll, kReaddirReplyFields),
              list + Wire{}.item(4, {1, 0x44, 0x55, 0x66}).item(4, {0x44, 0x55, 0x66, 0}).bytes);
    free_nodes(reply.entries);

    // An empty directory: a 0 word and no node.
    ReaddirReply none{};
    EXPECT_EQ(decode_all(&none, Wire{}.word(0).item(5).item(4, {1}).item(0).bytes, 16, kReaddirReplyFields).result, 13);
    EXPECT_TRUE(none.entries == nullptr);
}

// What stays inside the payload but breaks its rules (cuts and lengths past
// the end: the reply fuzzer).
TEST(RemoteFsDamagedInput, LongScalarsAndStringsWithoutTheirNul) {
    StatusReply status{};
    EXPECT_EQ(decode_all(&status, Wire{}.item(8, {1, 0, 0, 0, 0, 0, 0, 0}).bytes, 4, kStatusReplyFields).result, -1);
    PathRequest path{};
    EXPECT_EQ(decode_all(&path, Wire{}.item(1).item(4, {'a', 'b', 'c', 'd'}).bytes, 8, kPathRequestFields).result, -1);
}

TEST(RemoteFsCodec, EncodingFailsRatherThanOverflow) {
    const LookupRequest lookup{2, FileHandle{5, -1}, "/a/rather/long/path/name"};
    const std::uint32_t whole = static_cast<std::uint32_t>(encoded(&lookup, 16, kLookupRequestFields).size());
    for (std::uint32_t capacity = 0; capacity < whole; ++capacity) {
        auto* out = static_cast<std::uint8_t*>(std::aligned_alloc(4, 64));
        std::uint32_t size = 16;
        EXPECT_EQ(encode(out, capacity, &lookup, size, kLookupRequestFields), -1) << capacity;
        std::free(out);
    }
    alignas(4) std::uint8_t out[64];
    std::uint32_t size = 16;
    EXPECT_EQ(encode(out, whole, &lookup, size, kLookupRequestFields), static_cast<std::int32_t>(whole));
}

} // namespace
