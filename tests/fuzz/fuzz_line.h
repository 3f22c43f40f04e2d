// A serial line for fuzz targets: one end of a socket pair is the Port's
// handle, the other end the far side, where the input is written and what
// the library sends is taken away. The Port waits for nothing: once the
// input is used up, a read sees its time-out run out at once.
#pragma once

#include "link/serial_port.h"

#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace vukra::fuzz {

struct FuzzLine {
    link::Port port{};
    int far_end = -1;
};

inline FuzzLine& line() {
    static FuzzLine* l = [] {
        auto* made = new FuzzLine;
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) std::abort();
        for (int fd : ends) ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
        int room = 1 << 20;
        ::setsockopt(ends[1], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        ::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
        made->port.transport = &link::serial_line_transport();
        made->port.native = ends[0];
        made->port.timeout_ms = 0;
        made->far_end = ends[1];
        return made;
    }();
    return *l;
}

// Everything waiting at fd.
inline std::vector<std::uint8_t> take_all(int fd) {
    std::vector<std::uint8_t> out;
    std::uint8_t chunk[4096];
    ssize_t n;
    while ((n = ::read(fd, chunk, sizeof chunk)) > 0) out.insert(out.end(), chunk, chunk + n);
    return out;
}

// Makes bytes all that the Port will receive: what was left of the last
// input and what the library sent meanwhile are dropped.
inline void feed(const std::uint8_t* bytes, std::size_t size) {
    FuzzLine& l = line();
    (void)take_all(static_cast<int>(l.port.native));
    (void)take_all(l.far_end);
    l.port.head = l.port.tail = 0;
    for (std::size_t done = 0; done < size;) {
        const ssize_t n = ::write(l.far_end, bytes + done, size - done);
        if (n <= 0) std::abort(); // the socket holds far more than an input
        done += static_cast<std::size_t>(n);
    }
}

} // namespace vukra::fuzz
