// ufs nodes and their bytes: node records, the map from a file's block
// index to a device block (one direct block, a single-indirect block of
// block numbers, a double-indirect block of such blocks), and reading,
// writing and truncating files through it.
#include "kernel/kernel_errors.h"
#include "kernel/ufs_files.h"

#include <algorithm>
#include <cstring>

namespace vukra::kernel::ufs {

namespace {

std::uint16_t u16_at(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }
std::uint32_t u32_at(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0] | p[1] << 8 | p[2] << 16) | static_cast<std::uint32_t>(p[3]) << 24;
}
void put_u16(std::uint8_t* p, std::uint16_t v) {
    p[0] = static_cast<std::uint8_t>(v);
    p[1] = static_cast<std::uint8_t>(v >> 8);
}
void put_u32(std::uint8_t* p, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<std::uint8_t>(v >> (8 * i));
}

std::uint64_t block_offset(const Volume& v, std::uint16_t block) {
    return v.data_start + static_cast<std::uint64_t>(block) * v.block_size;
}

// A cache slot for block, its bytes read (or, with fill, set to fill's
// value rather than read); null when the block is out of the volume or the
// device fails. An evicted changed block is written back first.
Volume::CachedBlock* cache_slot(Volume& v, std::uint16_t block, int fill = -1) {
    if (block >= v.blocks) return nullptr;
    for (auto& cached : v.indirect) {
        if (cached.number == block) {
            if (fill >= 0) {
                std::fill(cached.bytes.begin(), cached.bytes.end(), static_cast<std::uint8_t>(fill));
                cached.dirty = true;
            }
            return &cached;
        }
    }
    auto& slot = v.indirect[v.next_victim++ % v.indirect.size()];
    if (slot.dirty && !device_write(v, block_offset(v, slot.number), slot.bytes.data(), slot.bytes.size()))
        return nullptr;
    slot.bytes.resize(v.block_size);
    slot.number = kNoBlock;
    slot.dirty = false;
    if (fill >= 0) {
        std::fill(slot.bytes.begin(), slot.bytes.end(), static_cast<std::uint8_t>(fill));
        slot.dirty = true;
    } else if (!device_read(v, block_offset(v, block), slot.bytes.data(), slot.bytes.size())) {
        return nullptr;
    }
    slot.number = block;
    return &slot;
}

// Entry i of a block of block numbers; kNoBlock when absent or unreadable.
std::uint16_t get_entry(Volume& v, std::uint16_t list, std::uint32_t i) {
    Volume::CachedBlock* c = cache_slot(v, list);
    if (c == nullptr || (i + 1) * 2 > c->bytes.size()) return kNoBlock;
    return u16_at(c->bytes.data() + i * 2);
}

bool set_entry(Volume& v, std::uint16_t list, std::uint32_t i, std::uint16_t value) {
    Volume::CachedBlock* c = cache_slot(v, list);
    if (c == nullptr || (i + 1) * 2 > c->bytes.size()) return false;
    put_u16(c->bytes.data() + i * 2, value);
    c->dirty = true;
    return true;
}

// A new block, or with as_list a new block of block numbers all "none".
// A new data block keeps what a freed block held: its writer zeroes what it
// does not cover (write_bytes).
long new_block(Volume& v, bool as_list) {
    long block = allocate_block(v);
    if (block < 0 || !as_list) return block;
    return cache_slot(v, static_cast<std::uint16_t>(block), 0xFF) ? block : -1;
}

// A block number held in a node record's field: the block, made when
// create is set (fresh tells that it was).
std::uint16_t field_block(Volume& v, std::uint16_t& field, bool create, bool as_list, bool& changed,
                          bool* fresh = nullptr) {
    if (field < v.blocks) return field;
    if (!create) return kNoBlock;
    long made = new_block(v, as_list);
    if (made < 0) return kNoBlock;
    field = static_cast<std::uint16_t>(made);
    changed = true;
    if (fresh) *fresh = true;
    return field;
}

// The same for entry i of a list.
std::uint16_t entry_block(Volume& v, std::uint16_t list, std::uint32_t i, bool create, bool as_list,
                          bool* fresh = nullptr) {
    std::uint16_t e = get_entry(v, list, i);
    if (e < v.blocks) return e;
    if (!create) return kNoBlock;
    long made = new_block(v, as_list);
    if (made < 0 || !set_entry(v, list, i, static_cast<std::uint16_t>(made))) return kNoBlock;
    if (fresh) *fresh = true;
    return static_cast<std::uint16_t>(made);
}

