// Device registers read and written by their names in the register table.
// The caller's data is the register's value area, raw words in host order.
#pragma once

#include "session/session.h"

namespace vukra::session {

inline constexpr std::int32_t kTransferSize = 256;

// The byte count copied to value (at most 256), or -1.
std::int32_t read_register(Session* s, const char* name, void* value, std::int32_t count);
// The byte count taken from value (at most 256), or -1.
std::int32_t write_register(Session* s, const char* name, const void* value, std::int32_t count);

} // namespace vukra::session
