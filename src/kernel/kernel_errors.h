// Where failing kernel calls leave their error code.
//
// In boot context (always, inside the library) a failing call stores its
// negative code in the kernel error variable. Outside it, the code goes to
// the current process's error field, and only while that field is still 0:
// a pending error is never overwritten.
#pragma once

#include <cstdint>

namespace vukra::kernel {

inline constexpr int kErrExists = -20;       // the node exists, or its parent cannot be found
inline constexpr int kErrInvalid = -22;      // a directory cannot move into itself or below itself
inline constexpr int kErrRefused = -29;      // a device or filesystem refused to open or read
inline constexpr int kErrNoDescriptor = -40; // no free descriptor
inline constexpr int kErrNotDevice = -43;    // not a device, or no driver for its number
inline constexpr int kErrNoNode = -44;       // no such node, or a failed mount
inline constexpr int kErrNotDirectory = -56;

// Records code as a failing call's error and returns -1.
int fail(int code);

std::int32_t kernel_error();
void clear_kernel_error();

// Outside the boot context a failure is the running process's error.
void set_boot_context(bool on);

} // namespace vukra::kernel
