// Serial port on a POSIX terminal device (termios).
//
// The line is put in raw mode with VMIN = VTIME = 0, so read() never blocks;
// the total read time-out is a poll() ahead of each read. The modem lines
// are set where the device has them (a pseudo-terminal has none, and the
// ioctls are then quietly refused).
#include "platform/platform.h"
#include "platform/posix/fd_io.h"
#include "platform/posix/serial_speed.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace vukra::platform {

namespace {

int fd_of(NativePort port) { return static_cast<int>(port); }

void set_modem_lines(int fd) {
    int dtr = TIOCM_DTR;
    int rts = TIOCM_RTS;
    (void)ioctl(fd, TIOCMBIS, &dtr);
    (void)ioctl(fd, TIOCMBIC, &rts);
}

} // namespace

NativePort serial_open(const char* name) {
    if (name == nullptr) {
        errno = ENOENT;
        return kInvalidPort;
    }
    int fd = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return kInvalidPort;
    // Not shared: a second opener is refused, as a Win32 port is.
    if (::ioctl(fd, TIOCEXCL) != 0 && errno != ENOTTY) {
        ::close(fd);
        return kInvalidPort;
    }
    return fd;
}

PortProblem last_port_problem() {
    switch (errno) {
    case ENOENT:
    case ENODEV:
    case ENXIO:
        return PortProblem::kMissing;
    case EACCES:
    case EPERM:
        return PortProblem::kDenied;
    case ENOTTY:
    case EINVAL:
    case EISDIR:
        return PortProblem::kNotSerial;
    case EBUSY:
        return PortProblem::kBusy;
    default:
        return PortProblem::kOther;
    }
}

int serial_configure(NativePort port, std::uint32_t baud, std::uint32_t timeout_ms) {
    (void)timeout_ms; // applied by serial_read_some's poll
    int fd = fd_of(port);
    termios tio{};
    if (fd < 0 || ::tcgetattr(fd, &tio) != 0) return -1;
    tio.c_iflag &= ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL | IXON |
                                           IXOFF | IXANY | INPCK);
    tio.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    tio.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    tio.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | CSTOPB | CRTSCTS | HUPCL);
    tio.c_cflag |= CS8 | CREAD | CLOCAL;
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    if (::tcsetattr(fd, TCSANOW, &tio) != 0 || set_custom_speed(fd, baud) != 0) return -1;
    set_modem_lines(fd);
    return 0;
}

void serial_setup_queues(NativePort) {
    // The terminal driver's queues are fixed; there is no event mask.
}

long serial_read_some(NativePort port, void* buffer, std::size_t capacity, std::uint32_t timeout_ms) {
    int fd = fd_of(port);
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    for (;;) {
        short events = 0;
        const int ready = wait_readable(fd, timeout_ms, events);
        if (ready <= 0) return ready;
        if (events & POLLNVAL) {
            errno = EBADF;
            return -1;
        }
        ssize_t got = ::read(fd, buffer, capacity);
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (got == 0 && (events & POLLHUP)) {
            // The other end of a pseudo-terminal went away: nothing more will
            // come, which a reader sees as its time-out running out.
            ::poll(nullptr, 0, static_cast<int>(timeout_ms));
            return 0;
        }
        return static_cast<long>(got);
    }
}

long serial_write(NativePort port, const void* bytes, std::size_t count) {
    const int fd = fd_of(port);
    return write_all(bytes, count, [fd](const unsigned char* p, std::size_t n) { return ::write(fd, p, n); });
}

void serial_purge(NativePort port) {
    if (port >= 0) (void)::tcflush(fd_of(port), TCIOFLUSH);
}

void serial_clear_break(NativePort port) {
    if (port >= 0) (void)::ioctl(fd_of(port), TIOCCBRK);
}

void serial_close(NativePort port) {
    if (port < 0) return;
    serial_purge(port);
    ::close(fd_of(port));
}

bool pty_open(PseudoTerminal& pty) {
    int master = -1, slave = -1;
    char name[256];
    if (::openpty(&master, &slave, name, nullptr, nullptr) != 0) return false;
    for (int fd : {master, slave}) {
        termios tio{};
        ::tcgetattr(fd, &tio);
        ::cfmakeraw(&tio);
        ::tcsetattr(fd, TCSANOW, &tio);
    }
    pty.master = master;
    pty.slave = slave;
    std::snprintf(pty.path, sizeof pty.path, "%s", name);
    return true;
}

const char* last_error_text() {
    thread_local char text[256];
    int code = errno;
    // The GNU strerror_r may return a static text instead of filling ours.
    const char* message = strerror_r(code, text, sizeof text);
    if (message != text) {
        std::strncpy(text, message, sizeof text - 2);
        text[sizeof text - 2] = '\0';
    }
    // Win32's texts end with a line break; keep the same shape.
    std::size_t n = std::strlen(text);
    text[n] = '\n';
    text[n + 1] = '\0';
    return text;
}

} // namespace vukra::platform
