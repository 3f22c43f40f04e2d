// A time limit for the pthreads timed waits: the given clock's time now
// plus a number of milliseconds.
#pragma once

#include <cstdint>
#include <time.h>

namespace vukra::platform {

inline timespec clock_after(clockid_t clock, std::uint32_t milliseconds) {
    timespec t{};
    clock_gettime(clock, &t);
    t.tv_sec += milliseconds / 1000;
    t.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
    if (t.tv_nsec >= 1000000000L) {
        t.tv_sec += 1;
        t.tv_nsec -= 1000000000L;
    }
    return t;
}

} // namespace vukra::platform
