// The generic message codec of the remote filesystem: one encoder and one
// decoder, each driven by a table of field descriptors, turn a host record
// into a stream of length-prefixed items and back. The host encodes
// requests and decodes replies; the local server decodes requests and
// encodes replies, with the same tables.
//
// Records are traversed packed. The counts that go on the wire and that are
// compared with a record's size or capacity are those of a 32-bit build (a
// string 4 bytes, a buffer 8, a nested record through a pointer 4), whatever
// the host's pointer width; the host position advances by the field's real
// width (see host_width). On a 32-bit build both coincide. docs/remote-fs.md
// describes the item stream and the records.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vukra::remotefs {

enum FieldKind : std::uint8_t {
    kFieldEnd = 0,     // closes a table
    kFieldByte = 1,    // an 8-bit value
    kFieldScalar2 = 2, // kinds 2, 4, 5 and 7: a plain scalar of `size` bytes
    kFieldWord = 3,    // an unsigned 32-bit value
    kFieldScalar4 = 4,
    kFieldScalar5 = 5,
    kFieldSigned = 6,  // a signed 32-bit value
    kFieldScalar7 = 7,
    kFieldString = 8,  // a pointer to a NUL-terminated string
    kFieldBuffer = 9,  // a WireBuffer: length, then a pointer to the bytes
    kFieldNone = 10,   // no item, no record bytes
    kFieldNested = 11, // a nested record, inline or through a pointer
    kFieldLastKind = 11,
};

struct FieldDescriptor {
    std::uint8_t kind;
    std::uint16_t size;             // the field's size in a 32-bit build's record
    const FieldDescriptor* nested;  // kFieldNested: the nested record's table
    std::uint32_t indirect;         // kFieldNested: non-zero = through a pointer
};

// The little-endian 32-bit words of items, frame headers and image headers.
inline std::uint32_t load_le32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}
inline void store_le32(std::uint8_t* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

#pragma pack(push, 1)
// A buffer field (kind 9) as the host record holds it.
struct WireBuffer {
    std::int32_t length;
    const std::uint8_t* data;
};
#pragma pack(pop)

// The bytes a field takes in the host record (the codec's host step).
constexpr std::size_t host_width(const FieldDescriptor& field);

// The bytes a record of this table takes in the host record, packed.
constexpr std::size_t host_size(const FieldDescriptor* table) {
    std::size_t total = 0;
    for (; table->kind != kFieldEnd; ++table) total += host_width(*table);
    return total;
}

constexpr std::size_t host_width(const FieldDescriptor& field) {
    switch (field.kind) {
    case kFieldString: return sizeof(const char*);
    case kFieldBuffer: return sizeof(WireBuffer);
    case kFieldNone: return 0;
    case kFieldNested: return field.indirect != 0 ? sizeof(void*) : host_size(field.nested);
    default: return field.size;
    }
}

// The bytes a record of this table counts in a 32-bit build (its size on the
// wire's terms; nested records through a pointer count 4).
constexpr std::uint32_t wire_size(const FieldDescriptor* table) {
    std::uint32_t total = 0;
    for (; table->kind != kFieldEnd; ++table)
        total += table->kind == kFieldNested && table->indirect == 0 ? wire_size(table->nested) : table->size;
    return total;
}

// Encodes record into output (at most capacity bytes; output is word
// aligned). On entry size holds the record's size in 32-bit terms; on
// return the record bytes consumed. Returns the wire bytes written, or -1:
// null output, a kind above 11, a buffer field without data, an item that
// would not fit in capacity, or a failing nested record. A null record
// sets size to 0 and returns 0.
//
// Padding bytes past the end of a string or a buffer are written as zeros;
// the bytes that follow a scalar of fewer than 4 bytes are the record's own
// next bytes, or zeros past the end of the record that the table describes.
std::int32_t encode(std::uint8_t* output, std::uint32_t capacity, const void* record, std::uint32_t& size,
                    const FieldDescriptor* table);

// Decodes input (length bytes) into record. On entry size holds the
// record's capacity in 32-bit terms; on return the wire bytes consumed.
// Returns the record bytes filled (32-bit terms), or -1: null input, a
// kind above 11, a scalar item longer than 4 bytes, an item or a length
// word that runs past length, a list nested too deep, or a failing nested
// record. A null record sets size to 0 and returns 0.
//
// Strings and buffers are not copied: the record points into input. A
// nested record through a pointer is allocated (zeroed, with std::calloc)
// when the record's pointer is null and its size word is not 0; such nodes
// belong to the caller, also after a failure (free them with std::free).
std::int32_t decode(void* record, const std::uint8_t* input, std::uint32_t length, std::uint32_t& size,
                    const FieldDescriptor* table);

} // namespace vukra::remotefs
