// One transaction of the remote filesystem: a request payload to the device
// as one SLIP packet and its reply back, or, for a session routed to the
// /mem mirror, to the local server without touching the port.
//
// The frame, request and reply buffers are process-wide; one process-wide
// lock (Exclusive) guards them, held by each operation from the encoding of
// its request until it has read what it needs from the decoded reply.
#pragma once

#include "remotefs/messages.h"
#include "session/session.h"

#include <cstdint>

namespace vukra::remotefs {

// The error word of a session whose device did not answer.
inline constexpr std::int32_t kNoReply = 513;

// Holds the process-wide transport lock (recursive) for its lifetime.
class Exclusive {
public:
    Exclusive();
    ~Exclusive();
    Exclusive(const Exclusive&) = delete;
    Exclusive& operator=(const Exclusive&) = delete;
};

// The process-wide request and reply payload buffers (kPayloadCapacity
// bytes each, word aligned). Use them only under Exclusive.
std::uint8_t* request_buffer();
std::uint8_t* reply_buffer();

// Sends length bytes of request under code and receives the reply payload
// into reply (kPayloadCapacity bytes); reply_length receives its length.
// Returns the received packet's length for a device transaction, 0 for one
// answered by the local server, -1 on failure (error word 513 when the
// device did not answer). Call under Exclusive.
std::int32_t transact(session::Session& s, std::uint8_t code, std::uint8_t* reply, std::uint32_t& reply_length,
                      const std::uint8_t* request, std::uint32_t length);

// Encodes request with code's request table (size in 32-bit terms),
// transacts, clears reply and decodes into it with code's reply table.
// Returns the reply bytes filled (32-bit terms), or -1 when encoding,
// the transaction or decoding fails. Call under Exclusive: the decoded
// reply points into the reply buffer.
std::int32_t exchange(session::Session& s, std::uint8_t code, const void* request, std::uint32_t size,
                      void* reply, std::size_t reply_host_size);

// The same with code's own request size; a write adds its count (extra).
template <typename Request, typename Reply>
std::int32_t exchange(session::Session& s, std::uint8_t code, const Request& request, Reply& reply,
                      std::uint32_t extra = 0) {
    return exchange(s, code, &request, kOperations[code].request_size + extra, &reply, sizeof reply);
}

// The session's current handle, as requests carry it.
inline FileHandle current_handle(const session::Session& s) { return FileHandle{s.directory_ref, s.file_descriptor}; }

} // namespace vukra::remotefs
