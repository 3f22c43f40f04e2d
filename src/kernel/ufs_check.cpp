// The consistency walk: every node reachable from the root, every block
// they hold, set against the two bitmaps.
#include "kernel/ufs_check.h"

#include "kernel/ufs_files.h"
#include "kernel/vfs.h"

#include <cstring>
#include <vector>

namespace vukra::kernel {

namespace {

bool known_kind(std::uint8_t kind) {
    return kind == kNodeFile || kind == kNodeDirectory || kind == kNodeBlockDevice || kind == kNodeCharDevice ||
           kind == kNodeFifo;
}

} // namespace

bool check_volume(const char* mount_path, CheckReport& report) {
    NodeStatus status{};
    if (kernel::stat(mount_path, status) != 0) return false;
    const Mount* mount = nullptr;
    for (int m = 0; m < kMountSlots; ++m) {
        const Mount* slot = mount_slot(m);
        if (slot && slot->first == status.node && (slot->type == kUfs || slot->type == kUfsx)) mount = slot;
    }
    if (mount == nullptr) return false;
    ufs::Volume& v = *static_cast<ufs::Volume*>(mount->data);
    auto problem = [&](const std::string& text) { report.problems.push_back(text); };

    std::vector<int> block_owner(v.blocks, -1);
    std::vector<bool> reached(v.nodes, false);
    struct Pending {
        std::uint32_t node;
        std::string path;
    };
    std::vector<Pending> pending{{0, "/"}};
    reached[0] = true;
    while (!pending.empty()) {
        Pending at = pending.back();
        pending.pop_back();
        ufs::NodeRecord record;
        if (!ufs::read_node(v, at.node, record)) {
            problem(at.path + ": node " + std::to_string(at.node) + " cannot be read");
            continue;
        }
        if (!ufs::node_used(v, at.node)) problem(at.path + ": node " + std::to_string(at.node) + " is not marked in use");
        if (!known_kind(record.kind)) {
            problem(at.path + ": node " + std::to_string(at.node) + " has no known kind (" +
                    std::to_string(record.kind) + ")");
            continue;
        }
        if (record.size > v.file_limit) problem(at.path + ": size " + std::to_string(record.size) + " past the limit");
        std::vector<std::uint32_t> blocks;
        ufs::blocks_of(v, record, blocks);
        for (std::uint32_t b : blocks) {
            if (b >= v.blocks) {
                problem(at.path + ": block " + std::to_string(b) + " lies outside the volume");
                continue;
            }
            if (block_owner[b] >= 0) {
                problem(at.path + ": block " + std::to_string(b) + " is also held by node " +
                        std::to_string(block_owner[b]));
                continue;
            }
            block_owner[b] = static_cast<int>(at.node);
            ++report.blocks_in_use;
            if (!ufs::block_used(v, b)) problem(at.path + ": block " + std::to_string(b) + " is not marked in use");
        }
        if (record.kind == kNodeFile) ++report.files;
        if (record.kind != kNodeDirectory) {
            if (record.kind != kNodeFile) ++report.others;
            continue;
        }
        ++report.directories;
        std::vector<ufs::DirectoryEntry> entries;
        if (!ufs::read_entries(v, record, entries)) {
            problem(at.path + ": its entries cannot be read");
            continue;
        }
        for (const ufs::DirectoryEntry& e : entries) {
            const std::string path = (at.path == "/" ? "/" : at.path + "/") + e.name;
            if (e.name.find('/') != std::string::npos || std::memchr(e.name.data(), 0, e.name.size()))
                problem(path + ": the name holds '/' or a zero byte");
            if (e.node >= v.nodes) {
                problem(path + ": refers to node " + std::to_string(e.node) + ", outside the volume");
                continue;
            }
            if (reached[e.node]) {
                problem(path + ": node " + std::to_string(e.node) + " is reached a second time");
                continue;
            }
            reached[e.node] = true;
            pending.push_back(Pending{e.node, path});
        }
    }
    for (std::uint32_t b = 0; b < v.blocks; ++b)
        if (ufs::block_used(v, b) && block_owner[b] < 0) problem("block " + std::to_string(b) + " is marked but unused");
    for (std::uint32_t n = 0; n < v.nodes; ++n)
        if (ufs::node_used(v, n) && !reached[n]) problem("node " + std::to_string(n) + " is marked but unreachable");
    return true;
}

} // namespace vukra::kernel
