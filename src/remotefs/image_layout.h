// Where the parts of a card image lie, from its header: the header fields,
// the allocation map, the metadata area and the data groups (8 blocks
// each). Shared by the whole-card transfer and the put of what changed.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vukra::remotefs {

inline constexpr std::size_t kSignatureSize = 7;
inline constexpr std::size_t kHeaderFields = 20; // map size, group count, -, metadata size, -
inline constexpr std::size_t kLongestHeader = kSignatureSize + 2 + kHeaderFields;
inline constexpr std::uint32_t kMaxBlockSize = 512;
inline constexpr std::uint32_t kBlocksPerGroup = 8;

struct ImageLayout {
    std::uint32_t block_size = 0;
    std::uint32_t map_start = 0; // where the header fields end
    std::uint32_t map_size = 0;
    std::uint32_t group_count = 0;
    std::uint32_t metadata_size = 0;

    std::uint32_t metadata_start() const { return map_start + map_size; }
    std::uint64_t data_start() const { return std::uint64_t{map_start} + map_size + metadata_size; }
    std::uint64_t chunk() const { return std::uint64_t{block_size} * kBlocksPerGroup; }
    std::uint64_t group_offset(std::uint32_t i) const { return data_start() + i * chunk(); }
};

// The bytes of header fields behind a signature: 22 for "ufs 1.5", 20 for
// "ufs 1.2", 0 for a signature the transfer does not take.
std::size_t header_field_bytes(const std::uint8_t* signature);
// The layout of a header of kSignatureSize + header_field_bytes bytes;
// false when the signature is not taken or the block size is above 512.
bool decode_layout(const std::uint8_t* header, ImageLayout& layout);
// True when the map, the metadata and the start of every group lie within
// a card of card_size bytes (the last group may reach past its end).
bool fits_card(const ImageLayout& layout, std::uint64_t card_size);

} // namespace vukra::remotefs
