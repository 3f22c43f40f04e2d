#include "remotefs/relay.h"

#include "link/passthrough.h"
#include "remotefs/message_codec.h"
#include "remotefs/messages.h"

#include <cstring>
#include <map>
#include <mutex>
#include <vector>

namespace vukra::remotefs {

namespace {

// Where a request's handle lies (after the volume word), and a lookup
// reply's handle and status.
constexpr std::size_t kRequestHandle = kFrameHeaderSize + 4;
constexpr std::size_t kReplyHandle = kFrameHeaderSize;
constexpr std::size_t kReplyStatus = kFrameHeaderSize + 24;
constexpr std::size_t kHandleSize = 8;

struct Memory {
    std::mutex mutex;
    std::map<int, std::vector<std::uint8_t>> opening; // by client: the lookup that opens its object
    int owner = 0; // the client whose object is the device's current handle; 0: nobody's
};

Memory& memory() {
    static Memory m;
    return m;
}

bool names_handle(std::uint8_t code) {
    return code == kOpGetattr || code == kOpRead || code == kOpWrite || code == kOpReaddir || code == kOpMkfs;
}

bool opens(std::uint8_t code) { return code == kOpLookup || code == kOpCreate || code == kOpMkdir; }

} // namespace

long relay_packet(link::Port* port, int client, const std::uint8_t* packet, std::size_t length, std::uint8_t* reply,
                  std::size_t capacity) {
    if (length < 2) return link::packet_pass(port, packet, length, reply, capacity);
    Memory& m = memory();
    const std::uint8_t code = packet[1];
    std::vector<std::uint8_t> request(packet, packet + length);
    if (names_handle(code) && length >= kRequestHandle + kHandleSize) {
        std::vector<std::uint8_t> reopen;
        {
            std::lock_guard lock(m.mutex);
            const auto found = m.opening.find(client);
            if (m.owner != client && found != m.opening.end()) reopen = found->second;
        }
        if (!reopen.empty()) {
            std::uint8_t answer[kFrameSize];
            const long got = link::packet_pass(port, reopen.data(), reopen.size(), answer, sizeof answer);
            if (got < 0) return -1;
            if (got >= static_cast<long>(kReplyStatus + 4) && load_le32(answer + kReplyStatus) == 0) {
                std::memcpy(request.data() + kRequestHandle, answer + kReplyHandle, kHandleSize);
                std::lock_guard lock(m.mutex);
                m.owner = client;
            }
        }
    }
    const long got = link::packet_pass(port, request.data(), request.size(), reply, capacity);
    std::lock_guard lock(m.mutex);
    if (opens(code)) {
        request[1] = kOpLookup; // a create or mkdir is opened again by a lookup, which leaves the object as it is
        m.opening[client] = std::move(request);
        m.owner = client;
    } else if (code != kOpNull && !names_handle(code) && m.owner != client) {
        m.owner = 0; // another client's remove, rename, mount... may have closed the object
    }
    return got;
}

void relay_forget(int client) {
    Memory& m = memory();
    std::lock_guard lock(m.mutex);
    m.opening.erase(client);
    if (m.owner == client) m.owner = 0;
}

} // namespace vukra::remotefs
