// Writes every byte of a buffer through a call that may move fewer bytes
// than asked or be interrupted by a signal: the serial port's write and the
// socket's send share it.
#pragma once

#include <cerrno>
#include <cstddef>
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

} // namespace vukra::platform
