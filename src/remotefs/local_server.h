// The local server: the device's side of the remote filesystem carried in
// the library, answering the requests of a session routed to the /mem
// mirror from the simulated kernel's filesystem. One handler per operation
// code; each decodes the request payload with its operation's request
// table, acts on the kernel and encodes the reply with the reply table.
#pragma once

#include "remotefs/messages.h"

#include <cstdint>

namespace vukra::remotefs {

// reply: the reply payload buffer, kPayloadCapacity (1968) bytes, word
// aligned; request: the request payload of length bytes.
// Result: the reply payload's length (0 to 1968), or -1 when the request is
// refused and no reply is written.
using LocalHandler = std::int32_t (*)(std::uint8_t* reply, const std::uint8_t* request, std::uint32_t length);

// Runs the handler of code: its result, or -1 for a code of 16 or more.
// Codes 3 and 14 are refused.
std::int32_t local_serve(std::uint8_t code, std::uint8_t* reply, const std::uint8_t* request, std::uint32_t length);

} // namespace vukra::remotefs
