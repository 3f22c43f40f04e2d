// Bringing the simulated kernel up: its tables, its directory tree and
// device nodes, and the clock; and the full system start that also applies
// "/usr/etc/.mount" and runs "/usr/etc/.boot".
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vukra::kernel {

// Once per process: 0 when it did the start, -1 when the kernel was started.
int kernel_start();
bool kernel_started();

// The full start; this build has no process model, so a program the boot
// would run is only recorded.
int kernel_boot(void* argument);
// The programs the boot would have run, in order.
const std::vector<std::vector<std::string>>& programs_run();

// The boot readers on their own (kernel_boot calls them).
void apply_mount_file(const char* path);
int run_boot_file(const char* path);
// The board code a ".boot" code field gives: read from its last character
// back, "x" or "X" ending it, the first character never read.
std::uint32_t parse_board_code(const std::string& field);

// Seconds of the kernel clock, set from the real-time clock at start and
// running on from there; 0 before.
std::uint32_t kernel_seconds();
// Sets the clock by hand: a tool that makes the same image twice.
void set_kernel_seconds(std::uint32_t seconds);

// The system information call: see uname's buffer layout in docs.
int uname(const int* names, int length, void* buffer, std::size_t* buffer_length);

inline constexpr std::size_t kUnameSize = 160;

} // namespace vukra::kernel
