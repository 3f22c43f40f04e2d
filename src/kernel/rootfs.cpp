// "rootfs": the in-memory filesystem mounted on the root at start. It holds
// the directory tree, the device nodes and the small files the start
// writes; nothing of it outlives the process.
#include "kernel/kernel_errors.h"
#include "kernel/vfs.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

namespace vukra::kernel {

namespace {

constexpr std::uint32_t kRootNodes = 256;

struct RootNode {
    std::uint8_t kind = 0; // 0: free
    std::int16_t device = -1;
    std::uint32_t time = 0;
    std::vector<std::uint8_t> bytes;                              // a file's content
    std::vector<std::pair<std::string, std::uint32_t>> entries;   // a directory's, in creation order
};

struct RootFs {
    std::vector<RootNode> nodes = std::vector<RootNode>(kRootNodes);
};

RootFs& fs_of(Mount& m) { return *static_cast<RootFs*>(m.data); }

RootNode* node_at(Mount& m, std::uint32_t n) {
    auto& nodes = fs_of(m).nodes;
    return n < nodes.size() && nodes[n].kind != 0 ? &nodes[n] : nullptr;
}

RootNode* directory_at(Mount& m, std::uint32_t n) {
    RootNode* d = node_at(m, n);
    return d && d->kind == kNodeDirectory ? d : nullptr;
}

auto find_entry(RootNode& dir, const char* name) {
    return std::find_if(dir.entries.begin(), dir.entries.end(), [&](const auto& e) { return e.first == name; });
}

int readfs(Mount& m) {
    if (m.data == nullptr) {
        auto* fs = new RootFs;
        fs->nodes[0].kind = kNodeDirectory;
        fs->nodes[0].time = static_cast<std::uint32_t>(std::time(nullptr));
        m.data = fs;
    }
    m.count = kRootNodes;
    return 0;
}

void drop(Mount& m) {
    delete static_cast<RootFs*>(m.data);
    m.data = nullptr;
}

int lookup(Mount& m, std::uint32_t dir, const char* name, std::uint32_t& value) {
    RootNode* d = directory_at(m, dir);
    if (d == nullptr) return -1;
    auto it = find_entry(*d, name);
    if (it == d->entries.end()) return -1;
    value = it->second;
    return 0;
}

int create(Mount& m, std::uint32_t dir, const char* name, std::uint8_t kind, std::uint32_t& node) {
    RootNode* d = directory_at(m, dir);
    if (d == nullptr || find_entry(*d, name) != d->entries.end()) return -1;
    auto& nodes = fs_of(m).nodes;
    for (std::uint32_t n = 1; n < nodes.size(); ++n) {
        if (nodes[n].kind != 0) continue;
        nodes[n] = RootNode{};
        nodes[n].kind = kind;
        nodes[n].time = static_cast<std::uint32_t>(std::time(nullptr));
        directory_at(m, dir)->entries.emplace_back(name, n);
        node = n;
        return 0;
    }
    return -1;
}

int remove(Mount& m, std::uint32_t dir, const char* name) {
    RootNode* d = directory_at(m, dir);
    if (d == nullptr) return fail(kErrNoNode);
    auto it = find_entry(*d, name);
    if (it == d->entries.end()) return fail(kErrNoNode);
    if (RootNode* target = node_at(m, it->second)) *target = RootNode{};
    d->entries.erase(it);
    return 0;
}

// An existing name "to" is replaced (the switch has refused what cannot
// be): it refers to the moved node, and the node it referred to is freed.
// Within one directory the entry keeps its place.
int rename(Mount& m, std::uint32_t dir, const char* from, std::uint32_t to_dir, const char* to) {
    RootNode* d = directory_at(m, dir);
    RootNode* t = directory_at(m, to_dir);
    if (d == nullptr || t == nullptr) return fail(kErrNoNode);
    auto it = find_entry(*d, from);
    if (it == d->entries.end()) return fail(kErrNoNode);
    const std::uint32_t node = it->second;
    auto there = find_entry(*t, to);
    if (there != t->entries.end()) {
        RootNode* old = node_at(m, there->second);
        there->second = node;
        d->entries.erase(it);
        if (old) *old = RootNode{};
        return 0;
    }
    if (d == t) {
        it->first = to;
        return 0;
    }
    d->entries.erase(it);
    t->entries.emplace_back(to, node);
    return 0;
}

int mountpoint(Mount& m, std::uint32_t dir, std::uint32_t from, std::uint32_t to) {
    RootNode* d = directory_at(m, dir);
    if (d == nullptr) return -1;
    for (auto& entry : d->entries) {
        if (entry.second == from) {
            entry.second = to;
            return 0;
        }
    }
    return -1;
}

int readdir(Mount& m, std::uint32_t dir, std::int32_t& cookie, DirEntry& entry) {
    RootNode* d = directory_at(m, dir);
    if (d == nullptr || cookie < 0) return -1;
    if (static_cast<std::size_t>(cookie) >= d->entries.size()) return 0;
    const auto& e = d->entries[static_cast<std::size_t>(cookie++)];
    std::snprintf(entry.name, sizeof entry.name, "%s", e.first.c_str());
    entry.node = e.second;
    return 1;
}

int set_device(Mount& m, std::uint32_t node, std::int16_t device) {
    RootNode* n = node_at(m, node);
    if (n == nullptr) return -1;
    n->device = device;
    return 0;
}

int status(Mount& m, std::uint32_t node, NodeStatus& s) {
    RootNode* n = node_at(m, node);
    if (n == nullptr) return -1;
    s = NodeStatus{n->kind, static_cast<std::uint32_t>(n->bytes.size()), n->time, n->device, node};
    return 0;
}

int release(Mount&, std::uint32_t) { return 0; }

long read(Mount& m, std::uint32_t node, std::int32_t& position, void* buffer, std::size_t count) {
    RootNode* n = node_at(m, node);
    if (n == nullptr || n->kind != kNodeFile || position < 0) return -1;
    if (static_cast<std::size_t>(position) >= n->bytes.size()) return 0;
    std::size_t take = std::min(count, n->bytes.size() - static_cast<std::size_t>(position));
    std::memcpy(buffer, n->bytes.data() + position, take);
    position += static_cast<std::int32_t>(take);
    return static_cast<long>(take);
}

long write(Mount& m, std::uint32_t node, std::int32_t& position, const void* buffer, std::size_t count) {
    RootNode* n = node_at(m, node);
    if (n == nullptr || n->kind != kNodeFile || position < 0) return -1;
    std::size_t end = static_cast<std::size_t>(position) + count;
    if (n->bytes.size() < end) n->bytes.resize(end, 0);
    std::memcpy(n->bytes.data() + position, buffer, count);
    position += static_cast<std::int32_t>(count);
    return static_cast<long>(count);
}

long seek(Mount& m, std::uint32_t node, std::int32_t& position, long offset, int whence) {
    RootNode* n = node_at(m, node);
    if (n == nullptr) return -1;
    long base = whence == 0 ? 0 : whence == 1 ? position : static_cast<long>(n->bytes.size());
    if (base + offset < 0) return -1;
    position = static_cast<std::int32_t>(base + offset);
    return position;
}

int truncate(Mount& m, std::uint32_t node, std::uint32_t length) {
    RootNode* n = node_at(m, node);
    if (n == nullptr || n->kind != kNodeFile) return -1;
    n->bytes.resize(length, 0);
    return 0;
}

int acquire(Mount& m, std::uint32_t node, NodeStatus& s) { return status(m, node, s); }

int fsstatus(Mount& m, FsStatus& s) {
    std::uint32_t used = 0;
    for (const RootNode& n : fs_of(m).nodes) used += n.kind != 0;
    s = FsStatus{0, 0, 0, kRootNodes, kRootNodes - used};
    return 0;
}

} // namespace

extern const FsOps kRootFsOps;
const FsOps kRootFsOps{
    nullptr, lookup,     nullptr, readfs,  nullptr, remove,   mountpoint, readdir, cookie_telldir, cookie_seekdir, rename,
    set_device, create, acquire, release, read,    write,    seek,       truncate, status,  fsstatus, drop,
};

} // namespace vukra::kernel