// The device block of a file's block index (made, with the lists leading
// to it, when create is set); kNoBlock when there is none. changed tells
// that the node record must be written back, fresh that the data block is new.
std::uint16_t map_block(Volume& v, NodeRecord& node, std::uint32_t index, bool create, bool& changed,
                        bool* fresh = nullptr) {
    const std::uint32_t per = v.block_size / 2;
    if (index == 0) return field_block(v, node.direct, create, false, changed, fresh);
    index -= 1;
    if (index < per) {
        std::uint16_t list = field_block(v, node.single, create, true, changed);
        return list == kNoBlock ? kNoBlock : entry_block(v, list, index, create, false, fresh);
    }
    index -= per;
    if (index >= per * per) return kNoBlock;
    std::uint16_t outer = field_block(v, node.twice, create, true, changed);
    if (outer == kNoBlock) return kNoBlock;
    std::uint16_t inner = entry_block(v, outer, index / per, create, true);
    return inner == kNoBlock ? kNoBlock : entry_block(v, inner, index % per, create, false, fresh);
}

// Frees a block; a cached copy goes too, so that no write-back lands on
// the block's next use.
void release(Volume& v, std::uint16_t& block) {
    if (block < v.blocks) set_block(v, block, false);
    for (auto& cached : v.indirect) {
        if (cached.number == block) {
            cached.number = kNoBlock;
            cached.dirty = false;
        }
    }
    block = kNoBlock;
}

// Frees every block of a file from block index first on, and the lists
// that no longer hold anything; entries are cleared in the lists that stay.
void free_blocks_from(Volume& v, NodeRecord& node, std::uint32_t first) {
    const std::uint32_t per = v.block_size / 2;
    if (first == 0) release(v, node.direct);
    if (node.single < v.blocks) {
        const std::uint32_t from = first > 1 ? first - 1 : 0;
        for (std::uint32_t i = from; i < per; ++i) {
            std::uint16_t e = get_entry(v, node.single, i);
            if (e == kNoBlock) continue;
            release(v, e);
            if (from > 0) set_entry(v, node.single, i, kNoBlock);
        }
        if (from == 0) release(v, node.single);
    }
    if (node.twice < v.blocks) {
        const std::uint32_t from = first > 1 + per ? first - 1 - per : 0;
        for (std::uint32_t o = from / per; o < per; ++o) {
            std::uint16_t inner = get_entry(v, node.twice, o);
            if (inner >= v.blocks) continue;
            const std::uint32_t inner_from = from > o * per ? from - o * per : 0;
            for (std::uint32_t i = inner_from; i < per; ++i) {
                std::uint16_t e = get_entry(v, inner, i);
                if (e == kNoBlock) continue;
                release(v, e);
                if (inner_from > 0) set_entry(v, inner, i, kNoBlock);
            }
            if (inner_from == 0) {
                release(v, inner);
                if (from > 0) set_entry(v, node.twice, o, kNoBlock);
            }
        }
        if (from == 0) release(v, node.twice);
    }
}

// Consecutive device bytes gathered into one transfer: a file's blocks
// mostly follow each other on the device.
struct Run {
    Volume& v;
    bool writing;
    std::uint64_t device = 0;
    std::uint64_t length = 0;
    std::uint8_t* memory = nullptr; // only read from when writing

    bool add(std::uint64_t at, std::uint8_t* where, std::size_t count) {
        if (length > 0 && device + length == at) {
            length += count;
            return true;
        }
        if (!flush()) return false;
        device = at;
        length = count;
        memory = where;
        return true;
    }

    bool flush() {
        if (length == 0) return true;
        bool ok = writing ? device_write(v, device, memory, length) : device_read(v, device, memory, length);
        length = 0;
        return ok;
    }
};

} // namespace

bool flush_indirect(Volume& v) {
    bool ok = true;
    for (auto& cached : v.indirect) {
        if (!cached.dirty) continue;
        ok = device_write(v, block_offset(v, cached.number), cached.bytes.data(), cached.bytes.size()) && ok;
        cached.dirty = false;
    }
    return ok;
}

