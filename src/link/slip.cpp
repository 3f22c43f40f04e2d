#include "link/slip.h"

namespace vukra::link {

long slip_send(Port* port, const void* bytes, std::size_t count) {
    // Escaped into chunks of one buffer; a payload that cannot grow past it
    // (every caller's) leaves in a single write.
    std::uint8_t out[4096];
    std::size_t n = 0;
    out[n++] = kSlipEnd;
    const auto* p = static_cast<const std::uint8_t*>(bytes);
    for (std::size_t i = 0; i < count; ++i) {
        if (n + 2 > sizeof out) {
            (void)serial_write(port, out, n);
            n = 0;
        }
        std::uint8_t b = p[i];
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
    if (n + 1 > sizeof out) {
        (void)serial_write(port, out, n);
        n = 0;
    }
    out[n++] = kSlipEnd;
    (void)serial_write(port, out, n);
    return static_cast<long>(count);
}

long slip_receive(Port* port, void* buffer, std::size_t capacity) {
    serial_reset_received_count();
    auto* out = static_cast<std::uint8_t*>(buffer);
    std::size_t length = 0;
    std::uint32_t consumed = 0;
    long result = -1; // kept when a read times out or fails
    for (;;) {
        std::uint8_t b;
        if (serial_take_byte(port, b) < 1) break;
        ++consumed;
        if (b == kSlipEnd) {
            if (length == 0) continue; // END bytes ahead of a packet
            result = static_cast<long>(length);
            break;
        }
        if (b == kSlipEsc) {
            if (serial_take_byte(port, b) < 1) break;
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
