// Mounting, unmounting, making filesystems and writing them all back.
#include "kernel/kernel_errors.h"
#include "kernel/vfs_internal.h"

namespace vukra::kernel {

using namespace detail;

namespace {

// The range a new mount in slot index takes: right behind the range of the
// nearest slot before it in use. False when it would run into another range.
bool place_range(int index) {
    Mount& m = mounts[index];
    m.first = 0;
    for (int before = index - 1; before >= 0; --before) {
        if (in_use(before)) {
            m.first = mounts[before].first + mounts[before].count;
            break;
        }
    }
    for (int other = 0; other < kMountSlots; ++other) {
        if (other == index || !in_use(other)) continue;
        const Mount& o = mounts[other];
        if (m.first < o.first + o.count && o.first < m.first + m.count) return false;
    }
    return true;
}

void free_slot(Mount& m) {
    const FsOps& ops = *fs_type(m.type)->ops;
    if (m.data != nullptr && ops.drop) ops.drop(m);
    m = Mount{};
}

} // namespace

int mount(int type, const char* device_path, const char* path) {
    const FsTypeEntry* fs = fs_type(type);
    if (fs == nullptr) return fail(kErrNoNode);
    const bool root = device_path == nullptr;
    if (root && root_mount >= 0) return fail(kErrNoNode); // the root is mounted once

    Descriptor device = -1;
    if (!root) {
        device = open(device_path, kOpenRead | kOpenWrite);
        if (device < 0) return fail(kErrNotDevice);
        if (!(open_files[device].attributes & (kNodeBlockDevice | kNodeCharDevice))) {
            close(device);
            return fail(kErrNotDevice);
        }
    }
    Location dir;
    std::string name;
    std::uint32_t point = 0;
    if (!root) {
        if (!resolve_parent(path, dir, name) ||
            ops_of(dir.mount).lookup(mounts[dir.mount], dir.node, name.c_str(), point) != 0) {
            close(device);
            return fail(kErrNoNode);
        }
    }
    for (int index = 0; index < kMountSlots; ++index) {
        Mount& m = mounts[index];
        if (m.data != nullptr || in_use(index)) continue;
        m.device = device;
        m.type = static_cast<std::int16_t>(type);
        m.mount_point = point;
        m.parent = root ? -1 : dir.mount;
        m.parent_dir = dir.node;
        if (!fs->ops->readfs || fs->ops->readfs(m) != 0) {
            free_slot(m);
            if (device >= 0) close(device);
            return fail(kErrRefused);
        }
        if (root) {
            m.first = 0;
        } else if (!place_range(index)) {
            free_slot(m);
            continue; // this slot's range runs into the next: try another
        }
        m.self = &m;
        if (root) {
            root_mount = index;
            return 0;
        }
        const FsOps& parent = ops_of(dir.mount);
        if (!parent.mountpoint ||
            parent.mountpoint(mounts[dir.mount], dir.node, point, m.first - mounts[dir.mount].first) != 0) {
            free_slot(m);
            close(device);
            return fail(kErrNoNode);
        }
        return 0;
    }
    if (device >= 0) close(device);
    return fail(kErrNoNode);
}

int umount(const char* path) {
    Location dir;
    std::string name;
    if (!resolve_parent(path, dir, name)) return fail(kErrNoNode);
    std::uint32_t value = 0;
    if (ops_of(dir.mount).lookup(mounts[dir.mount], dir.node, name.c_str(), value) != 0) return fail(kErrNoNode);
    const std::uint32_t global = mounts[dir.mount].first + value;
    for (int index = 0; index < kMountSlots; ++index) {
        Mount& m = mounts[index];
        if (!in_use(index) || m.first != global || index == root_mount) continue;
        const FsOps& ops = ops_of(index);
        if (ops.writefs) ops.writefs(m);
        Descriptor device = m.device;
        std::uint32_t point = m.mount_point;
        free_slot(m);
        if (device >= 0) close(device);
        ops_of(dir.mount).mountpoint(mounts[dir.mount], dir.node, value, point);
        return 0;
    }
    return -1;
}

int mkfs(int type, const char* device_path, const void* argument) {
    const FsTypeEntry* fs = fs_type(type);
    if (fs == nullptr || fs->ops->makefs == nullptr) return fail(kErrNoNode);
    Descriptor device = open(device_path, kOpenRead | kOpenWrite);
    if (device < 0) return fail(kErrNoNode);
    if (!(open_files[device].attributes & (kNodeBlockDevice | kNodeCharDevice))) {
        close(device);
        return fail(kErrNoNode);
    }
    int result = fs->ops->makefs(device, argument);
    close(device);
    return result;
}

int flush_mounts() {
    for (int index = 0; index < kMountSlots; ++index) {
        Mount& m = mounts[index];
        if (!in_use(index) || m.device < 0) continue;
        const FsOps& ops = ops_of(index);
        if (ops.writefs) ops.writefs(m);
        if (ops.readfs) ops.readfs(m);
    }
    return 0;
}

} // namespace vukra::kernel
