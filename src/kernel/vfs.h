// The virtual filesystem switch: the kernel's one way from a path or a
// descriptor to the filesystem or device driver that serves it.
//
// Three static tables: filesystem types (FsTypeTable), 6 mounts and 20 open
// files; a descriptor is an open-file slot's index. Node numbers form one
// space for the whole system: every mount owns the range that starts at its
// first node number, and a directory entry that refers outside its own
// filesystem's range leads into the mount that owns that number; that is
// how mounting works, by rewriting one entry in the parent directory.
//
// Every call returns 0 or a count or a descriptor on success, and -1 on
// failure with the error recorded (kernel_errors.h).
#pragma once

#include "kernel/device_table.h"

#include <cstddef>
#include <cstdint>

namespace vukra::kernel {

inline constexpr int kOpenFileSlots = 20;
inline constexpr int kMountSlots = 6;
inline constexpr int kFifoSlots = 10;
inline constexpr int kNameMax = 255;

enum OpenFlags : std::uint32_t {
    kOpenRead = 1,
    kOpenWrite = 2,
    kOpenCreate = 4,
    kOpenAppend = 8,
    kOpenNoWake = 32,
    kOpenExclusive = 64,
    kOpenTruncate = 0x100,
};

// Node kinds, which are also the attribute bits of an open file.
enum NodeKind : std::uint8_t {
    kNodeFile = 1,
    kNodeBlockDevice = 2,
    kNodeCharDevice = 4,
    kNodeDirectory = 8,
    kNodeFifo = 16,
    kNodeLink = 32, // a descriptor link
};

enum FsType : int { kRootFs = 0, kUfs = 1, kUfsx = 2, kFsTypes = 3 };

struct DirEntry {
    std::uint32_t node;
    char name[kNameMax + 1];
};

struct NodeStatus {
    std::uint8_t kind;
    std::uint32_t size;
    std::uint32_t time;
    std::int16_t device; // for device nodes
    std::uint32_t node;  // in the system's node space
};

struct FsStatus {
    std::uint32_t block_size;
    std::uint32_t blocks, free_blocks;
    std::uint32_t nodes, free_nodes;
};

// The argument of mkfs for ufs and ufsx.
struct UfsMakeArgument {
    std::uint32_t nodes;
    std::uint32_t blocks;
    std::uint32_t block_size;
    std::uint32_t device_size;
};

// What mkfs makes of an argument: the block size after its repair, the
// blocks that fit, and how many bytes from the device's start it writes.
// False when no volume of that many nodes fits the device.
struct UfsLayout {
    std::uint32_t block_size;
    std::uint32_t blocks;
    std::uint32_t block_bitmap, node_bitmap, node_table;
    std::uint32_t written;
};
bool ufs_layout(const UfsMakeArgument& a, UfsLayout& layout);

struct Mount {
    Descriptor device = -1; // -1 without one (rootfs)
    std::uint32_t mount_point = 0; // the mount point's node in the parent filesystem
    Mount* self = nullptr;         // itself while in use
    std::int16_t type = -1;
    void* data = nullptr; // the filesystem's own, null while free
    std::uint32_t count = 0; // node numbers the filesystem uses (set by its readfs)
    std::uint32_t first = 0; // first node number of its range
    int parent = -1;         // mount slot of the parent filesystem
    std::uint32_t parent_dir = 0; // directory holding the mount point, in the parent
};

// A filesystem type's 21 operations, in slot order; node numbers here are
// the filesystem's own, from 0 (its root).
struct FsOps {
    int (*load)();                                                                  // 0
    int (*lookup)(Mount&, std::uint32_t dir, const char* name, std::uint32_t& entry); // 1
    int (*makefs)(Descriptor device, const void* argument);                        // 2
    int (*readfs)(Mount&);                                                          // 3
    int (*writefs)(Mount&);                                                         // 4
    int (*remove)(Mount&, std::uint32_t dir, const char* name);                     // 5
    int (*mountpoint)(Mount&, std::uint32_t dir, std::uint32_t from, std::uint32_t to); // 6
    int (*readdir)(Mount&, std::uint32_t dir, std::int32_t& cookie, DirEntry&);     // 7
    long (*telldir)(Mount&, std::uint32_t dir, std::int32_t cookie);                // 8
    int (*seekdir)(Mount&, std::uint32_t dir, std::int32_t& cookie, long to);       // 9
    int (*rename)(Mount&, std::uint32_t dir, const char* from, std::uint32_t to_dir, const char* to); // 10
    int (*set_device)(Mount&, std::uint32_t node, std::int16_t device);             // 11
    int (*create)(Mount&, std::uint32_t dir, const char* name, std::uint8_t kind, std::uint32_t& node); // 12
    int (*acquire)(Mount&, std::uint32_t node, NodeStatus&);                         // 13
    int (*release)(Mount&, std::uint32_t node);                                     // 14
    long (*read)(Mount&, std::uint32_t node, std::int32_t& position, void*, std::size_t);        // 15
    long (*write)(Mount&, std::uint32_t node, std::int32_t& position, const void*, std::size_t); // 16
    long (*seek)(Mount&, std::uint32_t node, std::int32_t& position, long offset, int whence);   // 17
    int (*truncate)(Mount&, std::uint32_t node, std::uint32_t length);              // 18
    int (*status)(Mount&, std::uint32_t node, NodeStatus&);                         // 19
    int (*fsstatus)(Mount&, FsStatus&);                                             // 20
    void (*drop)(Mount&); // frees the filesystem's own data at umount
};

struct FsTypeEntry {
    const char* name;
    const FsOps* ops;
};
const FsTypeEntry* fs_type(int type);
int fs_type_by_name(const char* name); // -1 when unknown

// Directory positions for filesystems whose readdir cookie is a plain
// number (rootfs and ufs): telling gives it, seeking sets it.
long cookie_telldir(Mount&, std::uint32_t dir, std::int32_t cookie);
int cookie_seekdir(Mount&, std::uint32_t dir, std::int32_t& cookie, long to);

// ---- the switch's calls --------------------------------------------------

void vfs_reset(); // free tables, then each type's load

int mount(int type, const char* device_path, const char* path); // device_path null: no device (rootfs)
int umount(const char* path);
int mkfs(int type, const char* device_path, const void* argument);
int flush_mounts();

Descriptor open(const char* path, std::uint32_t flags, int mode = 0);
int close(Descriptor fd);
long read(Descriptor fd, void* buffer, std::size_t count);
long write(Descriptor fd, const void* buffer, std::size_t count);
long lseek(Descriptor fd, long offset, int whence);
int ioctl(Descriptor fd, std::uint32_t request, void* argument);
int truncate(Descriptor fd, std::uint32_t length);

int mkdir(const char* path, int mode = 0);
int mknod(const char* path, int kind, std::int16_t device);
// A descriptor link: a node at path through which the open descriptor fd
// (and its fifo chain) is opened again; its device number is 12 plus fd.
int link_descriptor(Descriptor fd, const char* path);
int rmnod(const char* path); // removes a descriptor link
int remove(const char* path); // a file, an empty directory or a node
int rename(const char* from, const char* to);
int stat(const char* path, NodeStatus& status);
// The status of a node by its number in the system's node space, as
// readdir gives it: a listing's details without walking each path again.
int node_status(std::uint32_t node, NodeStatus& status);
int fsstat(const char* path, FsStatus& status);

int readdir(Descriptor fd, DirEntry& entry); // 1 with an entry, 0 at the end, -1
long telldir(Descriptor fd);
int seekdir(Descriptor fd, long position);
int rewinddir(Descriptor fd);

// The position field of an open-file slot, which device drivers use as theirs.
std::int32_t& descriptor_position(Descriptor fd);
// The descriptor an open one was cloned from through a descriptor link, or itself.
Descriptor descriptor_origin(Descriptor fd);
// The driver's device number of an open device descriptor.
int descriptor_device(Descriptor fd);

// For tests and tools: the mount slot at index, or null when free.
const Mount* mount_slot(int index);

} // namespace vukra::kernel
