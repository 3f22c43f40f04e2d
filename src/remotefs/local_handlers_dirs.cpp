// readdir: a page of the current directory's entries.
//
// The cookie is the kernel's directory position (telldir), which resumes
// in constant time where the previous page ended, so listing n entries
// page by page costs O(n). A page holds as many entries as the request's
// count (at most 120) and the 1968-byte reply allow; the end-of-directory
// flag is set when the directory's end was reached. An empty directory
// gives an empty list with the flag set.
#include "kernel/kernel_errors.h"
#include "remotefs/local_server_internal.h"

#include <algorithm>
#include <cstring>

namespace vukra::remotefs::server {

namespace {

kernel::DirEntry names[kReaddirCount];
DirEntryNode nodes[kReaddirCount];

// What an entry adds to the reply: its size word, the entry number's item
// and the name's item (items are word aligned, a name's NUL included).
std::uint32_t cost_of(const char* name) {
    const std::uint32_t n = static_cast<std::uint32_t>(std::strlen(name)) + 1;
    const std::uint32_t item = n <= 4 ? 4 : n + (4 - n % 4);
    return 4 + 8 + 4 + item;
}

// The rest of the reply: the list's closing word, cookie, flag and status items.
constexpr std::uint32_t kReplyFrame = 4 + 8 + 8 + 8;

} // namespace

std::int32_t readdir_handler(std::uint8_t* out, const std::uint8_t* payload, std::uint32_t length) {
    ReaddirRequest request;
    ReaddirReply reply{};
    reply.status = admit(kOpReaddir, payload, length, request);
    const State& s = state();
    if (reply.status == 0 && !is_current_directory(request.handle)) reply.status = kServerNotOpen;
    if (reply.status == 0 && kernel::seekdir(s.directory, request.cookie) != 0) reply.status = kernel_status();
    if (reply.status != 0) return give(kOpReaddir, out, reply);

    const std::uint32_t count = std::min(request.count, kReaddirCount);
    std::uint32_t used = kReplyFrame;
    std::uint32_t n = 0;
    reply.cookie = request.cookie;
    for (;;) {
        const long here = kernel::telldir(s.directory);
        if (n == count) {
            reply.cookie = static_cast<std::int32_t>(here);
            break;
        }
        const int got = kernel::readdir(s.directory, names[n]);
        if (got < 0) {
            reply.status = kernel_status();
            reply.entries = nullptr;
            return give(kOpReaddir, out, reply);
        }
        if (got == 0) {
            reply.cookie = static_cast<std::int32_t>(kernel::telldir(s.directory));
            reply.eof = 1;
            break;
        }
        const char* name = names[n].name;
        const std::uint32_t cost = cost_of(name);
        if (used + cost > kPayloadCapacity) {
            reply.cookie = static_cast<std::int32_t>(here); // this entry starts the next page
            break;
        }
        used += cost;
        // Linked by assignment: the records are packed, their links unaligned.
        nodes[n] = DirEntryNode{names[n].node, name, nullptr};
        if (n > 0) nodes[n - 1].next = &nodes[n];
        ++n;
    }
    reply.entries = n > 0 ? &nodes[0] : nullptr;
    return give(kOpReaddir, out, reply);
}

} // namespace vukra::remotefs::server
