// ufs volumes: the versions, making a filesystem, reading the header and
// the allocation area at mount, and writing the area back when it changed.
#include "kernel/kernel_errors.h"
#include "kernel/kernel_start.h"
#include "kernel/ufs_volume.h"

#include <cstring>
#include <ctime>

namespace vukra::kernel::ufs {

namespace {

// The versions the kernel mounts and makes; "ufs 1.5" is the one mkfs writes.
struct Version {
    const char* text;
    std::uint32_t size_field_bytes; // of the five size fields
};
constexpr Version kVersions[] = {{"ufs 1.4", 2}, {"ufs 1.5", 4}};

const Version* find_version(const char* text) {
    for (const Version& v : kVersions)
        if (std::memcmp(v.text, text, kVersionLength) == 0) return &v;
    return nullptr;
}

void put_le(std::uint8_t*& p, std::uint32_t value, std::uint32_t bytes) {
    for (std::uint32_t i = 0; i < bytes; ++i) *p++ = static_cast<std::uint8_t>(value >> (8 * i));
}

std::uint32_t get_le(const std::uint8_t*& p, std::uint32_t bytes) {
    std::uint32_t value = 0;
    for (std::uint32_t i = 0; i < bytes; ++i) value |= static_cast<std::uint32_t>(*p++) << (8 * i);
    return value;
}

bool valid_block_size(std::uint32_t b) {
    return b == 16 || b == 32 || b == 64 || b == 128 || b == 256 || b == 512 || b == 1024;
}

// Reads and checks the header; the header readers of both versions also
// read the older "ufs 1.2" layout (no block-size field, blocks of 32), but
// the version lookup in front of them knows only 1.4 and 1.5.
// for_mount: refuse the block sizes the kernel cannot mount (513 and more);
// mkfs reads back its own header without that refusal.
bool read_header(Volume& v, const Version& version, bool for_mount = true) {
    std::uint8_t header[7 + 2 + 5 * 4];
    const std::uint32_t w = version.size_field_bytes;
    if (!device_read(v, 0, header, kVersionLength + 2 + 5 * w)) return false;
    const std::uint8_t* p = header + kVersionLength;
    const bool old = std::memcmp(header, "ufs 1.2", kVersionLength) == 0;
    v.block_size = old ? 32 : get_le(p, 2);
    v.allocation_size = get_le(p, w);
    v.block_bitmap_size = get_le(p, w);
    v.node_bitmap_size = get_le(p, w);
    v.node_table_size = get_le(p, w);
    v.data_size = get_le(p, w);
    v.header_size = static_cast<std::uint32_t>(p - header);
    // A block size of 513 or more is refused (so a volume made with 1024
    // does not mount), as are sizes that do not fit together.
    if (!valid_block_size(v.block_size) || (for_mount && v.block_size > 512)) return false;
    if (v.allocation_size != v.block_bitmap_size + v.node_bitmap_size) return false;
    if (v.allocation_size > kMaxAllocationArea || v.allocation_size < v.block_bitmap_size) return false;
    v.nodes = v.node_table_size / kNodeRecordSize;
    const std::uint32_t blocks = v.data_size / v.block_size;
    if (v.nodes == 0 || v.node_bitmap_size * 8 < v.nodes || v.block_bitmap_size * 8 < blocks) return false;
    v.blocks = blocks < kNoBlock ? blocks : kNoBlock;
    v.allocation_start = v.header_size;
    v.node_table_start = v.allocation_start + v.allocation_size;
    v.data_start = v.node_table_start + v.node_table_size;
    const std::uint64_t b = v.block_size;
    v.file_limit = b + (b * b >> 1) + (b * b * b >> 2);
    // mkfs leaves 5 blocks of slack for the header and the bitmaps, which
    // can need more: blocks past the device's end are never used.
    if (v.device_size != 0) {
        if (v.data_start > v.device_size) return false;
        const std::uint64_t on_device = (v.device_size - v.data_start) / v.block_size;
        if (on_device < v.blocks) v.blocks = static_cast<std::uint32_t>(on_device);
    }
    v.allocation.assign(v.allocation_size, 0);
    return device_read(v, v.allocation_start, v.allocation.data(), v.allocation.size());
}

std::uint64_t device_size_of(Descriptor device) {
    std::int32_t size = 0;
    std::int32_t* where = &size;
    return ioctl(device, 1, &where) == 0 && size > 0 ? static_cast<std::uint64_t>(size) : 0;
}

} // namespace

Volume& volume_of(Mount& m) { return *static_cast<Volume*>(m.data); }

// Transfers stay on the device: a damaged volume cannot reach past its end.
bool on_device(const Volume& v, std::uint64_t offset, std::size_t count) {
    return v.device_size == 0 || offset + count <= v.device_size;
}

bool device_read(Volume& v, std::uint64_t offset, void* buffer, std::size_t count) {
    if (!on_device(v, offset, count) || offset > 0x7FFFFFFF || lseek(v.device, static_cast<long>(offset), 0) != static_cast<long>(offset)) return false;
    auto* p = static_cast<std::uint8_t*>(buffer);
    while (count > 0) {
        long n = read(v.device, p, count);
        if (n <= 0) return false;
        p += n;
        count -= static_cast<std::size_t>(n);
    }
    return true;
}

bool device_write(Volume& v, std::uint64_t offset, const void* buffer, std::size_t count) {
    if (!on_device(v, offset, count) || offset > 0x7FFFFFFF || lseek(v.device, static_cast<long>(offset), 0) != static_cast<long>(offset)) return false;
    const auto* p = static_cast<const std::uint8_t*>(buffer);
    while (count > 0) {
        long n = write(v.device, p, count);
        if (n <= 0) return false;
        p += n;
        count -= static_cast<std::size_t>(n);
    }
    return true;
}

bool block_used(const Volume& v, std::uint32_t block) { return v.allocation[block / 8] >> (block % 8) & 1; }

void set_block(Volume& v, std::uint32_t block, bool used) {
    if (!used && block < v.free_hint) v.free_hint = block;
    std::uint8_t bit = static_cast<std::uint8_t>(1u << (block % 8));
    v.allocation[block / 8] = static_cast<std::uint8_t>(used ? v.allocation[block / 8] | bit : v.allocation[block / 8] & ~bit);
}

bool node_used(const Volume& v, std::uint32_t node) {
    return v.allocation[v.block_bitmap_size + node / 8] >> (node % 8) & 1;
}

void set_node(Volume& v, std::uint32_t node, bool used) {
    std::uint8_t& byte = v.allocation[v.block_bitmap_size + node / 8];
    std::uint8_t bit = static_cast<std::uint8_t>(1u << (node % 8));
    byte = static_cast<std::uint8_t>(used ? byte | bit : byte & ~bit);
}

long allocate_block(Volume& v) {
    for (std::uint32_t byte = v.free_hint / 8; byte * 8 < v.blocks; ++byte) {
        if (v.allocation[byte] == 0xFF) continue;
        for (std::uint32_t b = byte * 8; b < byte * 8 + 8 && b < v.blocks; ++b) {
            if (!block_used(v, b)) {
                set_block(v, b, true);
                v.free_hint = b + 1;
                return b;
            }
        }
    }
    return -1;
}

long allocate_node(Volume& v) {
    for (std::uint32_t n = 0; n < v.nodes; ++n) {
        if (!node_used(v, n)) {
            set_node(v, n, true);
            return n;
        }
    }
    return -1;
}

std::uint32_t seconds_now() {
    std::uint32_t kernel = kernel_seconds();
    return kernel != 0 ? kernel : static_cast<std::uint32_t>(std::time(nullptr));
}

int makefs(Descriptor device, const void* argument) {
    if (argument == nullptr) return -1;
    UfsLayout layout{};
    if (!ufs_layout(*static_cast<const UfsMakeArgument*>(argument), layout)) return -1;
    const Version* version = find_version("ufs 1.5");
    if (version == nullptr) return -1;
    const std::uint32_t b = layout.block_size, blocks = layout.blocks, block_bitmap = layout.block_bitmap,
                        node_bitmap = layout.node_bitmap, node_table = layout.node_table;
    const std::uint32_t allocation = block_bitmap + node_bitmap;

    Volume v;
    v.device = device;
    v.device_size = device_size_of(device);
    std::uint8_t header[kHeaderSize15];
    std::uint8_t* p = header;
    std::memcpy(p, version->text, kVersionLength);
    p += kVersionLength;
    put_le(p, b, 2);
    for (std::uint32_t field : {allocation, block_bitmap, node_bitmap, node_table, blocks * b})
        put_le(p, field, version->size_field_bytes);
    if (!device_write(v, 0, header, static_cast<std::size_t>(p - header))) return -1;
    std::vector<std::uint8_t> zeros(allocation, 0);
    if (!device_write(v, static_cast<std::size_t>(p - header), zeros.data(), zeros.size())) return -1;

    if (!read_header(v, *version, false)) return -1;
    set_node(v, 0, true);
    NodeRecord root;
    root.kind = kNodeDirectory;
    root.time = seconds_now();
    std::uint8_t record[kNodeRecordSize] = {kNodeDirectory};
    p = record + 8;
    put_le(p, root.time, 4);
    std::memset(record + 12, 0xFF, 6);
    if (!device_write(v, v.node_table_start, record, sizeof record)) return -1;
    Mount scratch;
    scratch.data = &v;
    int written = writefs(scratch);
    scratch.data = nullptr;
    return written;
}

int readfs(Mount& m) {
    auto* v = static_cast<Volume*>(m.data);
    if (v == nullptr) v = new Volume;
    v->device = m.device;
    v->device_size = device_size_of(m.device);
    char text[kVersionLength];
    const Version* version = device_read(*v, 0, text, sizeof text) ? find_version(text) : nullptr;
    if (version == nullptr || !read_header(*v, *version)) {
        delete v;
        m.data = nullptr;
        return -1;
    }
    forget_indirect(*v);
    v->free_hint = 0;
    v->names = {};
    m.data = v;
    m.count = v->nodes;
    return 0;
}

int writefs(Mount& m) {
    Volume& v = volume_of(m);
    if (!flush_indirect(v)) return -1;
    std::vector<std::uint8_t> on_disk(v.allocation.size());
    if (device_read(v, v.allocation_start, on_disk.data(), on_disk.size()) && on_disk == v.allocation) return 0;
    return device_write(v, v.allocation_start, v.allocation.data(), v.allocation.size()) ? 0 : -1;
}

void drop(Mount& m) {
    delete static_cast<Volume*>(m.data);
    m.data = nullptr;
}

int fsstatus(Mount& m, FsStatus& s) {
    Volume& v = volume_of(m);
    std::uint32_t free_blocks = 0, free_nodes = 0;
    for (std::uint32_t b = 0; b < v.blocks; ++b) free_blocks += !block_used(v, b);
    for (std::uint32_t n = 0; n < v.nodes; ++n) free_nodes += !node_used(v, n);
    s = FsStatus{v.block_size, v.blocks, free_blocks, v.nodes, free_nodes};
    return 0;
}

} // namespace vukra::kernel::ufs

namespace vukra::kernel {

bool ufs_layout(const UfsMakeArgument& a, UfsLayout& layout) {
    std::uint32_t b = a.block_size;
    if (!ufs::valid_block_size(b)) b = 32; // a silent repair
    const std::uint32_t node_table = a.nodes * ufs::kNodeRecordSize;
    const std::uint32_t node_bitmap = a.nodes / 8 + 1;
    // The largest block count that fits, 5 blocks short of the device.
    const std::int64_t room = static_cast<std::int64_t>(a.device_size) - node_table - node_bitmap;
    const std::int64_t fit = room / b - 5;
    if (fit < 1 || a.nodes == 0) return false;
    const std::uint32_t blocks = a.blocks > fit ? static_cast<std::uint32_t>(fit) : a.blocks;
    const std::uint32_t block_bitmap = blocks / 8 + 1;
    // The header, the allocation area and the root's node record.
    const std::uint32_t written =
        static_cast<std::uint32_t>(ufs::kHeaderSize15) + block_bitmap + node_bitmap + ufs::kNodeRecordSize;
    layout = UfsLayout{b, blocks, block_bitmap, node_bitmap, node_table, written};
    return true;
}

} // namespace vukra::kernel
