// ufs node records and file contents, for the ufs operations.
#pragma once

#include "kernel/ufs_volume.h"

#include <string>
#include <vector>

namespace vukra::kernel::ufs {

struct DirectoryEntry {
    std::uint16_t node;
    std::string name;
    std::uint32_t offset; // where it starts in the directory's content
};

// A directory's content is read up to this many bytes; entries past it are not seen.
inline constexpr std::uint32_t kMaxDirectoryBytes = 1u << 20;

// The entry that starts at bytes[at] of size bytes of a directory's content
// that begin at offset base; false when no whole entry starts there.
bool decode_entry(const std::uint8_t* bytes, std::size_t size, std::size_t at, std::uint32_t base,
                  DirectoryEntry& entry);

// The entries of a directory; a damaged tail ends the list.
bool read_entries(Volume& v, NodeRecord& dir, std::vector<DirectoryEntry>& entries);

bool read_node(Volume& v, std::uint32_t n, NodeRecord& node);
bool write_node(Volume& v, std::uint32_t n, const NodeRecord& node);

// Bytes of a file from position: the count read (holes read as zeros), 0 at
// the end, -1 when the device fails.
long read_bytes(Volume& v, NodeRecord& node, std::uint32_t position, void* buffer, std::size_t count);
// Bytes into a file from position, allocating blocks; grows the size and
// writes the record back when it changed. The count written (short when
// the volume fills up or the file reaches its limit), or -1.
long write_bytes(Volume& v, std::uint32_t n, NodeRecord& node, std::uint32_t position, const void* buffer,
                 std::size_t count);
// Every block a file holds, data blocks and blocks of block numbers, as far
// as its size reaches; numbers outside the volume are given too (they are
// damage), "none" is not.
void blocks_of(Volume& v, NodeRecord& node, std::vector<std::uint32_t>& blocks);

// Cuts or extends a file to length, freeing the blocks past it.
bool truncate_node(Volume& v, std::uint32_t n, NodeRecord& node, std::uint32_t length);

} // namespace vukra::kernel::ufs
