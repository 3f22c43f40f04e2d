// Modbus ASCII frames with their LRC, carried one per SLIP packet.
//
//   ':'  address  function  data...  LRC  CR LF     (every byte as two hex digits)
//
// The LRC is the two's complement of the sum of the bytes from the address
// to the last data byte. Multi-byte fields go most significant byte first.
#pragma once

#include "link/serial_port.h"

#include <cstddef>
#include <cstdint>

namespace vukra::link {

inline constexpr std::int32_t kFrameCapacity = 512;

struct AsciiFrame {
    std::uint8_t* buffer;
    std::int32_t position; // where the next character goes while building
    std::int32_t length;
    std::int32_t capacity;
    std::uint8_t sum; // of the bytes put so far, for the LRC
};

// Starts a frame in buffer with its ':'. Building never writes past the
// capacity: what does not fit is left out.
void frame_init(AsciiFrame& frame, std::uint8_t* buffer, std::int32_t capacity);
void frame_put_byte(AsciiFrame& frame, std::uint8_t byte);
// Puts size bytes of the host-order number at value, most significant first.
void frame_put_field(AsciiFrame& frame, const void* value, std::size_t size);
void frame_put_lrc(AsciiFrame& frame);
void frame_end(AsciiFrame& frame);

// Prints "Frame : [...]" with CR and LF shown as <CR> and <LF>.
void frame_print(const AsciiFrame& frame);

long frame_send(Port* port, const AsciiFrame& frame);

// Collects SLIP packets until a frame from its last ':' to LF is held.
// 1 when one is, 0 on time-out, read failure or a full buffer.
int frame_receive(Port* port, AsciiFrame& frame);

// 1 for a sound frame; a wrong LRC prints "Erreur LRC\n".
int frame_check(const AsciiFrame& frame);

// Decodes count bytes from 2 * count hex digits into destination as one
// host-order number. Any character is taken for a digit.
void hex_decode(const std::uint8_t* text, std::size_t count, int unused, void* destination);

} // namespace vukra::link
