// The emulated device's answer to a remote-filesystem packet: a frame
// whose first byte is 1 (a Modbus ASCII frame starts with ':').
#pragma once

#include <cstddef>
#include <cstdint>

namespace vukra::sim {

inline constexpr std::uint8_t kFileFrameMarker = 1;

// Builds the reply frame to a request frame of length bytes: 1, the code,
// 0, 0, the payload's length (little-endian), 4 zero bytes, the payload.
// reply holds at least 1980 bytes. Returns the reply frame's length, or 0
// when no reply is due (a code the server refuses, or a frame too short
// to carry a code).
std::size_t answer_file_request(const std::uint8_t* frame, std::size_t length, std::uint8_t* reply);

} // namespace vukra::sim
