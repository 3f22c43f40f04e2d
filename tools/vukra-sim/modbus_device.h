// The emulated device's answer to one Modbus ASCII request for address 1:
// function 3 reads and function 16 writes holding registers; any other
// function gives exception 1, an unmapped address, or one whose access in
// the table does not allow the function, exception 2, and a malformed
// request exception 3.
#pragma once

#include "link/ascii_frame.h"
#include "register_memory.h"

namespace vukra::sim {

// Builds the reply to a sound request frame in reply. False when no reply
// is due (a request for another address).
bool answer(RegisterMemory& memory, const link::AsciiFrame& request, link::AsciiFrame& reply);

} // namespace vukra::sim