void forget_indirect(Volume& v) {
    for (auto& cached : v.indirect) {
        cached.number = kNoBlock;
        cached.dirty = false;
    }
}

bool read_node(Volume& v, std::uint32_t n, NodeRecord& node) {
    std::uint8_t r[kNodeRecordSize];
    if (n >= v.nodes || !device_read(v, v.node_table_start + static_cast<std::uint64_t>(n) * kNodeRecordSize, r, sizeof r))
        return false;
    node = NodeRecord{r[0], r[1], u16_at(r + 2), u32_at(r + 4), u32_at(r + 8), u16_at(r + 12), u16_at(r + 14), u16_at(r + 16)};
    return true;
}

bool write_node(Volume& v, std::uint32_t n, const NodeRecord& node) {
    std::uint8_t r[kNodeRecordSize];
    r[0] = node.kind;
    r[1] = node.reserved;
    put_u16(r + 2, node.device);
    put_u32(r + 4, node.size);
    put_u32(r + 8, node.time);
    put_u16(r + 12, node.direct);
    put_u16(r + 14, node.single);
    put_u16(r + 16, node.twice);
    return n < v.nodes && device_write(v, v.node_table_start + static_cast<std::uint64_t>(n) * kNodeRecordSize, r, sizeof r);
}

namespace {

// Whether the way to a file's block index holds a block number past the
// volume's usable blocks (a damaged record, or a card cut short), rather
// than the mark of a block never written: such a block is an error to
// read, not a hole.
bool maps_outside(Volume& v, const NodeRecord& node, std::uint32_t index) {
    const auto outside = [&v](std::uint16_t b) { return b != kNoBlock && b >= v.blocks; };
    const std::uint32_t per = v.block_size / 2;
    if (index == 0) return outside(node.direct);
    index -= 1;
    if (index < per)
        return outside(node.single) || (node.single < v.blocks && outside(get_entry(v, node.single, index)));
    index -= per;
    if (index >= per * per) return false;
    if (outside(node.twice)) return true;
    if (node.twice >= v.blocks) return false;
    const std::uint16_t inner = get_entry(v, node.twice, index / per);
    return outside(inner) || (inner < v.blocks && outside(get_entry(v, inner, index % per)));
}

} // namespace

long read_bytes(Volume& v, NodeRecord& node, std::uint32_t position, void* buffer, std::size_t count) {
    if (position >= node.size) return 0;
    std::uint64_t end = std::min<std::uint64_t>({static_cast<std::uint64_t>(position) + count, node.size, v.file_limit});
    if (end <= position) return 0;
    auto* out = static_cast<std::uint8_t*>(buffer);
    std::uint64_t at = position;
    Run run{v, false};
    while (at < end) {
        const std::uint32_t index = static_cast<std::uint32_t>(at / v.block_size);
        const std::uint32_t within = static_cast<std::uint32_t>(at % v.block_size);
        const std::size_t take = static_cast<std::size_t>(std::min<std::uint64_t>(v.block_size - within, end - at));
        bool changed = false;
        std::uint16_t block = map_block(v, node, index, false, changed);
        std::uint8_t* target = out + (at - position);
        if (block == kNoBlock) {
            if (!run.flush() || maps_outside(v, node, index)) return -1;
            std::memset(target, 0, take); // a hole reads as zeros
        } else if (!run.add(block_offset(v, block) + within, target, take)) {
            return -1;
        }
        at += take;
    }
    if (!run.flush()) return -1;
    return static_cast<long>(end - position);
}

