// The ufs and ufsx operation tables: directories and nodes over the
// volume's files. A directory's content is a run of entries, each
//   node (16 bits, little-endian), name length (8 bits), name bytes,
// with nothing between them; a removed entry is taken out of the run.
#include "kernel/kernel_errors.h"
#include "kernel/ufs_files.h"

#include <algorithm>
#include <cstdio>
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

// The name index of directory n (see Volume::NameIndex).
Volume::NameIndex* index_of(Volume& v, std::uint32_t n, NodeRecord& record) {
    if (!directory_record(v, n, record)) return nullptr;
    Volume::NameIndex* index = &v.names[0];
    for (Volume::NameIndex& at : v.names) {
        if (at.dir == n) {
            index = &at;
            break;
        }
        if (at.used < index->used) index = &at;
    }
    index->used = ++v.name_uses;
    if (index->dir == n && index->size == record.size) return index;
    std::vector<Entry> entries;
    *index = Volume::NameIndex{};
    if (!read_entries(v, record, entries)) return nullptr;
    for (const Entry& e : entries) index->nodes.emplace(e.name, e.node); // the first of a name wins, as in find
    index->dir = n;
    index->size = record.size;
    index->used = v.name_uses;
    return index;
}

void drop_index(Volume& v) { v.names = {}; }

int lookup(Mount& m, std::uint32_t dir, const char* name, std::uint32_t& value) {
    Volume& v = volume_of(m);
    NodeRecord record;
    const Volume::NameIndex* index = index_of(v, dir, record);
    if (index == nullptr) return -1;
    auto it = index->nodes.find(name);
    if (it == index->nodes.end()) return -1;
    value = it->second;
    return 0;
}

int create(Mount& m, std::uint32_t dir, const char* name, std::uint8_t kind, std::uint32_t& node) {
    Volume& v = volume_of(m);
    NodeRecord record;
    const std::size_t length = std::strlen(name);
    if (length == 0 || length > 255) return -1;
    Volume::NameIndex* index = index_of(v, dir, record);
    if (index == nullptr || index->nodes.count(name) != 0) return -1;
    long made = allocate_node(v);
    if (made < 0) return -1;
    NodeRecord fresh;
    fresh.kind = kind;
    fresh.time = seconds_now();
    if (!write_node(v, static_cast<std::uint32_t>(made), fresh) ||
        !append_entry(v, dir, record, Entry{static_cast<std::uint16_t>(made), name, 0})) {
        set_node(v, static_cast<std::uint32_t>(made), false);
        drop_index(v);
        return -1;
    }
    index->nodes.emplace(name, static_cast<std::uint16_t>(made));
    index->size = record.size;
    node = static_cast<std::uint32_t>(made);
    return 0;
}

// A node no entry refers to any more: its blocks, its record and its bit.
void free_node(Volume& v, std::uint32_t n) {
    NodeRecord target;
    if (!read_node(v, n, target)) return;
    truncate_node(v, n, target, 0);
    write_node(v, n, NodeRecord{});
    set_node(v, n, false);
}

// Makes the entry at offset in directory n refer to node, in one write.
bool set_entry_node(Volume& v, std::uint32_t n, NodeRecord& dir, std::uint32_t offset, std::uint32_t node) {
    const std::uint8_t bytes[2] = {static_cast<std::uint8_t>(node), static_cast<std::uint8_t>(node >> 8)};
    return write_bytes(v, n, dir, offset, bytes, 2) == 2;
}

int remove(Mount& m, std::uint32_t dir, const char* name) {
    Volume& v = volume_of(m);
    drop_index(v);
    NodeRecord record;
    std::vector<Entry> entries;
    if (!directory_record(v, dir, record) || !read_entries(v, record, entries)) return fail(kErrNoNode);
    const Entry* e = find(entries, name);
    if (e == nullptr) return fail(kErrNoNode);
    const std::uint16_t node = e->node;
    entries.erase(entries.begin() + (e - entries.data()));
    if (!write_entries(v, dir, record, entries)) return -1;
    free_node(v, node);
    return 0;
}

// An existing name "to" is replaced (the switch has refused what cannot
// be): its entry is made to refer to the moved node in one write, then the
// node it referred to is freed. When the second directory cannot be
// written, the first is put back as it was.
int rename(Mount& m, std::uint32_t dir, const char* from, std::uint32_t to_dir, const char* to) {
    Volume& v = volume_of(m);
    drop_index(v);
    const std::size_t length = std::strlen(to);
    if (length == 0 || length > 255) return fail(kErrNoNode);
    NodeRecord source, target;
    std::vector<Entry> source_entries, target_entries;
    if (!directory_record(v, dir, source) || !read_entries(v, source, source_entries)) return fail(kErrNoNode);
    const Entry* e = find(source_entries, from);
    if (e == nullptr) return fail(kErrNoNode);
    const std::uint16_t node = e->node;
    const auto moving = source_entries.begin() + (e - source_entries.data());
    if (dir == to_dir) {
        const Entry* there = find(source_entries, to);
        moving->name = to;
        const long replaced = there != nullptr ? there->node : -1;
        if (there != nullptr) source_entries.erase(source_entries.begin() + (there - source_entries.data()));
        if (!write_entries(v, dir, source, source_entries)) return -1;
        if (replaced >= 0) free_node(v, static_cast<std::uint32_t>(replaced));
        return 0;
    }
    if (!directory_record(v, to_dir, target) || !read_entries(v, target, target_entries)) return fail(kErrNoNode);
    const Entry* there = find(target_entries, to);
    const std::uint32_t target_size = target.size;
    // Puts the second directory back as it was.
    auto undo = [&] {
        if (there != nullptr)
            set_entry_node(v, to_dir, target, there->offset, there->node);
        else
            truncate_node(v, to_dir, target, target_size);
        return -1;
    };
    const bool added = there != nullptr ? set_entry_node(v, to_dir, target, there->offset, node)
                                        : append_entry(v, to_dir, target, Entry{node, to, 0});
    if (!added) return undo();
    source_entries.erase(moving);
    if (!write_entries(v, dir, source, source_entries)) return undo();
    if (there != nullptr) free_node(v, there->node);
    return 0;
}

