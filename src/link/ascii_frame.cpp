#include "link/ascii_frame.h"
#include "session/log.h"

#include "link/slip.h"

#include <bit>
#include <cstdio>

namespace vukra::link {

namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";
constexpr bool kLittleEndian = std::endian::native == std::endian::little;

std::uint8_t digit_value(std::uint8_t c) {
    if (c <= '9') return static_cast<std::uint8_t>(c - '0');
    if (c <= 'F') return static_cast<std::uint8_t>(c - 55);
    return static_cast<std::uint8_t>(c - 87);
}

std::uint8_t pair_value(const std::uint8_t* text) {
    return static_cast<std::uint8_t>(digit_value(text[0]) * 16 + digit_value(text[1]));
}

void put_char(AsciiFrame& frame, std::uint8_t c) {
    if (frame.position >= frame.capacity) return;
    frame.buffer[frame.position++] = c;
    ++frame.length;
}

} // namespace

void frame_init(AsciiFrame& frame, std::uint8_t* buffer, std::int32_t capacity) {
    frame.buffer = buffer;
    frame.capacity = capacity;
    frame.position = 0;
    frame.length = 0;
    frame.sum = 0;
    put_char(frame, ':');
}

void frame_put_byte(AsciiFrame& frame, std::uint8_t byte) {
    put_char(frame, static_cast<std::uint8_t>(kHexDigits[byte >> 4]));
    put_char(frame, static_cast<std::uint8_t>(kHexDigits[byte & 0x0F]));
    frame.sum = static_cast<std::uint8_t>(frame.sum + byte);
}

void frame_put_field(AsciiFrame& frame, const void* value, std::size_t size) {
    const auto* bytes = static_cast<const std::uint8_t*>(value);
    for (std::size_t i = 0; i < size; ++i) frame_put_byte(frame, bytes[kLittleEndian ? size - 1 - i : i]);
}

void frame_put_lrc(AsciiFrame& frame) { frame_put_byte(frame, static_cast<std::uint8_t>(0u - frame.sum)); }

void frame_end(AsciiFrame& frame) {
    put_char(frame, '\r');
    put_char(frame, '\n');
}

void frame_print(const AsciiFrame& frame) {
    // Built in one text and printed with one call: frames are printed on
    // every transaction.
    char text[16 + 4 * kFrameCapacity];
    std::size_t n = 0;
    auto add = [&](const char* s) {
        while (*s && n < sizeof text - 1) text[n++] = *s++;
    };
    add("Frame : [");
    for (std::int32_t i = 0; i < frame.length; ++i) {
        std::uint8_t c = frame.buffer[i];
        if (c == '\n')
            add("<LF>");
        else if (c == '\r')
            add("<CR>");
        else if (n < sizeof text - 1)
            text[n++] = static_cast<char>(c);
    }
    add("]\n");
    log::write(text, n);
}

long frame_send(Port* port, const AsciiFrame& frame) {
    return slip_send(port, frame.buffer, static_cast<std::size_t>(frame.length));
}

int frame_receive(Port* port, AsciiFrame& frame) {
    std::uint8_t packet[kFrameCapacity];
    frame.length = 0;
    for (;;) {
        if (frame.length >= frame.capacity) return 0;
        long n = slip_receive(port, packet, sizeof packet);
        if (n == -1 || n == -2) return 0;
        for (long i = 0; i < n; ++i) {
            std::uint8_t c = packet[i];
            if (c == ':') frame.length = 0;
            if (frame.length >= frame.capacity) return 0; // no room: an endless line
            frame.buffer[frame.length++] = c;
            if (c == '\n') return 1;
        }
    }
}

int frame_check(const AsciiFrame& frame) {
    const std::int32_t len = frame.length;
    const std::uint8_t* t = frame.buffer;
    if (len < 9 || t[0] != ':' || t[len - 2] != '\r' || t[len - 1] != '\n') return 0;
    std::uint8_t sum = 0;
    for (std::int32_t i = 1; i < len - 4; i += 2) sum = static_cast<std::uint8_t>(sum + pair_value(t + i));
    std::uint8_t lrc = pair_value(t + len - 4);
    if (static_cast<std::uint8_t>(sum + lrc) == 0) return 1;
    log::print("Erreur LRC\n");
    return 0;
}

void hex_decode(const std::uint8_t* text, std::size_t count, int, void* destination) {
    auto* out = static_cast<std::uint8_t*>(destination);
    for (std::size_t i = 0; i < count; ++i) out[kLittleEndian ? count - 1 - i : i] = pair_value(text + 2 * i);
}

} // namespace vukra::link
