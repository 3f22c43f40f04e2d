// ufs node records and file contents, for the ufs operations.
#pragma once

#include "kernel/ufs_volume.h"

namespace vukra::kernel::ufs {

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
// Cuts or extends a file to length, freeing the blocks past it.
bool truncate_node(Volume& v, std::uint32_t n, NodeRecord& node, std::uint32_t length);

} // namespace vukra::kernel::ufs
