#include "commands.h"

#include "../common/paths.h"

#include "kernel/kernel_errors.h"
#include "kernel/ufs_check.h"
#include "kernel/vfs.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

namespace vukra::ufs_tool {

using namespace vukra::kernel;
namespace fs = std::filesystem;
using tools::joined;
using tools::parent_of;

namespace {

constexpr std::size_t kChunk = 8192;

bool status_of(const std::string& plain, NodeStatus& s) { return kernel::stat(kernel_path(plain).c_str(), s) == 0; }

// The root cannot be made, removed, moved or written over.
// A name longer than a directory entry holds is refused for what it is,
// not taken for a full volume when the kernel cannot make it.
bool names_something(const std::string& plain, const std::string& user_path) {
    if (plain == "/") {
        fail("\"" + user_path + "\" is the volume's root; a name within it is needed");
        return false;
    }
    const std::size_t last = plain.rfind('/') + 1;
    if (plain.size() - last > static_cast<std::size_t>(kNameMax)) {
        fail("the name " + plain.substr(last, 16) + "... holds " + std::to_string(plain.size() - last) +
             " bytes; a name in the volume holds at most " + std::to_string(kNameMax));
        return false;
    }
    return true;
}

// A node of status s is a regular file, or a message tells what it is instead.
bool regular_file(const std::string& plain, const NodeStatus& s) {
    if (s.kind == kNodeDirectory) return fail(plain + " is a directory") == 0;
    if (s.kind != kNodeFile) return fail(plain + " is not a regular file") == 0;
    return true;
}

bool need_file(const std::string& plain, NodeStatus& s) {
    return status_of(plain, s) ? regular_file(plain, s) : fail("no file " + plain) == 0;
}

bool need_directory(const std::string& plain) {
    NodeStatus s{};
    if (!status_of(plain, s)) return fail("no directory " + plain) == 0;
    if (s.kind != kNodeDirectory) return fail(plain + " is not a directory") == 0;
    return true;
}

// The directory a new name goes in must be there.
bool need_parent(const std::string& plain) { return need_directory(parent_of(plain)); }

std::string kind_letter(std::uint8_t kind) {
    switch (kind) {
    case kNodeDirectory: return "d";
    case kNodeFile: return "-";
    case kNodeCharDevice: return "c";
    case kNodeBlockDevice: return "b";
    default: return "?";
    }
}

// The whole file to out; false (with a message) when the volume or out fails.
bool copy_out(const std::string& plain, std::FILE* out, const std::string& out_name) {
    Descriptor fd = kernel::open(kernel_path(plain).c_str(), kOpenRead);
    if (fd < 0) return fail("cannot open " + plain) == 0;
    std::vector<char> buffer(kChunk);
    long n;
    bool ok = true;
    while ((n = kernel::read(fd, buffer.data(), buffer.size())) > 0) {
        if (std::fwrite(buffer.data(), 1, static_cast<std::size_t>(n), out) != static_cast<std::size_t>(n)) {
            ok = fail("cannot write " + out_name) == 0;
            break;
        }
    }
    kernel::close(fd);
    if (ok && n < 0) ok = fail(plain + " cannot be read whole") == 0;
    if (ok && std::fflush(out) != 0) ok = fail("cannot write " + out_name) == 0;
    return ok;
}

// Blocks a file of size bytes takes, its blocks of block numbers included.
std::uint64_t blocks_for(std::uint64_t size, std::uint64_t b) {
    const std::uint64_t per = b / 2;
    const std::uint64_t n = (size + b - 1) / b;
    std::uint64_t blocks = n;
    if (n > 1) blocks += 1;
    if (n > 1 + per) blocks += 1 + (n - 1 - per + per - 1) / per;
    return blocks;
}

// The host file's bytes into the volume file fd; false on any shortfall.
bool copy_in(std::ifstream& in, Descriptor fd) {
    std::vector<char> buffer(kChunk);
    while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || in.gcount() > 0) {
        const long want = static_cast<long>(in.gcount());
        if (kernel::write(fd, buffer.data(), static_cast<std::size_t>(want)) != want) return false;
    }
    return !in.bad();
}

} // namespace

int fail(const std::string& why) {
    std::fprintf(stderr, "vukra-ufs: %s\n", why.c_str());
    return 1;
}

std::string volume_path(const std::string& user_path) {
    std::vector<std::string> names;
    std::size_t at = 0;
    while (at <= user_path.size()) {
        std::size_t slash = user_path.find('/', at);
        if (slash == std::string::npos) slash = user_path.size();
        const std::string name = user_path.substr(at, slash - at);
        if (name == "..") {
            if (!names.empty()) names.pop_back();
        } else if (!name.empty() && name != ".") {
            names.push_back(name);
        }
        at = slash + 1;
    }
    std::string plain;
    for (const std::string& name : names) plain += "/" + name;
    return plain.empty() ? "/" : plain;
}

