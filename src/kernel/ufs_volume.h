// A mounted ufs volume, as its operations share it. The on-disk layout is
// described in docs/ufs-format.md.
#pragma once

#include "kernel/vfs.h"

#include <array>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace vukra::kernel::ufs {

inline constexpr std::size_t kVersionLength = 7; // "ufs x.x"
inline constexpr std::uint32_t kNodeRecordSize = 18;
inline constexpr std::size_t kHeaderSize15 = kVersionLength + 2 + 5 * 4; // "ufs 1.5": block size, five sizes
inline constexpr std::uint16_t kNoBlock = 0xFFFF;
inline constexpr std::uint32_t kMaxAllocationArea = 4u << 20; // larger headers are taken as damaged

struct NodeRecord {
    std::uint8_t kind = 0;
    std::uint8_t reserved = 0;
    std::uint16_t device = 0;
    std::uint32_t size = 0;
    std::uint32_t time = 0;
    std::uint16_t direct = kNoBlock;
    std::uint16_t single = kNoBlock; // a block of block numbers
    std::uint16_t twice = kNoBlock;  // a block of blocks of block numbers
};

struct Volume {
    Descriptor device = -1;
    std::uint64_t device_size = 0; // from the device's ioctl 1; 0 when it does not tell
    std::uint32_t header_size = 0;
    std::uint32_t block_size = 0;
    std::uint32_t allocation_size = 0;
    std::uint32_t block_bitmap_size = 0;
    std::uint32_t node_bitmap_size = 0;
    std::uint32_t node_table_size = 0;
    std::uint32_t data_size = 0;
    std::uint32_t nodes = 0;
    std::uint32_t blocks = 0; // usable: block numbers below 0xFFFF only
    std::uint32_t allocation_start = 0, node_table_start = 0, data_start = 0;
    std::uint64_t file_limit = 0; // b + b*b/2 + b*b*b/4 bytes
    std::vector<std::uint8_t> allocation; // the block bitmap, then the node bitmap

    // The blocks of block numbers in use, by block number: mapping a
    // file's blocks reads the same few again and again, and writing a file
    // changes them entry by entry. Changed ones are written back whole by
    // flush_indirect, at the end of every operation that changes them.
    struct CachedBlock {
        std::uint16_t number = kNoBlock;
        bool dirty = false;
        std::vector<std::uint8_t> bytes;
    };
    std::array<CachedBlock, 4> indirect;
    unsigned next_victim = 0;
    std::uint32_t free_hint = 0; // no free block lies below it

    // The names of the directories used last, by name: looking a name up
    // and adding one then cost no reading of the whole directory (a path's
    // walk goes through several). Adding keeps an index up to date;
    // removing, renaming and mount points drop them all; a directory whose
    // size is not the one indexed is indexed again.
    struct NameIndex {
        std::uint32_t dir = 0xFFFFFFFF; // none
        std::uint32_t size = 0;
        std::uint64_t used = 0; // when last used, for the choice of one to replace
        std::unordered_map<std::string, std::uint16_t> nodes;
    };
    std::array<NameIndex, 4> names;
    std::uint64_t name_uses = 0;
};

Volume& volume_of(Mount& m);

// Device transfers at a byte offset; false when the device fails or falls short.
bool device_read(Volume& v, std::uint64_t offset, void* buffer, std::size_t count);
bool device_write(Volume& v, std::uint64_t offset, const void* buffer, std::size_t count);

// Bitmaps: bit i of byte i / 8, lowest bit first.
bool block_used(const Volume& v, std::uint32_t block);
void set_block(Volume& v, std::uint32_t block, bool used);
bool node_used(const Volume& v, std::uint32_t node);
void set_node(Volume& v, std::uint32_t node, bool used);
// The first free block or node, marked used; -1 when none is left.
long allocate_block(Volume& v);
long allocate_node(Volume& v);

std::uint32_t seconds_now();

// Writes the changed cached blocks of block numbers back; false when the device fails.
bool flush_indirect(Volume& v);
// Forgets the cached blocks (after a flush), as a new mount must.
void forget_indirect(Volume& v);

// The superblock operations of the filesystem operation table.
int makefs(Descriptor device, const void* argument);
int readfs(Mount& m);
int writefs(Mount& m);
void drop(Mount& m);
int fsstatus(Mount& m, FsStatus& status);

} // namespace vukra::kernel::ufs
