// BSD-derived systems take the speed as a plain number.
#include "platform/posix/serial_speed.h"

#include <termios.h>

namespace vukra::platform {

int set_custom_speed(int fd, std::uint32_t baud) {
    termios tio{};
    if (::tcgetattr(fd, &tio) != 0) return -1;
    if (::cfsetspeed(&tio, static_cast<speed_t>(baud)) != 0) return -1;
    return ::tcsetattr(fd, TCSANOW, &tio);
}

} // namespace vukra::platform