std::string kernel_path(const std::string& plain) { return plain == "/" ? "/mem" : "/mem" + plain; }

int list(const std::string& path, bool long_form) {
    const std::string plain = volume_path(path);
    if (!need_directory(plain)) return 1;
    Descriptor fd = kernel::open(kernel_path(plain).c_str(), kOpenRead);
    if (fd < 0) return fail("cannot open " + plain);
    DirEntry entry{};
    NodeStatus s{};
    int got;
    while ((got = kernel::readdir(fd, entry)) == 1) {
        if (!long_form) {
            std::printf("%s\n", entry.name);
        } else if (kernel::node_status(entry.node, s) == 0) {
            std::printf("%s %10u %s\n", kind_letter(s.kind).c_str(), s.size, entry.name);
        } else {
            std::printf("? %10s %s\n", "?", entry.name);
        }
    }
    kernel::close(fd);
    if (got < 0) return fail(plain + " cannot be read whole");
    return std::fflush(stdout) == 0 ? 0 : fail("cannot write standard output");
}

namespace {

void tree_below(const std::string& path, int depth) {
    Descriptor fd = kernel::open(kernel_path(path).c_str(), kOpenRead);
    if (fd < 0 || depth > 64) return;
    DirEntry entry{};
    std::vector<DirEntry> entries;
    while (kernel::readdir(fd, entry) == 1) entries.push_back(entry);
    kernel::close(fd);
    for (const DirEntry& e : entries) {
        NodeStatus s{};
        const bool directory = kernel::node_status(e.node, s) == 0 && s.kind == kNodeDirectory;
        std::printf("%*s%s%s\n", 2 * depth, "", e.name, directory ? "/" : "");
        if (directory) tree_below(joined(path, e.name), depth + 1);
    }
}

} // namespace

int tree() {
    std::printf("/\n");
    tree_below("/", 1);
    return std::fflush(stdout) == 0 ? 0 : fail("cannot write standard output");
}

int cat(const std::string& path) {
    const std::string plain = volume_path(path);
    NodeStatus s{};
    if (!need_file(plain, s)) return 1;
    return copy_out(plain, stdout, "standard output") ? 0 : 1;
}

int get(const std::string& path, const std::string& local) {
    const std::string plain = volume_path(path);
    NodeStatus s{};
    if (!need_file(plain, s)) return 1;
    if (local == "-") return copy_out(plain, stdout, "standard output") ? 0 : 1;
    std::error_code e;
    fs::path target = local;
    if (fs::is_symlink(fs::symlink_status(target, e))) {
        target = fs::canonical(target, e); // write where the link leads
        if (e) return fail("cannot follow " + local);
    }
    if (fs::is_directory(target, e)) return fail(local + " is a directory");
    if (fs::exists(target, e) && !fs::is_regular_file(target, e)) return fail(local + " is not a regular file");
    // A temporary file beside the target, renamed over it once complete.
    fs::path temporary;
    std::FILE* out = nullptr;
    for (int n = 0; out == nullptr && n < 100; ++n) {
        temporary = target.parent_path() / ("." + target.filename().string() + ".vukra-ufs-" + std::to_string(n));
        out = std::fopen(temporary.c_str(), "wbx");
    }
    if (out == nullptr) return fail("cannot write in " + target.parent_path().string());
    bool ok = copy_out(plain, out, temporary.string());
    ok = std::fclose(out) == 0 && ok;
    if (ok && fs::exists(target, e)) fs::permissions(temporary, fs::status(target, e).permissions(), e);
    if (ok) fs::rename(temporary, target, e);
    if (!ok || e) {
        fs::remove(temporary, e);
        return ok ? fail("cannot replace " + local) : 1;
    }
    return 0;
}