int mountpoint(Mount& m, std::uint32_t dir, std::uint32_t from, std::uint32_t to) {
    Volume& v = volume_of(m);
    drop_index(v);
    NodeRecord record;
    std::vector<Entry> entries;
    if (to > 0xFFFF || !directory_record(v, dir, record) || !read_entries(v, record, entries)) return -1;
    for (const Entry& e : entries) {
        if (e.node != from) continue;
        return set_entry_node(v, dir, record, e.offset, to) ? 0 : -1;
    }
    return -1;
}

// A directory position (readdir's cookie) is the byte offset of the next
// entry in the directory's content (below 2^20) with, in the 11 bits above
// it, a check of that entry's name. Reading from a position whose check
// matches reads that one entry: a directory is listed in time linear in its
// size, page after page from told positions included. When the check no
// longer matches (entries before it were removed or renamed since), the
// listing resumes at the entry of that check nearest the offset, found from
// the start: the entry the position named, moved. A position without a
// check (0, the start, or a number a caller made up), or whose entry is
// gone, resumes at the first entry that starts at or after the offset.
constexpr unsigned kOffsetBits = 20;
static_assert(kMaxDirectoryBytes <= 1u << kOffsetBits);
constexpr std::uint32_t kOffsetMask = (1u << kOffsetBits) - 1;

std::int32_t position_of(const Entry& e) {
    std::uint32_t hash = 2166136261u; // FNV-1a, folded to 11 bits; 0 is kept for "no check"
    for (char c : e.name) hash = (hash ^ static_cast<std::uint8_t>(c)) * 16777619u;
    std::uint32_t check = (hash ^ hash >> 11 ^ hash >> 22) & 0x7FF;
    if (check == 0) check = 1;
    return static_cast<std::int32_t>(check << kOffsetBits | e.offset);
}

// The entry starting at offset and the one after it, from one read; false
// when no whole entry starts there.
bool entry_at(Volume& v, NodeRecord& dir, std::uint32_t offset, std::uint32_t end, Entry& here, Entry& next,
              bool& has_next) {
    std::uint8_t bytes[2 * (3 + 255)];
    const std::size_t want = std::min<std::size_t>(sizeof bytes, end - offset);
    if (read_bytes(v, dir, offset, bytes, want) != static_cast<long>(want)) return false;
    if (!decode_entry(bytes, want, 0, offset, here)) return false;
    has_next = decode_entry(bytes, want, 3 + here.name.size(), offset, next);
    return true;
}

int readdir(Mount& m, std::uint32_t dir, std::int32_t& cookie, DirEntry& out) {
    Volume& v = volume_of(m);
    NodeRecord record;
    if (cookie < 0 || !directory_record(v, dir, record)) return -1;
    const std::uint32_t end = std::min(record.size, kMaxDirectoryBytes);
    const std::uint32_t offset = static_cast<std::uint32_t>(cookie) & kOffsetMask;
    const std::uint32_t check = static_cast<std::uint32_t>(cookie) >> kOffsetBits;
    if (offset >= end) return 0;
    Entry here, next;
    bool has_next = false;
    bool found = entry_at(v, record, offset, end, here, next, has_next) &&
                 (position_of(here) == cookie || (offset == 0 && check == 0));
    if (!found) {
        std::vector<Entry> entries;
        if (!read_entries(v, record, entries)) return -1;
        // The entry the position named, moved by changes before it; else the first from the offset on.
        auto it = entries.end();
        std::uint32_t distance = 0xFFFFFFFF;
        for (auto e = entries.begin(); check != 0 && e != entries.end(); ++e) {
            const std::uint32_t d = e->offset > offset ? e->offset - offset : offset - e->offset;
            if (static_cast<std::uint32_t>(position_of(*e)) >> kOffsetBits == check && d < distance) {
                it = e;
                distance = d;
            }
        }
        if (it == entries.end())
            it = std::find_if(entries.begin(), entries.end(), [&](const Entry& e) { return e.offset >= offset; });
        if (it == entries.end()) return 0;
        here = *it;
        has_next = it + 1 != entries.end();
        if (has_next) next = it[1];
    }
    out.node = here.node;
    std::snprintf(out.name, sizeof out.name, "%s", here.name.c_str());
    // Behind the last entry: the end of the run, without a check.
    cookie = has_next ? position_of(next) : static_cast<std::int32_t>(here.offset + 3 + here.name.size());
    return 1;
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
