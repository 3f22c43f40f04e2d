#include "kernel/kernel_errors.h"

namespace vukra::kernel {

namespace {

// Slot 0 of the process table doubles as the kernel error variable.
std::int32_t process_table[9];
std::int32_t current_process_error = 0;
bool in_boot_context = true;

} // namespace

int fail(int code) {
    if (in_boot_context)
        process_table[0] = code;
    else if (current_process_error == 0)
        current_process_error = code;
    return -1;
}

std::int32_t kernel_error() { return process_table[0]; }
void clear_kernel_error() { process_table[0] = 0; }
void set_boot_context(bool on) { in_boot_context = on; }

} // namespace vukra::kernel
