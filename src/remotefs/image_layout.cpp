#include "remotefs/image_layout.h"

#include "remotefs/message_codec.h"

#include <cstring>

namespace vukra::remotefs {

namespace {
constexpr const char* kSignature12 = "ufs 1.2";
constexpr const char* kSignature15 = "ufs 1.5";
constexpr std::uint32_t kBlockSize12 = 32;
} // namespace

std::size_t header_field_bytes(const std::uint8_t* signature) {
    if (std::memcmp(signature, kSignature12, kSignatureSize) == 0) return kHeaderFields;
    if (std::memcmp(signature, kSignature15, kSignatureSize) == 0) return kHeaderFields + 2;
    return 0;
}

bool decode_layout(const std::uint8_t* header, ImageLayout& layout) {
    const std::size_t field_bytes = header_field_bytes(header);
    if (field_bytes == 0) return false;
    const std::uint8_t* fields = header + kSignatureSize;
    layout.block_size = kBlockSize12;
    if (field_bytes > kHeaderFields) {
        layout.block_size = static_cast<std::uint32_t>(fields[0]) | static_cast<std::uint32_t>(fields[1]) << 8;
        if (layout.block_size > kMaxBlockSize) return false;
        fields += 2;
    }
    layout.map_size = load_le32(fields + 0);
    layout.group_count = load_le32(fields + 4);
    layout.metadata_size = load_le32(fields + 12);
    layout.map_start = static_cast<std::uint32_t>(kSignatureSize + field_bytes);
    return true;
}

bool fits_card(const ImageLayout& layout, std::uint64_t card_size) {
    if (layout.data_start() > card_size) return false;
    return layout.group_count == 0 ||
           layout.data_start() + (std::uint64_t{layout.group_count} - 1) * layout.chunk() < card_size;
}

} // namespace vukra::remotefs
