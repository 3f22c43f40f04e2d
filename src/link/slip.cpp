#include "link/slip.h"

#include "link/line_failure.h"

#include <cerrno>

namespace vukra::link {

std::size_t slip_escape(const std::uint8_t* payload, std::size_t count, std::uint8_t* out) {
    std::size_t n = 0;
    for (std::size_t i = 0; i < count; ++i) {
        std::uint8_t b = payload[i];
        if (b == kSlipEnd) {
            out[n++] = kSlipEsc;
            out[n++] = kSlipEscEnd;
        } else if (b == kSlipEsc) {
            out[n++] = kSlipEsc;
            out[n++] = kSlipEscEsc;
        } else {
            out[n++] = b;
        }
    }
    return n;
}

long slip_send(Port* port, const void* bytes, std::size_t count) {
    // One write for any payload that escapes into the buffer (every
    // caller's); a longer one leaves in several.
    std::uint8_t out[4096];
    constexpr std::size_t kChunk = (sizeof out - 2) / 2;
    const auto* p = static_cast<const std::uint8_t*>(bytes);
    clear_failure(); // every exchange starts here
    std::size_t n = 0;
    out[n++] = kSlipEnd;
    for (std::size_t done = 0; done < count;) {
        std::size_t take = count - done < kChunk ? count - done : kChunk;
        if (n + 2 * take + 1 > sizeof out) {
            (void)serial_write(port, out, n);
            n = 0;
        }
        n += slip_escape(p + done, take, out + n);
        done += take;
    }
    out[n++] = kSlipEnd;
    (void)serial_write(port, out, n);
    return static_cast<long>(count);
}

namespace {

// One byte of a packet; false, with the reason noted, when none came.
bool take(Port* port, std::uint8_t& b, std::uint32_t consumed) {
    const int r = serial_take_byte(port, b);
    if (r == 1) return true;
    if (r == 0 && consumed == 0)
        note_failure(FailureKind::kTimeout, ETIMEDOUT, "no reply from the device within %u ms (time-out)",
                     static_cast<unsigned>(port->timeout_ms));
    else if (r == 0)
        note_failure(FailureKind::kTimeout, ETIMEDOUT, "the reply stopped in the middle (nothing more within %u ms)",
                     static_cast<unsigned>(port->timeout_ms));
    else if (consumed > 0)
        note_failure(FailureKind::kLine, EIO, "the line failed in the middle of a reply");
    else
        note_failure(FailureKind::kLine, EIO, "the line failed before any reply");
    return false;
}

} // namespace

long slip_receive(Port* port, void* buffer, std::size_t capacity) {
    serial_reset_received_count();
    auto* out = static_cast<std::uint8_t*>(buffer);
    std::size_t length = 0;
    std::uint32_t consumed = 0;
    long result = -1; // kept when a read times out or fails
    for (;;) {
        std::uint8_t b;
        if (!take(port, b, consumed)) break;
        ++consumed;
        if (b == kSlipEnd) {
            if (length == 0) continue; // END bytes ahead of a packet
            result = static_cast<long>(length);
            break;
        }
        if (b == kSlipEsc) {
            if (!take(port, b, consumed)) break;
            ++consumed;
            if (b == kSlipEscEnd)
                b = kSlipEnd;
            else if (b == kSlipEscEsc)
                b = kSlipEsc;
        }
        if (length >= capacity) { // this byte is dropped; the rest stays queued
            result = static_cast<long>(length);
            break;
        }
        out[length++] = b;
    }
    serial_count_received(consumed);
    return result;
}

} // namespace vukra::link
