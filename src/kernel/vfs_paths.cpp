// Path resolution.
//
//   - Every path starts at the root; a path without a leading "/" is read
//     as though it had one (the kernel keeps no working directory here).
//   - Repeated "/" count as one, and a trailing "/" is ignored.
//   - "." is the directory the walk is in; ".." is the directory the walk
//     came from, except at the root of a filesystem (the system's root or
//     any mounted one), where it stays: a path that enters a mount never
//     leaves it, so "/mem/../dev" is "/mem/dev".
//   - A name longer than 255 characters, or a step through a node that is
//     not a directory, leads nowhere.
#include "kernel/kernel_errors.h"
#include "kernel/vfs_internal.h"

#include <cstring>
#include <utility>
#include <vector>

namespace vukra::kernel::detail {

namespace {

bool not_found() {
    fail(kErrNoNode);
    return false;
}

// Splits a path into its names; empty names (repeated or trailing "/") are
// dropped, "." and ".." are left to the walk.
std::vector<std::string> names_of(const char* path) {
    std::vector<std::string> names;
    const char* p = path;
    while (*p) {
        while (*p == '/') ++p;
        const char* start = p;
        while (*p && *p != '/') ++p;
        if (p > start) names.emplace_back(start, static_cast<std::size_t>(p - start));
    }
    return names;
}

bool is_directory(const Location& at) {
    NodeStatus status{};
    const FsOps& ops = ops_of(at.mount);
    return ops.status && ops.status(mounts[at.mount], at.node, status) == 0 && status.kind == kNodeDirectory;
}

// Walks names from the root; the stack holds the directories walked through.
bool walk(const std::vector<std::string>& names, std::size_t count, std::vector<Location>& stack) {
    stack.assign(1, Location{root_mount, 0});
    if (root_mount < 0 || !in_use(root_mount)) return false;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string& name = names[i];
        if (name == ".") continue;
        if (name == "..") {
            if (stack.size() > 1 && stack.back().node != 0) stack.pop_back(); // 0: a filesystem's root
            continue;
        }
        const Location here = stack.back();
        if (name.size() > static_cast<std::size_t>(kNameMax) || !is_directory(here)) return false;
        std::uint32_t value = 0;
        const FsOps& ops = ops_of(here.mount);
        if (!ops.lookup || ops.lookup(mounts[here.mount], here.node, name.c_str(), value) != 0) return false;
        Location next;
        if (!follow_entry(here.mount, value, next)) return false;
        stack.push_back(next);
    }
    return true;
}

} // namespace

bool follow_entry(int mount, std::uint32_t value, Location& where) {
    const std::uint32_t global = mounts[mount].first + value;
    for (int m = 0; m < kMountSlots; ++m) {
        if (!in_use(m)) continue;
        if (global >= mounts[m].first && global - mounts[m].first < mounts[m].count) {
            where = Location{m, global - mounts[m].first};
            return true;
        }
    }
    return false;
}

bool resolve(const char* path, Location& where) {
    if (path == nullptr) return not_found();
    std::vector<Location> stack;
    std::vector<std::string> names = names_of(path);
    if (!walk(names, names.size(), stack)) return not_found();
    where = stack.back();
    return true;
}

bool resolve_parent(const char* path, Location& directory, std::string& name, std::vector<Location>* chain) {
    if (path == nullptr) return not_found();
    std::vector<std::string> names = names_of(path);
    if (names.empty()) return not_found();
    name = names.back();
    if (name == "." || name == ".." || name.size() > static_cast<std::size_t>(kNameMax))
        return not_found();
    std::vector<Location> stack;
    if (!walk(names, names.size() - 1, stack) || !is_directory(stack.back())) return not_found();
    directory = stack.back();
    if (chain) *chain = std::move(stack);
    return true;
}

} // namespace vukra::kernel::detail