int put(const std::string& local, const std::string& path) {
    const std::string plain = volume_path(path);
    if (!names_something(plain, path)) return 1;
    std::error_code e;
    if (!fs::exists(local, e)) return fail("no file " + local);
    if (!fs::is_regular_file(local, e)) return fail(local + " is not a regular file");
    std::ifstream in(local, std::ios::binary);
    if (!in) return fail("cannot read " + local);
    const std::uint64_t size = fs::file_size(local, e);
    if (e) return fail("cannot read " + local);

    NodeStatus s{};
    if (status_of(plain, s) ? !regular_file(plain, s) : !need_parent(plain)) return 1;
    // What cannot fit is refused before anything is written. The old file
    // stays until the new one is complete, so the room must hold both.
    FsStatus room{};
    if (kernel::fsstat("/mem", room) != 0) return fail("cannot read the volume's sizes");
    const std::uint64_t b = room.block_size;
    const std::uint64_t limit = b + b * b / 2 + b * b * b / 4;
    if (size > limit)
        return fail(local + " holds " + std::to_string(size) + " bytes; a file of this volume holds at most " +
                    std::to_string(limit));
    const std::uint64_t needed = blocks_for(size, b);
    if (needed > room.free_blocks)
        return fail(local + " needs " + std::to_string(needed) + " blocks; the volume has " +
                    std::to_string(room.free_blocks) + " free");
    if (room.free_nodes == 0) return fail("the volume has no free node left");

    std::string temporary;
    Descriptor fd = -1;
    for (int n = 0; fd < 0 && n < 100; ++n) {
        temporary = joined(parent_of(plain), ".vukra-ufs-put-" + std::to_string(n));
        fd = kernel::open(kernel_path(temporary).c_str(), kOpenWrite | kOpenCreate | kOpenExclusive);
    }
    if (fd < 0) return fail("cannot make a file in " + parent_of(plain) + " (the volume is full)");
    const bool written = copy_in(in, fd);
    kernel::close(fd);
    if (!written) {
        kernel::remove(kernel_path(temporary).c_str());
        return fail(in.bad() ? "cannot read " + local : "the volume is full");
    }
    if (kernel::rename(kernel_path(temporary).c_str(), kernel_path(plain).c_str()) != 0) {
        kernel::remove(kernel_path(temporary).c_str());
        return fail("cannot replace " + plain);
    }
    return 0;
}

int make_directory(const std::string& path) {
    const std::string plain = volume_path(path);
    if (!names_something(plain, path)) return 1;
    NodeStatus s{};
    if (status_of(plain, s)) return fail(plain + " exists");
    if (!need_parent(plain)) return 1;
    return kernel::mkdir(kernel_path(plain).c_str()) == 0 ? 0 : fail("cannot make " + plain + " (the volume is full)");
}

int remove(const std::string& path) {
    const std::string plain = volume_path(path);
    if (!names_something(plain, path)) return 1;
    NodeStatus s{};
    if (!status_of(plain, s)) return fail("no file or directory " + plain);
    clear_kernel_error();
    if (kernel::remove(kernel_path(plain).c_str()) == 0) return 0;
    return fail(kernel_error() == kErrExists ? plain + " is a directory that is not empty" : "cannot remove " + plain);
}

int move(const std::string& from, const std::string& to) {
    const std::string old_plain = volume_path(from), new_plain = volume_path(to);
    if (!names_something(old_plain, from) || !names_something(new_plain, to)) return 1;
    NodeStatus s{};
    if (!status_of(old_plain, s)) return fail("no file or directory " + old_plain);
    if (!need_parent(new_plain)) return 1;
    clear_kernel_error();
    if (kernel::rename(kernel_path(old_plain).c_str(), kernel_path(new_plain).c_str()) == 0) return 0;
    switch (kernel_error()) {
    case kErrInvalid: return fail("cannot move " + old_plain + " into itself (" + new_plain + ")");
    case kErrNotDirectory: return fail(new_plain + " exists and is not a directory");
    case kErrExists:
        return fail(new_plain + " exists and cannot be replaced by " + old_plain +
                    " (a directory that is not empty, or another kind of node)");
    default: return fail("cannot move " + old_plain + " to " + new_plain);
    }
}

int disk_free() {
    FsStatus s{};
    if (kernel::fsstat("/mem", s) != 0) return fail("cannot read the volume's sizes");
    std::printf("block size %u\nblocks %u used, %u free of %u\nnodes %u used, %u free of %u\n", s.block_size,
                s.blocks - s.free_blocks, s.free_blocks, s.blocks, s.nodes - s.free_nodes, s.free_nodes, s.nodes);
    return std::fflush(stdout) == 0 ? 0 : fail("cannot write standard output");
}

int check() {
    CheckReport report;
    if (!check_volume("/mem", report)) return fail("cannot walk the volume");
    for (const std::string& p : report.problems) std::printf("%s\n", p.c_str());
    std::printf("%u directories, %u files, %u other nodes, %u blocks in use: %s\n", report.directories,
                report.files, report.others, report.blocks_in_use,
                report.problems.empty() ? "consistent" : "INCONSISTENT");
    if (std::fflush(stdout) != 0) return fail("cannot write standard output");
    return report.problems.empty() ? 0 : 1;
}

} // namespace vukra::ufs_tool
