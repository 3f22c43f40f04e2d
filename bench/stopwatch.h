// The benchmarks' clock: a steady clock and the seconds since a time on it.
#pragma once

#include <chrono>

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}
