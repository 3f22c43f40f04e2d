// SLIP framing (RFC 1055) of whole packets on the serial line.
#pragma once

#include "link/serial_port.h"

namespace vukra::link {

inline constexpr std::uint8_t kSlipEnd = 0xC0;
inline constexpr std::uint8_t kSlipEsc = 0xDB;
inline constexpr std::uint8_t kSlipEscEnd = 0xDC;
inline constexpr std::uint8_t kSlipEscEsc = 0xDD;

// Escapes count payload bytes into out, which holds at least 2 * count
// bytes; returns the bytes written (no END bytes are added).
std::size_t slip_escape(const std::uint8_t* payload, std::size_t count, std::uint8_t* out);

// Sends END, the escaped payload and END. Returns count whatever the line did.
long slip_send(Port* port, const void* bytes, std::size_t count);

// Receives one packet into buffer: its length, or -1 when the time-out ran
// out or the read failed. END bytes ahead of a packet are skipped. A packet
// longer than capacity is cut there; its rest is the next packet's start.
long slip_receive(Port* port, void* buffer, std::size_t capacity);

} // namespace vukra::link
