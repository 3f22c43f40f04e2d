// The table-driven encoder and decoder of remote-filesystem items.
#include "remotefs/message_codec.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace vukra::remotefs {

namespace {

// Nesting deeper than this (a list of that many nodes) is refused; a
// 1968-byte payload holds far fewer.
constexpr int kMaxDepth = 1024;
constexpr std::uint32_t kWord = 4;

template <typename T>
T load_field(const std::uint8_t* p) {
    T value;
    std::memcpy(&value, p, sizeof value);
    return value;
}

template <typename T>
void store_field(std::uint8_t* p, T value) {
    std::memcpy(p, &value, sizeof value);
}

// The padded length of an item of n bytes whose data starts at data: 4 for
// up to 4 bytes, else the next word boundary of the address past n, a whole
// word further when n already ends on one.
std::uint64_t item_length(const std::uint8_t* data, std::uint64_t n) {
    if (n <= kWord) return kWord;
    const auto end = reinterpret_cast<std::uintptr_t>(data) + n;
    return n + (kWord - end % kWord);
}

// ---- encoding ----------------------------------------------------------

struct Encoder {
    std::uint8_t* out_end;
    int depth;
};

struct Cursor {
    std::uint8_t* out;
    std::uint32_t wire;   // W: bytes written
    std::uint32_t record; // R: record bytes consumed, 32-bit terms
};

// Writes one item: the length word, n bytes from source, then L - n bytes:
// from tail (the record bytes that follow the field, up to tail_end) or
// zeros.
bool put_item(Encoder& e, Cursor& c, const std::uint8_t* source, std::uint64_t n, const std::uint8_t* tail,
              const std::uint8_t* tail_end) {
    if (e.out_end - c.out < static_cast<std::ptrdiff_t>(kWord)) return false;
    std::uint8_t* data = c.out + kWord;
    const std::uint64_t length = item_length(data, n);
    if (static_cast<std::uint64_t>(e.out_end - data) < length) return false;
    store_le32(c.out, static_cast<std::uint32_t>(length));
    if (n > 0) std::memcpy(data, source, n);
    std::uint64_t filled = n;
    if (tail != nullptr && tail < tail_end) {
        const std::uint64_t more = std::min<std::uint64_t>(length - n, static_cast<std::uint64_t>(tail_end - tail));
        std::memcpy(data + n, tail, more);
        filled += more;
    }
    std::memset(data + filled, 0, length - filled);
    c.out = data + length;
    c.wire += static_cast<std::uint32_t>(kWord + length);
    return true;
}

// Encodes the fields of table from rec (advanced past them); record_end is
// the end of the host record that rec lies in.
std::int32_t encode_fields(Encoder& e, std::uint8_t* out, const std::uint8_t*& rec, const std::uint8_t* record_end,
                           std::uint32_t& size, const FieldDescriptor* table) {
    Cursor c{out, 0, 0};
    const std::uint32_t limit = size;
    for (const FieldDescriptor* f = table; f->kind != kFieldEnd && c.record < limit; ++f) {
        switch (f->kind) {
        case kFieldString: {
            const char* text = load_field<const char*>(rec);
            const std::uint64_t n = text != nullptr ? std::strlen(text) + 1 : 0;
            if (!put_item(e, c, reinterpret_cast<const std::uint8_t*>(text), n, nullptr, nullptr)) return -1;
            rec += sizeof(const char*);
            c.record += kWord;
            break;
        }
        case kFieldBuffer: {
            const WireBuffer buffer = load_field<WireBuffer>(rec);
            if (buffer.data == nullptr) return -1;
            const std::uint64_t n = buffer.length > 0 ? static_cast<std::uint64_t>(buffer.length) : 0;
            if (!put_item(e, c, buffer.data, n, nullptr, nullptr)) return -1;
            rec += sizeof(WireBuffer);
            c.record += 2 * kWord;
            break;
        }
        case kFieldNone:
            break;
        case kFieldNested:
            if (f->indirect == 0) {
                std::uint32_t nested_size = limit - c.record;
                const std::int32_t r = encode_fields(e, c.out, rec, record_end, nested_size, f->nested);
                if (r < 0) return -1;
                c.out += r;
                c.wire += static_cast<std::uint32_t>(r);
                c.record += nested_size;
            } else {
                if (e.out_end - c.out < static_cast<std::ptrdiff_t>(kWord) || e.depth >= kMaxDepth) return -1;
                const auto* node = load_field<const std::uint8_t*>(rec);
                std::uint32_t nested_size = 0;
                std::int32_t r = 0;
                if (node != nullptr) {
                    nested_size = limit - c.record;
                    ++e.depth;
                    r = encode_fields(e, c.out + kWord, node, node + host_size(f->nested), nested_size, f->nested);
                    --e.depth;
                    if (r < 0) return -1;
                }
                store_le32(c.out, nested_size);
                c.out += kWord + static_cast<std::uint32_t>(r);
                c.wire += kWord + static_cast<std::uint32_t>(r);
                rec += sizeof(void*);
                c.record += nested_size + kWord;
            }
            break;
        default: {
            if (f->kind > kFieldLastKind) return -1;
            // A scalar: its bytes, then the record's following bytes up to
            // the item's length.
            const std::uint8_t* tail = rec + f->size;
            const std::uint64_t own = std::min<std::uint64_t>(
                f->size, rec < record_end ? static_cast<std::uint64_t>(record_end - rec) : 0);
            if (!put_item(e, c, rec, own, tail, record_end)) return -1;
            rec += f->size;
            c.record += f->size;
            break;
        }
        }
    }
    size = c.record;
    return static_cast<std::int32_t>(c.wire);
}

// ---- decoding ----------------------------------------------------------

struct Decoder {
    const std::uint8_t* in_end;
    int depth;
};

// Takes the length word of the item at in and checks that its data lies
// inside the input.
bool take_item(const Decoder& d, const std::uint8_t* in, std::uint32_t& length) {
    if (d.in_end - in < static_cast<std::ptrdiff_t>(kWord)) return false;
    length = load_le32(in);
    return static_cast<std::uint64_t>(d.in_end - (in + kWord)) >= length;
}

std::int32_t decode_fields(Decoder& d, std::uint8_t*& rec, const std::uint8_t* in, std::uint32_t& size,
                           const FieldDescriptor* table) {
    std::uint64_t capacity = size;
    std::uint64_t filled = 0;  // F
    std::uint64_t consumed = 0; // U
    for (const FieldDescriptor* f = table; f->kind != kFieldEnd && filled < capacity; ++f) {
        const std::uint8_t* item = in + consumed;
        std::uint32_t length = 0;
        switch (f->kind) {
        case kFieldString: {
            store_field<const char*>(rec, nullptr);
            if (!take_item(d, item, length)) return -1;
            if (length != 0) {
                // A string item holds its NUL; one without is refused, so
                // that no reader of the record runs past the item.
                if (std::memchr(item + kWord, 0, length) == nullptr) return -1;
                store_field(rec, reinterpret_cast<const char*>(item + kWord));
            }
            rec += sizeof(const char*);
            filled += kWord;
            consumed += kWord + length;
            break;
        }
        case kFieldBuffer:
            if (!take_item(d, item, length) || length > 0x7FFFFFFFu) return -1;
            store_field(rec, WireBuffer{static_cast<std::int32_t>(length), item + kWord});
            rec += sizeof(WireBuffer);
            filled += 2 * kWord;
            consumed += kWord + length;
            break;
        case kFieldNone:
            break;
        case kFieldNested:
            if (f->indirect == 0) {
                std::uint32_t nested = static_cast<std::uint32_t>(std::min<std::uint64_t>(capacity - filled, 0xFFFFFFFFu));
                const std::int32_t r = decode_fields(d, rec, item, nested, f->nested);
                if (r < 0) return -1;
                filled += static_cast<std::uint32_t>(r);
                consumed += nested;
            } else {
                if (d.in_end - item < static_cast<std::ptrdiff_t>(kWord) || d.depth >= kMaxDepth) return -1;
                const std::uint32_t words = load_le32(item);
                auto* node = load_field<std::uint8_t*>(rec);
                if (node == nullptr && words != 0) {
                    node = static_cast<std::uint8_t*>(std::calloc(1, host_size(f->nested)));
                    if (node == nullptr) return -1;
                    store_field(rec, node);
                }
                capacity += words;
                std::uint32_t nested = static_cast<std::uint32_t>(std::min<std::uint64_t>(capacity - filled, 0xFFFFFFFFu));
                std::int32_t r = 0;
                if (node != nullptr) {
                    ++d.depth;
                    std::uint8_t* at = node;
                    r = decode_fields(d, at, item + kWord, nested, f->nested);
                    --d.depth;
                    if (r < 0) return -1;
                } else {
                    nested = 0;
                }
                rec += sizeof(void*);
                filled += static_cast<std::uint32_t>(r) + kWord;
                consumed += nested + kWord;
            }
            break;
        default: {
            if (f->kind > kFieldLastKind) return -1;
            if (!take_item(d, item, length) || length > kWord) return -1;
            // size bytes from the item's data; past the input's end, zeros.
            const std::uint8_t* data = item + kWord;
            const std::uint64_t available = static_cast<std::uint64_t>(d.in_end - data);
            const std::uint64_t copy = std::min<std::uint64_t>(f->size, available);
            std::memcpy(rec, data, copy);
            std::memset(rec + copy, 0, f->size - copy);
            rec += f->size;
            filled += f->size;
            consumed += kWord + length;
            break;
        }
        }
    }
    size = static_cast<std::uint32_t>(consumed);
    return static_cast<std::int32_t>(filled);
}

} // namespace

std::int32_t encode(std::uint8_t* output, std::uint32_t capacity, const void* record, std::uint32_t& size,
                    const FieldDescriptor* table) {
    if (output == nullptr || table == nullptr) return -1;
    if (record == nullptr) {
        size = 0;
        return 0;
    }
    Encoder e{output + capacity, 0};
    const auto* rec = static_cast<const std::uint8_t*>(record);
    return encode_fields(e, output, rec, rec + host_size(table), size, table);
}

std::int32_t decode(void* record, const std::uint8_t* input, std::uint32_t length, std::uint32_t& size,
                    const FieldDescriptor* table) {
    if (input == nullptr || table == nullptr) return -1;
    if (record == nullptr) {
        size = 0;
        return 0;
    }
    Decoder d{input + length, 0};
    auto* rec = static_cast<std::uint8_t*>(record);
    return decode_fields(d, rec, input, size, table);
}

} // namespace vukra::remotefs
