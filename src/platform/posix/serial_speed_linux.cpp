// Linux sets any speed through termios2 and BOTHER. <asm/termbits.h>
// clashes with <termios.h>, so this file includes only the former.
#include "platform/posix/serial_speed.h"

#include <asm/ioctls.h>
#include <asm/termbits.h>
#include <sys/ioctl.h>

namespace vukra::platform {

int set_custom_speed(int fd, std::uint32_t baud) {
    termios2 tio{};
    if (::ioctl(fd, TCGETS2, &tio) != 0) return -1;
    tio.c_cflag &= ~static_cast<tcflag_t>(CBAUD | (CBAUD << IBSHIFT));
    tio.c_cflag |= BOTHER | (BOTHER << IBSHIFT);
    tio.c_ispeed = baud;
    tio.c_ospeed = baud;
    return ::ioctl(fd, TCSETS2, &tio);
}

} // namespace vukra::platform
