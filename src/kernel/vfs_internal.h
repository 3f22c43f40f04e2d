// The switch's tables, shared by its own files.
#pragma once

#include "kernel/vfs.h"

#include <string>
#include <vector>

namespace vukra::kernel::detail {

struct OpenFile {
    bool used = false;
    std::int16_t owner = 0;
    std::int16_t cloned_from = -1;
    std::int16_t next_reader = -1;
    std::int16_t next_writer = -1;
    std::uint8_t readers = 0;
    std::uint8_t writers = 0;
    std::uint32_t flags = 0;
    std::int32_t position = 0;
    std::uint8_t attributes = 0;
    std::uint32_t node = 0; // the filesystem's own number
    int mount = -1;
    const DriverDescriptor* driver = nullptr; // after a device open
    std::int16_t device = -1;
};

struct Fifo {
    Descriptor reader = -1;
    Descriptor writer = -1;
};

extern OpenFile open_files[kOpenFileSlots];
extern Mount mounts[kMountSlots];
extern Fifo fifos[kFifoSlots];
extern int root_mount;

// A node: the mount slot of its filesystem and its number there.
struct Location {
    int mount = -1;
    std::uint32_t node = 0;
};

const FsOps& ops_of(int mount);
bool in_use(int mount);

// The whole path; false (and -44 recorded) when it does not lead to a node.
bool resolve(const char* path, Location& where);
// The directory that holds the path's last name, and that name; chain,
// when given, receives the directories from the root down to it.
bool resolve_parent(const char* path, Location& directory, std::string& name,
                    std::vector<Location>* chain = nullptr);
// The node a directory entry's value refers to, from the directory's mount.
bool follow_entry(int mount, std::uint32_t value, Location& where);

OpenFile* slot(Descriptor fd); // null for a descriptor not in use
Descriptor take_slot();        // -1 when all are in use

} // namespace vukra::kernel::detail
