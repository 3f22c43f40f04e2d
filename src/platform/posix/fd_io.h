// What the serial port and the socket share on a file descriptor: waiting
// for bytes with a time-out, and writing a whole buffer, both through
// interruptions by signals.
#pragma once

#include "platform/platform.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <poll.h>
#include <sys/types.h>

namespace vukra::platform {

// write_some(pointer, count) moves up to count bytes and returns how many,
// or -1 with errno set. The count written, or -1 on the first real error.
template <typename WriteSome>
long write_all(const void* bytes, std::size_t count, WriteSome write_some) {
    const auto* p = static_cast<const unsigned char*>(bytes);
    std::size_t done = 0;
    while (done < count) {
        const ssize_t n = write_some(p + done, count - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        done += static_cast<std::size_t>(n);
    }
    return static_cast<long>(done);
}

// Waits until fd has bytes to read (or has been closed): 1, with the poll's
// events in revents; 0 when timeout_ms ran out; -1 on an error. A signal
// (a host's Ctrl-C handler, a timer) does not start the wait afresh: it
// goes on for what is left of timeout_ms.
inline int wait_readable(int fd, std::uint32_t timeout_ms, short& revents) {
    pollfd p{fd, POLLIN, 0};
    const std::uint32_t start = clock_ms();
    std::uint32_t left = timeout_ms;
    for (;;) {
        const int ready = ::poll(&p, 1, static_cast<int>(left));
        if (ready < 0 && errno == EINTR) {
            const std::uint32_t spent = clock_ms() - start;
            left = spent < timeout_ms ? timeout_ms - spent : 0;
            continue;
        }
        revents = p.revents;
        return ready > 0 ? 1 : ready;
    }
}

} // namespace vukra::platform
