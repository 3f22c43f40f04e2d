// The ufs and ufsx operation tables: directories and nodes over the
// volume's files. A directory's content is a run of entries, each
//   node (16 bits, little-endian), name length (8 bits), name bytes,
// with nothing between them; a removed entry is taken out of the run.
#include "kernel/kernel_errors.h"
#include "kernel/ufs_files.h"

#include <cstring>
#include <string>
#include <vector>

namespace vukra::kernel::ufs {

namespace {

using Entry = DirectoryEntry;

bool directory_record(Volume& v, std::uint32_t n, NodeRecord& dir) {
    return read_node(v, n, dir) && dir.kind == kNodeDirectory;
}

std::vector<std::uint8_t> encode(const Entry& e) {
    std::vector<std::uint8_t> bytes(3 + e.name.size());
    bytes[0] = static_cast<std::uint8_t>(e.node);
    bytes[1] = static_cast<std::uint8_t>(e.node >> 8);
    bytes[2] = static_cast<std::uint8_t>(e.name.size());
    std::memcpy(bytes.data() + 3, e.name.data(), e.name.size());
    return bytes;
}

bool write_entries(Volume& v, std::uint32_t n, NodeRecord& dir, const std::vector<Entry>& entries) {
    std::vector<std::uint8_t> bytes;
    for (const Entry& e : entries) {
        std::vector<std::uint8_t> one = encode(e);
        const std::size_t at = bytes.size();
        bytes.resize(at + one.size());
        std::memcpy(bytes.data() + at, one.data(), one.size());
    }
    if (!bytes.empty() && write_bytes(v, n, dir, 0, bytes.data(), bytes.size()) != static_cast<long>(bytes.size()))
        return false;
    return truncate_node(v, n, dir, static_cast<std::uint32_t>(bytes.size()));
}

const Entry* find(const std::vector<Entry>& entries, const char* name) {
    for (const Entry& e : entries)
        if (e.name == name) return &e;
    return nullptr;
}

bool append_entry(Volume& v, std::uint32_t n, NodeRecord& dir, const Entry& e) {
    std::vector<std::uint8_t> bytes = encode(e);
    return write_bytes(v, n, dir, dir.size, bytes.data(), bytes.size()) == static_cast<long>(bytes.size());
}

int lookup(Mount& m, std::uint32_t dir, const char* name, std::uint32_t& value) {
    Volume& v = volume_of(m);
    NodeRecord record;
    std::vector<Entry> entries;
    if (!directory_record(v, dir, record) || !read_entries(v, record, entries)) return -1;
    const Entry* e = find(entries, name);
    if (e == nullptr) return -1;
    value = e->node;
    return 0;
}

int create(Mount& m, std::uint32_t dir, const char* name, std::uint8_t kind, std::uint32_t& node) {
    Volume& v = volume_of(m);
    NodeRecord record;
    std::vector<Entry> entries;
    const std::size_t length = std::strlen(name);
    if (length == 0 || length > 255) return -1;
    if (!directory_record(v, dir, record) || !read_entries(v, record, entries) || find(entries, name)) return -1;
    long made = allocate_node(v);
    if (made < 0) return -1;
    NodeRecord fresh;
    fresh.kind = kind;
    fresh.time = seconds_now();
    if (!write_node(v, static_cast<std::uint32_t>(made), fresh) ||
        !append_entry(v, dir, record, Entry{static_cast<std::uint16_t>(made), name, 0})) {
        set_node(v, static_cast<std::uint32_t>(made), false);
        return -1;
    }
    node = static_cast<std::uint32_t>(made);
    return 0;
}

int remove(Mount& m, std::uint32_t dir, const char* name) {
    Volume& v = volume_of(m);
    NodeRecord record;
    std::vector<Entry> entries;
    if (!directory_record(v, dir, record) || !read_entries(v, record, entries)) return fail(kErrNoNode);
    const Entry* e = find(entries, name);
    if (e == nullptr) return fail(kErrNoNode);
    NodeRecord target;
    if (read_node(v, e->node, target)) {
        std::vector<Entry> inside;
        if (target.kind == kNodeDirectory && read_entries(v, target, inside) && !inside.empty())
            return fail(kErrExists);
        truncate_node(v, e->node, target, 0);
        write_node(v, e->node, NodeRecord{});
        set_node(v, e->node, false);
    }
    entries.erase(entries.begin() + (e - entries.data()));
    return write_entries(v, dir, record, entries) ? 0 : -1;
}

int rename(Mount& m, std::uint32_t dir, const char* from, std::uint32_t to_dir, const char* to) {
    Volume& v = volume_of(m);
    const std::size_t length = std::strlen(to);
    if (length == 0 || length > 255) return fail(kErrNoNode);
    NodeRecord source, target;
    std::vector<Entry> source_entries, target_entries;
    if (!directory_record(v, dir, source) || !read_entries(v, source, source_entries)) return fail(kErrNoNode);
    const Entry* e = find(source_entries, from);
    if (e == nullptr) return fail(kErrNoNode);
    const std::uint16_t node = e->node;
    if (dir == to_dir) {
        if (find(source_entries, to)) return fail(kErrExists);
        source_entries[static_cast<std::size_t>(e - source_entries.data())].name = to;
        return write_entries(v, dir, source, source_entries) ? 0 : -1;
    }
    if (!directory_record(v, to_dir, target) || !read_entries(v, target, target_entries)) return fail(kErrNoNode);
    if (find(target_entries, to)) return fail(kErrExists);
    if (!append_entry(v, to_dir, target, Entry{node, to, 0})) return -1;
    source_entries.erase(source_entries.begin() + (e - source_entries.data()));
    return write_entries(v, dir, source, source_entries) ? 0 : -1;
}

int mountpoint(Mount& m, std::uint32_t dir, std::uint32_t from, std::uint32_t to) {
    Volume& v = volume_of(m);
    NodeRecord record;
    std::vector<Entry> entries;
    if (to > 0xFFFF || !directory_record(v, dir, record) || !read_entries(v, record, entries)) return -1;
    for (const Entry& e : entries) {
        if (e.node != from) continue;
        const std::uint8_t bytes[2] = {static_cast<std::uint8_t>(to), static_cast<std::uint8_t>(to >> 8)};
        return write_bytes(v, dir, record, e.offset, bytes, 2) == 2 ? 0 : -1;
    }
    return -1;
}

int readdir(Mount& m, std::uint32_t dir, std::int32_t& cookie, DirEntry& out) {
    Volume& v = volume_of(m);
    NodeRecord record;
    std::vector<Entry> entries;
    if (!directory_record(v, dir, record) || !read_entries(v, record, entries)) return -1;
    for (const Entry& e : entries) {
        if (static_cast<std::int32_t>(e.offset) < cookie) continue;
        out.node = e.node;
        std::snprintf(out.name, sizeof out.name, "%s", e.name.c_str());
        cookie = static_cast<std::int32_t>(e.offset + 3 + e.name.size());
        return 1;
    }
    return 0;
}

int set_device(Mount& m, std::uint32_t n, std::int16_t device) {
    Volume& v = volume_of(m);
    NodeRecord record;
    if (!read_node(v, n, record)) return -1;
    record.device = static_cast<std::uint16_t>(device);
    return write_node(v, n, record) ? 0 : -1;
}

int status(Mount& m, std::uint32_t n, NodeStatus& s) {
    Volume& v = volume_of(m);
    NodeRecord record;
    if (!read_node(v, n, record) || record.kind == 0) return -1;
    s = NodeStatus{record.kind, record.size, record.time, static_cast<std::int16_t>(record.device), n};
    return 0;
}

int release_node(Mount&, std::uint32_t) { return 0; }

long read(Mount& m, std::uint32_t n, std::int32_t& position, void* buffer, std::size_t count) {
    Volume& v = volume_of(m);
    NodeRecord record;
    if (position < 0 || !read_node(v, n, record)) return -1;
    long got = read_bytes(v, record, static_cast<std::uint32_t>(position), buffer, count);
    if (got > 0) position += static_cast<std::int32_t>(got);
    return got;
}

long write(Mount& m, std::uint32_t n, std::int32_t& position, const void* buffer, std::size_t count) {
    Volume& v = volume_of(m);
    NodeRecord record;
    if (position < 0 || !read_node(v, n, record)) return -1;
    long put = write_bytes(v, n, record, static_cast<std::uint32_t>(position), buffer, count);
    if (put > 0) position += static_cast<std::int32_t>(put);
    return put;
}

long seek(Mount& m, std::uint32_t n, std::int32_t& position, long offset, int whence) {
    Volume& v = volume_of(m);
    NodeRecord record;
    if (!read_node(v, n, record)) return -1;
    long base = whence == 0 ? 0 : whence == 1 ? position : static_cast<long>(record.size);
    if (base + offset < 0 || static_cast<std::uint64_t>(base + offset) > v.file_limit) return -1;
    position = static_cast<std::int32_t>(base + offset);
    return position;
}

int truncate(Mount& m, std::uint32_t n, std::uint32_t length) {
    Volume& v = volume_of(m);
    NodeRecord record;
    if (!read_node(v, n, record) || length > v.file_limit) return -1;
    return truncate_node(v, n, record, length) ? 0 : -1;
}

} // namespace

} // namespace vukra::kernel::ufs

namespace vukra::kernel {

// ufsx is the variant the "/mem" copy is mounted with; it shares the
// format and, in this build, every operation.
extern const FsOps kUfsOps;
extern const FsOps kUfsxOps;
const FsOps kUfsOps{
    nullptr,          ufs::lookup,  ufs::makefs, ufs::readfs,       ufs::writefs, ufs::remove,
    ufs::mountpoint,  ufs::readdir, cookie_telldir, cookie_seekdir,     ufs::rename,  ufs::set_device,
    ufs::create,      ufs::status,  ufs::release_node, ufs::read,   ufs::write,   ufs::seek,
    ufs::truncate,    ufs::status,  ufs::fsstatus, ufs::drop,
};
const FsOps kUfsxOps = kUfsOps;

} // namespace vukra::kernel
