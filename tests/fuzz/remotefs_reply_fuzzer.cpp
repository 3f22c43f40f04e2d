// Decodes arbitrary payloads with every reply table: no payload may make
// the decoder read or write outside its buffers, loop, or leak the list
// nodes it makes. The first byte picks the table; the rest is the payload,
// copied to a word-aligned buffer as the transport's reply buffer is.
#include "remotefs/message_codec.h"
#include "remotefs/messages.h"

#include <cstdint>
#include <cstring>
#include <vector>

using namespace vukra::remotefs;

namespace {

// Large enough for any reply record, with the pointer widths of this build.
struct alignas(8) AnyReply {
    std::uint8_t bytes[128];
};

// Every reference in a decoded record points into the payload.
void check_inside(const void* p, const std::uint8_t* begin, std::size_t length) {
    if (p == nullptr) return;
    const auto* at = static_cast<const std::uint8_t*>(p);
    if (at < begin || at > begin + length) __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1 || size > 8192) return 0;
    const OperationTables& op = kOperations[data[0] % kOperationCodes];
    if (op.reply == nullptr) return 0;
    const std::size_t length = size - 1;
    std::vector<std::uint32_t> words((length + 3) / 4 + 1);
    auto* payload = reinterpret_cast<std::uint8_t*>(words.data());
    std::memcpy(payload, data + 1, length);

    AnyReply reply{};
    std::uint32_t capacity = op.reply_capacity;
    const std::int32_t filled = decode(&reply, payload, static_cast<std::uint32_t>(length), capacity, op.reply);
    if (filled >= 0 && capacity > length) __builtin_trap();

    if (op.reply == kReadReplyFields) {
        ReadReply r;
        std::memcpy(&r, reply.bytes, sizeof r);
        check_inside(r.data.data, payload, length);
        if (r.data.data != nullptr && r.data.data + r.data.length > payload + length) __builtin_trap();
    }
    if (op.reply == kReaddirReplyFields) {
        ReaddirReply r;
        std::memcpy(&r, reply.bytes, sizeof r);
        for (const DirEntryNode* n = r.entries; n != nullptr; n = n->next) {
            check_inside(n->name, payload, length);
            if (n->name != nullptr) (void)std::strlen(n->name); // NUL inside the payload
        }
        free_nodes(r.entries);
    }
    return 0;
}
