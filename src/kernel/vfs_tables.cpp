// The switch's static tables and the filesystem types.
#include "kernel/kernel_errors.h"
#include "kernel/vfs_internal.h"

#include <cstring>

namespace vukra::kernel {

extern const FsOps kRootFsOps;
extern const FsOps kUfsOps;
extern const FsOps kUfsxOps;

namespace detail {

OpenFile open_files[kOpenFileSlots];
Mount mounts[kMountSlots];
Fifo fifos[kFifoSlots];
int root_mount = -1;

bool in_use(int mount) { return mount >= 0 && mount < kMountSlots && mounts[mount].self != nullptr; }

const FsOps& ops_of(int mount) { return *fs_type(mounts[mount].type)->ops; }

OpenFile* slot(Descriptor fd) {
    if (fd < 0 || fd >= kOpenFileSlots || !open_files[fd].used) return nullptr;
    return &open_files[fd];
}

Descriptor take_slot() {
    for (Descriptor fd = 0; fd < kOpenFileSlots; ++fd) {
        if (!open_files[fd].used) {
            open_files[fd] = OpenFile{};
            open_files[fd].used = true;
            return fd;
        }
    }
    return -1;
}

} // namespace detail

namespace {

const FsTypeEntry kFsTypeTable[kFsTypes] = {
    {"rootfs", &kRootFsOps},
    {"ufs", &kUfsOps},
    {"ufsx", &kUfsxOps},
};

} // namespace

const FsTypeEntry* fs_type(int type) { return type >= 0 && type < kFsTypes ? &kFsTypeTable[type] : nullptr; }

int fs_type_by_name(const char* name) {
    for (int t = 0; t < kFsTypes; ++t)
        if (name != nullptr && std::strcmp(kFsTypeTable[t].name, name) == 0) return t;
    return -1;
}

void vfs_reset() {
    using namespace detail;
    for (Mount& m : mounts) {
        if (m.self != nullptr && fs_type(m.type)->ops->drop) fs_type(m.type)->ops->drop(m);
        m = Mount{};
    }
    for (OpenFile& f : open_files) f = OpenFile{};
    for (Fifo& f : fifos) f = Fifo{};
    root_mount = -1;
    for (const FsTypeEntry& type : kFsTypeTable)
        if (type.ops->load) type.ops->load();
}

long cookie_telldir(Mount&, std::uint32_t, std::int32_t cookie) { return cookie; }

int cookie_seekdir(Mount&, std::uint32_t, std::int32_t& cookie, long to) {
    cookie = static_cast<std::int32_t>(to);
    return 0;
}

std::int32_t& descriptor_position(Descriptor fd) {
    static std::int32_t nowhere;
    detail::OpenFile* f = detail::slot(fd);
    return f ? f->position : (nowhere = 0);
}

Descriptor descriptor_origin(Descriptor fd) {
    detail::OpenFile* f = detail::slot(fd);
    return f && f->cloned_from >= 0 ? f->cloned_from : fd;
}

int descriptor_device(Descriptor fd) {
    detail::OpenFile* f = detail::slot(fd);
    return f ? f->device : -1;
}

const Mount* mount_slot(int index) { return detail::in_use(index) ? &detail::mounts[index] : nullptr; }

} // namespace vukra::kernel
