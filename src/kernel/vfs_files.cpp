// Opening, reading, writing and naming nodes through the switch.
#include "kernel/kernel_errors.h"
#include "kernel/vfs_internal.h"

#include <cstring>
#include <vector>

namespace vukra::kernel {

using namespace detail;

namespace {

constexpr std::int16_t kLinkBase = 12; // a descriptor link's device number is 12 plus the descriptor

// Makes a node of a kind at path; -20 when it exists or its parent cannot be found.
int create_node(const char* path, std::uint8_t kind, Location* made = nullptr) {
    Location dir;
    std::string name;
    if (!resolve_parent(path, dir, name)) return fail(kErrExists);
    const FsOps& ops = ops_of(dir.mount);
    std::uint32_t value = 0;
    if (ops.lookup(mounts[dir.mount], dir.node, name.c_str(), value) == 0) return fail(kErrExists);
    std::uint32_t node = 0;
    if (!ops.create || ops.create(mounts[dir.mount], dir.node, name.c_str(), kind, node) != 0) return fail(kErrExists);
    if (made) *made = Location{dir.mount, node};
    return 0;
}

void release_slot(OpenFile& f) {
    const FsOps& ops = ops_of(f.mount);
    if (ops.release) ops.release(mounts[f.mount], f.node);
    f = OpenFile{};
}

// A device node opened: through its driver from now on.
int open_device(Descriptor fd, OpenFile& f, std::uint32_t flags) {
    if (f.attributes & kNodeLink) {
        const Descriptor origin = static_cast<Descriptor>(f.device - kLinkBase);
        OpenFile* linked = slot(origin);
        if (linked == nullptr) {
            release_slot(f);
            return fail(kErrNotDevice);
        }
        std::int16_t owner = f.owner;
        f = *linked;
        f.owner = owner;
        f.cloned_from = origin;
        return 0;
    }
    const DriverDescriptor* driver = device_driver(f.device);
    if (driver == nullptr) {
        release_slot(f);
        return fail(kErrNotDevice);
    }
    if (driver->open == nullptr || driver->open(fd, flags) < 0) {
        release_slot(f);
        return fail(kErrRefused);
    }
    f.driver = driver;
    return 0;
}

// A directory not known to be empty (one that cannot be read counts): it
// is neither removed nor replaced.
bool full_directory(int mount, std::uint32_t node) {
    const FsOps& ops = ops_of(mount);
    NodeStatus status{};
    if (!ops.status || ops.status(mounts[mount], node, status) != 0 || status.kind != kNodeDirectory) return false;
    std::int32_t cookie = 0;
    DirEntry entry{};
    return ops.readdir(mounts[mount], node, cookie, entry) != 0;
}

} // namespace

Descriptor open(const char* path, std::uint32_t flags, int) {
    if (path == nullptr || path[0] == '\0') return static_cast<Descriptor>(fail(kErrNoNode));
    if ((flags & kOpenCreate) && create_node(path, kNodeFile) != 0 && (flags & kOpenExclusive))
        return static_cast<Descriptor>(fail(kErrExists));
    Location at;
    if (!resolve(path, at)) return static_cast<Descriptor>(fail(kErrNoNode));
    Descriptor fd = take_slot();
    if (fd < 0) return static_cast<Descriptor>(fail(kErrNoDescriptor));
    OpenFile& f = open_files[fd];
    f.flags = flags;
    f.mount = at.mount;
    f.node = at.node;
    const FsOps& ops = ops_of(at.mount);
    NodeStatus status{};
    if (!ops.acquire || ops.acquire(mounts[at.mount], at.node, status) != 0) {
        f = OpenFile{};
        return static_cast<Descriptor>(fail(kErrRefused));
    }
    f.attributes = status.kind;
    f.device = status.device;
    if (status.kind == kNodeFile || status.kind == kNodeDirectory) {
        if (ops.seek) ops.seek(mounts[at.mount], at.node, f.position, 0, (flags & kOpenAppend) ? 2 : 0);
        if ((flags & kOpenTruncate) && status.kind == kNodeFile && ops.truncate)
            ops.truncate(mounts[at.mount], at.node, 0);
    } else if (status.kind & (kNodeBlockDevice | kNodeCharDevice | kNodeLink)) {
        if (open_device(fd, f, flags) != 0) return -1;
    } else if (status.kind == kNodeFifo) {
        // A named pipe is served by the fifo driver on this descriptor.
        f.device = 0;
        if (open_device(fd, f, flags) != 0) return -1;
        f.attributes = kNodeFifo;
    }
    if (flags & kOpenRead) ++f.readers;
    if (flags & kOpenWrite) ++f.writers;
    return fd;
}

int close(Descriptor fd) {
    OpenFile* f = slot(fd);
    if (f == nullptr) return fail(kErrNoNode);
    if (f->driver != nullptr) {
        if (f->driver->close) f->driver->close(fd);
        *f = OpenFile{};
        return 0;
    }
    release_slot(*f);
    return 0;
}

long read(Descriptor fd, void* buffer, std::size_t count) {
    OpenFile* f = slot(fd);
    if (f == nullptr || buffer == nullptr) return fail(kErrNoNode);
    if (f->driver != nullptr) return f->driver->read ? f->driver->read(fd, buffer, count) : -1;
    const FsOps& ops = ops_of(f->mount);
    if (f->attributes != kNodeFile || !ops.read) return -1;
    return ops.read(mounts[f->mount], f->node, f->position, buffer, count);
}

long write(Descriptor fd, const void* buffer, std::size_t count) {
    OpenFile* f = slot(fd);
    if (f == nullptr || buffer == nullptr) return fail(kErrNoNode);
    if (f->driver != nullptr) return f->driver->write ? f->driver->write(fd, buffer, count) : -1;
    const FsOps& ops = ops_of(f->mount);
    if (f->attributes != kNodeFile || !ops.write) return -1;
    if (f->flags & kOpenAppend) ops.seek(mounts[f->mount], f->node, f->position, 0, 2);
    return ops.write(mounts[f->mount], f->node, f->position, buffer, count);
}

long lseek(Descriptor fd, long offset, int whence) {
    OpenFile* f = slot(fd);
    if (f == nullptr) return fail(kErrNoNode);
    if (f->driver != nullptr) return f->driver->seek ? f->driver->seek(fd, offset, whence) : -1;
    const FsOps& ops = ops_of(f->mount);
    return ops.seek ? ops.seek(mounts[f->mount], f->node, f->position, offset, whence) : -1;
}

int ioctl(Descriptor fd, std::uint32_t request, void* argument) {
    OpenFile* f = slot(fd);
    if (f == nullptr) return fail(kErrNoNode);
    if (f->driver == nullptr || f->driver->ioctl == nullptr) return fail(kErrNotDevice);
    return f->driver->ioctl(fd, request, argument);
}

int truncate(Descriptor fd, std::uint32_t length) {
    OpenFile* f = slot(fd);
    if (f == nullptr || f->driver != nullptr || f->attributes != kNodeFile) return fail(kErrNoNode);
    const FsOps& ops = ops_of(f->mount);
    return ops.truncate ? ops.truncate(mounts[f->mount], f->node, length) : -1;
}

int mkdir(const char* path, int) { return create_node(path, kNodeDirectory); }

int mknod(const char* path, int kind, std::int16_t device) {
    Location made;
    if (create_node(path, static_cast<std::uint8_t>(kind), &made) != 0) return -1;
    const FsOps& ops = ops_of(made.mount);
    return ops.set_device ? ops.set_device(mounts[made.mount], made.node, device) : -1;
}

int link_descriptor(Descriptor fd, const char* path) {
    OpenFile* f = slot(fd);
    if (f == nullptr) return fail(kErrNoNode);
    if (mknod(path, kNodeLink, static_cast<std::int16_t>(kLinkBase + fd)) != 0) return -1;
    for (Descriptor d = fd; d >= 0 && d < kOpenFileSlots && open_files[d].used;) {
        open_files[d].attributes |= kNodeLink;
        Descriptor next = open_files[d].next_reader;
        if (next == d) break;
        d = next;
    }
    return 0;
}

int rmnod(const char* path) {
    NodeStatus status{};
    if (kernel::stat(path, status) != 0) return -1;
    if (status.kind != kNodeLink) return fail(kErrNotDevice);
    return kernel::remove(path);
}

int remove(const char* path) {
    Location dir;
    std::string name;
    if (!resolve_parent(path, dir, name)) return -1;
    const FsOps& ops = ops_of(dir.mount);
    std::uint32_t value = 0;
    if (ops.lookup(mounts[dir.mount], dir.node, name.c_str(), value) != 0) return fail(kErrNoNode);
    // A mount point is unmounted, not removed; a directory's entries go first.
    if (value >= mounts[dir.mount].count || full_directory(dir.mount, value)) return fail(kErrExists);
    return ops.remove ? ops.remove(mounts[dir.mount], dir.node, name.c_str()) : -1;
}

// Moves a name within one filesystem. What cannot be done is refused before
// anything changes: a mount point (either name), a move across filesystems
// (-43), a directory into itself or below itself (-22), a directory onto a
// non-directory (-56), a non-directory onto a directory or a directory onto
// a non-empty one (-20). An existing name of the same kind is replaced in
// one step: the name refers to the moved node, then the old node is freed.
int rename(const char* from, const char* to) {
    Location from_dir, to_dir;
    std::string from_name, to_name;
    std::vector<Location> to_chain;
    if (!resolve_parent(from, from_dir, from_name) || !resolve_parent(to, to_dir, to_name, &to_chain)) return -1;
    const FsOps& ops = ops_of(from_dir.mount);
    Mount& m = mounts[from_dir.mount];
    std::uint32_t value = 0;
    if (ops.lookup(m, from_dir.node, from_name.c_str(), value) != 0) return fail(kErrNoNode);
    if (value >= m.count) return fail(kErrExists); // a mount point is unmounted, not moved
    if (from_dir.mount != to_dir.mount) return fail(kErrNotDevice);
    if (from_dir.node == to_dir.node && from_name == to_name) return 0;
    NodeStatus moving{};
    if (!ops.status || ops.status(m, value, moving) != 0) return fail(kErrNoNode);
    const bool directory = moving.kind == kNodeDirectory;
    if (directory)
        for (const Location& above : to_chain)
            if (above.mount == from_dir.mount && above.node == value) return fail(kErrInvalid);
    std::uint32_t existing = 0;
    if (ops.lookup(m, to_dir.node, to_name.c_str(), existing) == 0) {
        if (existing >= m.count) return fail(kErrExists);
        NodeStatus there{};
        if (ops.status(m, existing, there) != 0) return fail(kErrNoNode);
        const bool directory_there = there.kind == kNodeDirectory;
        if (directory && !directory_there) return fail(kErrNotDirectory);
        if (!directory && directory_there) return fail(kErrExists);
        if (full_directory(from_dir.mount, existing)) return fail(kErrExists);
    }
    return ops.rename ? ops.rename(m, from_dir.node, from_name.c_str(), to_dir.node, to_name.c_str()) : -1;
}

int stat(const char* path, NodeStatus& status) {
    Location at;
    if (!resolve(path, at)) return -1;
    const FsOps& ops = ops_of(at.mount);
    if (!ops.status || ops.status(mounts[at.mount], at.node, status) != 0) return fail(kErrNoNode);
    status.node = mounts[at.mount].first + at.node;
    return 0;
}

int node_status(std::uint32_t node, NodeStatus& status) {
    for (int m = 0; m < kMountSlots; ++m) {
        if (!in_use(m) || node < mounts[m].first || node - mounts[m].first >= mounts[m].count) continue;
        const FsOps& ops = ops_of(m);
        if (!ops.status || ops.status(mounts[m], node - mounts[m].first, status) != 0) return fail(kErrNoNode);
        status.node = node;
        return 0;
    }
    return fail(kErrNoNode);
}

int fsstat(const char* path, FsStatus& status) {
    Location at;
    if (!resolve(path, at)) return -1;
    const FsOps& ops = ops_of(at.mount);
    return ops.fsstatus ? ops.fsstatus(mounts[at.mount], status) : -1;
}

int readdir(Descriptor fd, DirEntry& entry) {
    OpenFile* f = slot(fd);
    if (f == nullptr) return fail(kErrNoNode);
    if (f->attributes != kNodeDirectory || f->driver != nullptr) return fail(kErrNotDirectory);
    const FsOps& ops = ops_of(f->mount);
    int got = ops.readdir(mounts[f->mount], f->node, f->position, entry);
    if (got == 1) entry.node += mounts[f->mount].first;
    return got;
}

long telldir(Descriptor fd) {
    OpenFile* f = slot(fd);
    if (f == nullptr || f->attributes != kNodeDirectory) return fail(kErrNotDirectory);
    return ops_of(f->mount).telldir(mounts[f->mount], f->node, f->position);
}

int seekdir(Descriptor fd, long position) {
    OpenFile* f = slot(fd);
    if (f == nullptr || f->attributes != kNodeDirectory) return fail(kErrNotDirectory);
    return ops_of(f->mount).seekdir(mounts[f->mount], f->node, f->position, position);
}

int rewinddir(Descriptor fd) { return seekdir(fd, 0); }

} // namespace vukra::kernel