long write_bytes(Volume& v, std::uint32_t n, NodeRecord& node, std::uint32_t position, const void* buffer,
                 std::size_t count) {
    std::uint64_t end = std::min<std::uint64_t>(static_cast<std::uint64_t>(position) + count, v.file_limit);
    if (end <= position) return count == 0 ? 0 : -1;
    auto* in = const_cast<std::uint8_t*>(static_cast<const std::uint8_t*>(buffer)); // only read from
    bool record_changed = false;
    std::uint64_t at = position;
    Run run{v, true};
    while (at < end) {
        const std::uint32_t index = static_cast<std::uint32_t>(at / v.block_size);
        const std::uint32_t within = static_cast<std::uint32_t>(at % v.block_size);
        const std::size_t take = static_cast<std::size_t>(std::min<std::uint64_t>(v.block_size - within, end - at));
        bool changed = false, fresh = false;
        std::uint16_t block = map_block(v, node, index, true, changed, &fresh);
        if (block == kNoBlock) break; // the volume is full
        record_changed = record_changed || changed;
        if (fresh && take < v.block_size) {
            // A new block this write covers in part: the rest reads as zeros.
            if (!run.flush()) return -1;
            std::vector<std::uint8_t> zeros(v.block_size, 0);
            if (!device_write(v, block_offset(v, block), zeros.data(), zeros.size())) return -1;
        }
        if (!run.add(block_offset(v, block) + within, in + (at - position), take)) return -1;
        at += take;
    }
    if (!run.flush() || !flush_indirect(v)) return -1;
    if (at > node.size) {
        node.size = static_cast<std::uint32_t>(at);
        record_changed = true;
    }
    // A write, even one that changes no size nor block, is a change of the
    // file at this time.
    const std::uint32_t now = seconds_now();
    if (record_changed || node.time != now) {
        node.time = now;
        if (!write_node(v, n, node)) return -1;
    }
    // A full volume takes no byte: the write says so with a count of 0 (a
    // failure would be no reason at all).
    return static_cast<long>(at - position);
}

bool decode_entry(const std::uint8_t* bytes, std::size_t size, std::size_t at, std::uint32_t base,
                  DirectoryEntry& entry) {
    const std::size_t length = at + 3 <= size ? bytes[at + 2] : 0;
    if (length == 0 || at + 3 + length > size) return false;
    entry = DirectoryEntry{static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8),
                           std::string(reinterpret_cast<const char*>(bytes + at + 3), length),
                           static_cast<std::uint32_t>(base + at)};
    return true;
}

bool read_entries(Volume& v, NodeRecord& dir, std::vector<DirectoryEntry>& entries) {
    std::uint32_t size = dir.size < kMaxDirectoryBytes ? dir.size : kMaxDirectoryBytes;
    std::vector<std::uint8_t> bytes(size);
    long got = read_bytes(v, dir, 0, bytes.data(), bytes.size());
    if (got < 0) return false;
    bytes.resize(static_cast<std::size_t>(got));
    entries.clear();
    DirectoryEntry entry;
    for (std::size_t at = 0; decode_entry(bytes.data(), bytes.size(), at, 0, entry); at += 3 + entry.name.size())
        entries.push_back(entry);
    return true;
}

void blocks_of(Volume& v, NodeRecord& node, std::vector<std::uint32_t>& blocks) {
    const std::uint32_t per = v.block_size / 2;
    auto add = [&](std::uint16_t b) {
        if (b != kNoBlock) blocks.push_back(b);
    };
    const std::uint64_t size = std::min<std::uint64_t>(node.size, v.file_limit);
    const std::uint32_t count = static_cast<std::uint32_t>((size + v.block_size - 1) / v.block_size);
    if (count > 0) add(node.direct);
    if (count > 1) {
        add(node.single);
        for (std::uint32_t i = 0; i < per && 1 + i < count; ++i) add(get_entry(v, node.single, i));
    }
    if (count > 1 + per) {
        add(node.twice);
        for (std::uint32_t o = 0; o < per && 1 + per + o * per < count; ++o) {
            std::uint16_t inner = get_entry(v, node.twice, o);
            add(inner);
            for (std::uint32_t i = 0; i < per && 1 + per + o * per + i < count; ++i) add(get_entry(v, inner, i));
        }
    }
}

bool truncate_node(Volume& v, std::uint32_t n, NodeRecord& node, std::uint32_t length) {
    if (length < node.size) {
        const std::uint32_t keep = (length + v.block_size - 1) / v.block_size; // blocks still holding bytes
        free_blocks_from(v, node, keep);
        // The tail of the last kept block reads as zeros if the file grows again.
        if (length % v.block_size != 0) {
            bool changed = false;
            std::uint16_t last = map_block(v, node, length / v.block_size, false, changed);
            if (last != kNoBlock) {
                std::vector<std::uint8_t> zeros(v.block_size - length % v.block_size, 0);
                device_write(v, block_offset(v, last) + length % v.block_size, zeros.data(), zeros.size());
            }
        }
    }
    node.size = length;
    node.time = seconds_now();
    return flush_indirect(v) && write_node(v, n, node);
}

} // namespace vukra::kernel::ufs
