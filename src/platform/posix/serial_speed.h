// Line speeds outside the POSIX table (400000 baud has no B constant).
#pragma once
#include <cstdint>

namespace vukra::platform {
int set_custom_speed(int fd, std::uint32_t baud);
}
