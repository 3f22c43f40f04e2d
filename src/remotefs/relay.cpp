#include "remotefs/relay.h"

#include "link/passthrough.h"
#include "remotefs/message_codec.h"
#include "remotefs/messages.h"

#include <array>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

namespace vukra::remotefs {

namespace {

// Where the handle lies, as items of four bytes each behind their length
// words (docs/remote-fs.md): in a request that names one, after the volume
// (node at payload byte 12, descriptor at 20); in a lookup's reply, first
// (node at 4, descriptor at 12), with the status after the four attribute
// words (at 52).
constexpr std::size_t kRequestNode = kFrameHeaderSize + 12;
constexpr std::size_t kRequestTag = kFrameHeaderSize + 20;
constexpr std::size_t kReplyNode = kFrameHeaderSize + 4;
constexpr std::size_t kReplyTag = kFrameHeaderSize + 12;
constexpr std::size_t kReplyStatus = kFrameHeaderSize + 52;

using Handle = std::array<std::uint8_t, 8>; // node, descriptor: as they travel

struct Client {
    std::vector<std::uint8_t> opening; // the lookup that opens its object again
    Handle given{};                    // the handle the client was given
    Handle now{};                      // the same object's handle on the device now
};

struct Memory {
    std::mutex mutex;
    std::map<int, Client> clients;
    int owner = 0; // the client whose object is the device's current one; 0: nobody's
};

Memory& memory() {
    static Memory m;
    return m;
}

bool names_handle(std::uint8_t code) {
    return code == kOpGetattr || code == kOpRead || code == kOpWrite || code == kOpReaddir || code == kOpMkfs;
}

bool opens(std::uint8_t code) { return code == kOpLookup || code == kOpCreate || code == kOpMkdir; }

// The handle of a sound lookup reply of length bytes.
bool handle_of(const std::uint8_t* reply, long length, Handle& h) {
    if (length < static_cast<long>(kReplyStatus + 4) || load_le32(reply + kReplyStatus) != 0) return false;
    std::memcpy(h.data(), reply + kReplyNode, 4);
    std::memcpy(h.data() + 4, reply + kReplyTag, 4);
    return true;
}

} // namespace

long relay_packet(link::Port* port, int client, const std::uint8_t* packet, std::size_t length, std::uint8_t* reply,
                  std::size_t capacity) {
    // Register frames (Modbus ASCII, from ':') leave the file handle alone.
    if (length < 2 || packet[0] != kFrameMarker) return link::packet_pass(port, packet, length, reply, capacity);
    Memory& m = memory();
    const std::uint8_t code = packet[1];
    std::vector<std::uint8_t> request(packet, packet + length);
    if (names_handle(code) && length >= kRequestTag + 4) {
        std::unique_lock lock(m.mutex);
        Client& c = m.clients[client];
        if (m.owner != client && !c.opening.empty()) {
            const std::vector<std::uint8_t> reopen = c.opening;
            lock.unlock();
            std::uint8_t answer[kFrameSize];
            const long got = link::packet_pass(port, reopen.data(), reopen.size(), answer, sizeof answer);
            if (got < 0) return -1;
            lock.lock();
            if (handle_of(answer, got, c.now)) m.owner = client;
        }
        Handle named;
        std::memcpy(named.data(), request.data() + kRequestNode, 4);
        std::memcpy(named.data() + 4, request.data() + kRequestTag, 4);
        if (m.owner == client && named == c.given) {
            std::memcpy(request.data() + kRequestNode, c.now.data(), 4);
            std::memcpy(request.data() + kRequestTag, c.now.data() + 4, 4);
        }
    }
    const long got = link::packet_pass(port, request.data(), request.size(), reply, capacity);
    std::lock_guard lock(m.mutex);
    if (opens(code)) {
        Client& c = m.clients[client];
        request[1] = kOpLookup; // a create or mkdir is opened again by a lookup, which leaves the object as it is
        c.opening = std::move(request);
        if (!handle_of(reply, got, c.given)) c.opening.clear();
        c.now = c.given;
        m.owner = client;
    } else if (code != kOpNull && !names_handle(code) && m.owner != client) {
        m.owner = 0; // another client's remove, rename, mount... may have closed the object
    }
    return got;
}

void relay_forget(int client) {
    Memory& m = memory();
    std::lock_guard lock(m.mutex);
    m.clients.erase(client);
    if (m.owner == client) m.owner = 0;
}

} // namespace vukra::remotefs
