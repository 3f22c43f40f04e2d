// The operations on the current handle: read, write and readdir through
// the transport; seek, seekdir and telldir on the session alone.
#include "remotefs/file_operations.h"
#include "remotefs/transport.h"

#include <algorithm>
#include <cstring>

namespace vukra::remotefs {

namespace {

// Counts below 0 ask for nothing; above kMaxTransfer, for kMaxTransfer.
std::uint32_t clamp_count(std::int32_t count) {
    return count <= 0 ? 0 : std::min(static_cast<std::uint32_t>(count), kMaxTransfer);
}

std::int32_t advanced(std::int32_t position, std::uint32_t by) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(position) + by);
}

// The decoded list goes back to the heap whatever happens to the reply.
struct NodesOf {
    ReaddirReply& reply;
    ~NodesOf() { free_nodes(reply.entries); }
};

// Copies the decoded nodes into listing entries the host frees; false
// (nothing handed over) when memory runs out.
bool to_listing(const DirEntryNode* node, modbus_vukra_dir_entry** first) {
    modbus_vukra_dir_entry* head = nullptr;
    modbus_vukra_dir_entry** link = &head;
    for (; node != nullptr; node = node->next) {
        auto* entry = static_cast<modbus_vukra_dir_entry*>(platform::host_alloc(sizeof(modbus_vukra_dir_entry)));
        if (entry == nullptr) {
            while (head != nullptr) {
                modbus_vukra_dir_entry* next = head->next;
                platform::host_free(head);
                head = next;
            }
            return false;
        }
        // The decoder guarantees the name's NUL within its item.
        if (node->name != nullptr) {
            const std::size_t length = std::min<std::size_t>(std::strlen(node->name), kEntryNameSize - 1);
            std::memcpy(entry->name, node->name, length);
        }
        *link = entry;
        link = &entry->next;
    }
    *first = head;
    return true;
}

} // namespace

std::int32_t read(session::Session& s, void* buffer, std::int32_t count) {
    session::Session& t = routed(s);
    const std::uint32_t asked = clamp_count(count);
    const ReadRequest request{t.volume, current_handle(t), t.position, asked};
    Exclusive exclusive; // the reply's data lies in the shared reply buffer
    ReadReply reply;
    const std::int32_t filled = exchange(t, kOpRead, request, reply);
    if (filled < 0) return -1;
    // The status item carries the sender's low status byte as its fourth
    // byte, where this record's status word begins.
    s.error = reply.status;
    if (reply.status != 0) return -1;
    // The reply's own count says how much came; never more than was asked
    // for or than the data item holds.
    std::uint32_t got = std::min(reply.count, asked);
    if (reply.data.data == nullptr) got = 0;
    got = std::min(got, static_cast<std::uint32_t>(std::max(reply.data.length, 0)));
    if (filled > 0 && got > 0) {
        if (buffer == nullptr) return -1;
        std::memcpy(buffer, reply.data.data, got);
    }
    t.position = advanced(t.position, got);
    return static_cast<std::int32_t>(got);
}

std::int32_t write(session::Session& s, const void* buffer, std::int32_t count) {
    session::Session& t = routed(s);
    const std::uint32_t n = clamp_count(count);
    const WriteRequest request{t.volume, current_handle(t), t.position, n,
                               WireBuffer{static_cast<std::int32_t>(n), static_cast<const std::uint8_t*>(buffer)}};
    WriteReply reply;
    if (exchange(t, kOpWrite, request, reply, n) < 0) return -1;
    s.error = reply.status;
    if (reply.status != 0) return -1;
    t.position = advanced(t.position, reply.count);
    return static_cast<std::int32_t>(reply.count);
}

std::int32_t readdir(session::Session& s, modbus_vukra_dir_entry** first) {
    if (first != nullptr) *first = nullptr;
    session::Session& t = routed(s);
    const ReaddirRequest request{t.volume, current_handle(t), t.position, kReaddirCount};
    Exclusive exclusive; // the names lie in the shared reply buffer
    ReaddirReply reply{};
    NodesOf nodes{reply};
    if (exchange(t, kOpReaddir, request, reply) < 0) return -1;
    s.error = reply.status;
    if (reply.status != 0) return -1;
    if (first != nullptr && !to_listing(reply.entries, first)) return -1;
    t.position = reply.cookie;
    return reply.eof;
}

std::int32_t seek(session::Session& s, std::uint32_t offset, std::int32_t whence) {
    session::Session& t = routed(s);
    if (t.file_descriptor < 0) {
        s.error = t.directory_ref != 0 ? kNotAFile : kNothingOpen;
        return -1;
    }
    switch (whence) {
    case 0: t.position = static_cast<std::int32_t>(offset); break;
    case 1: t.position = advanced(t.position, offset); break;
    // From the current position, not from the end of the file.
    case 2: t.position = static_cast<std::int32_t>(static_cast<std::uint32_t>(t.position) - offset); break;
    default: break;
    }
    return t.position;
}

std::int32_t seekdir(session::Session& s, std::int32_t cookie) {
    session::Session& t = routed(s);
    if (t.directory_ref == 0) {
        s.error = t.file_descriptor >= 0 ? kNotADirectory : kNothingOpen;
        return -1;
    }
    t.position = cookie;
    return cookie;
}

std::int32_t telldir(session::Session& s) {
    session::Session& t = routed(s);
    if (t.directory_ref == 0) {
        s.error = t.file_descriptor >= 0 ? kNotADirectory : kNothingOpen;
        return -1;
    }
    return t.position;
}

} // namespace vukra::remotefs
