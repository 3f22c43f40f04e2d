// The transport of one request and its reply, with the process-wide
// buffers and their lock.
#include "remotefs/transport.h"

#include "link/line_failure.h"

#include <cerrno>

#include "kernel/vfs.h"
#include "link/slip.h"
#include "remotefs/local_server.h"

#include <algorithm>
#include <cstring>

namespace vukra::remotefs {

namespace {

alignas(16) std::uint8_t frame[kFrameSize];
alignas(16) std::uint8_t request_area[kPayloadCapacity];
alignas(16) std::uint8_t reply_area[kPayloadCapacity];

struct ProcessLock {
    platform::RecursiveLock lock;
    ProcessLock() { platform::lock_init(lock); }
};

platform::RecursiveLock& process_lock() {
    static ProcessLock holder; // made on first use, kept for the process
    return holder.lock;
}

// Bits per second of bytes moved in duration_ms; a transaction within one
// millisecond counts as taking one.
std::int32_t throughput(std::uint32_t bytes, std::uint32_t duration_ms) {
    const double ms = duration_ms == 0 ? 1.0 : static_cast<double>(duration_ms);
    return static_cast<std::int32_t>(static_cast<double>(bytes) * 8.0 / ms * 1000.0);
}

std::int32_t serve_locally(session::Session& s, std::uint8_t code, std::uint8_t* reply, std::uint32_t& reply_length,
                           const std::uint8_t* request, std::uint32_t length) {
    const std::uint32_t start = platform::clock_ms();
    const std::int32_t served = local_serve(code, reply, request, length);
    if (served < 0) return -1;
    // The local card on disk holds every answered change, the volume's own
    // bookkeeping included: a process that ends before its putfs leaves a
    // card whose files are sound.
    if (code >= kOpWrite && code <= kOpRmdir) kernel::flush_mounts();
    const std::uint32_t duration = platform::clock_ms() - start;
    // The mirror session has no locks of its own; its statistics count the
    // request frame.
    s.status[kStatusDurationMs] = static_cast<std::int32_t>(duration);
    s.status[kStatusBitsPerSecond] = throughput(length + kFrameHeaderSize, duration);
    reply_length = std::min(static_cast<std::uint32_t>(served), kPayloadCapacity);
    return 0;
}

} // namespace

Exclusive::Exclusive() { platform::lock_enter(process_lock()); }
Exclusive::~Exclusive() { platform::lock_leave(process_lock()); }

std::uint8_t* request_buffer() { return request_area; }
std::uint8_t* reply_buffer() { return reply_area; }

std::int32_t transact(session::Session& s, std::uint8_t code, std::uint8_t* reply, std::uint32_t& reply_length,
                      const std::uint8_t* request, std::uint32_t length) {
    reply_length = 0;
    if (length > kPayloadCapacity) return -1;
    if (code != kOpNull && s.mirror_enabled != 0 && s.mirror_selected != 0)
        return serve_locally(s, code, reply, reply_length, request, length);
    if (code != kOpNull) s.mirror_selected = 0;
    if (s.port == nullptr) {
        // A record without a line (the mirror's own, asked for a status)
        // gets no answer.
        s.error = kNoReply;
        return -1;
    }

    frame[0] = kFrameMarker;
    frame[1] = code;
    frame[2] = frame[3] = 0;
    store_le32(frame + 4, length);
    store_le32(frame + 8, 0);
    if (length > 0) std::memcpy(frame + kFrameHeaderSize, request, length);

    // Whatever an abandoned exchange left on the line goes first.
    link::serial_purge(s.port);
    const link::ExchangeDeadline deadline(s.port);
    const std::uint32_t start = platform::clock_ms();
    if (link::slip_send(s.port, frame, length + kFrameHeaderSize) < 0) return -1;

    // The reply lands in a cleared frame: a short reply reads as zeros,
    // never as the request it replaced.
    std::memset(frame, 0, sizeof frame);
    const long received = link::slip_receive(s.port, frame, sizeof frame);
    if (received < 0) {
        s.error = kNoReply;
        return -1;
    }
    const std::uint32_t duration = platform::clock_ms() - start;
    {
        platform::LockGuard state(s.state_lock);
        s.status[kStatusDurationMs] = static_cast<std::int32_t>(duration);
        s.status[kStatusBitsPerSecond] = throughput(static_cast<std::uint32_t>(received), duration);
    }

    // The reply's header is taken as it stands; its payload length never
    // reaches past the bytes that came.
    const std::uint32_t came =
        received > static_cast<long>(kFrameHeaderSize) ? static_cast<std::uint32_t>(received) - kFrameHeaderSize : 0;
    reply_length = std::min({load_le32(frame + 4), came, kPayloadCapacity});
    std::memcpy(reply, frame + kFrameHeaderSize, reply_length);
    return static_cast<std::int32_t>(received);
}

std::int32_t exchange(session::Session& s, std::uint8_t code, const void* request, std::uint32_t size, void* reply,
                      std::size_t reply_host_size) {
    if (code >= kOperationCodes || kOperations[code].request == nullptr) return -1;
    Exclusive exclusive;
    std::uint32_t consumed = size;
    const std::int32_t length = encode(request_area, kPayloadCapacity, request, consumed, kOperations[code].request);
    if (length < 0) return -1;
    std::memset(reply, 0, reply_host_size);
    std::uint32_t reply_length = 0;
    if (transact(s, code, reply_area, reply_length, request_area, static_cast<std::uint32_t>(length)) < 0) return -1;
    std::uint32_t capacity = kOperations[code].reply_capacity;
    const std::int32_t decoded = decode(reply, reply_area, reply_length, capacity, kOperations[code].reply);
    if (decoded < 0)
        link::note_failure(link::FailureKind::kUndecodable, EIO, "the device's reply (%u bytes) does not decode",
                           static_cast<unsigned>(reply_length));
    return decoded;
}

} // namespace vukra::remotefs
