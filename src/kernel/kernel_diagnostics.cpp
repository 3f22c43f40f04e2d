#include "kernel/kernel_diagnostics.h"

#include <cstdarg>

namespace vukra::kernel {

namespace {

bool redirected = false;
std::FILE* chosen = nullptr;

} // namespace

void diagnostic(const char* format, ...) {
    std::FILE* out = redirected ? chosen : stdout;
    if (out == nullptr) return;
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(out, format, arguments);
    va_end(arguments);
}

std::FILE* set_diagnostic_stream(std::FILE* stream) {
    std::FILE* before = redirected ? chosen : stdout;
    redirected = true;
    chosen = stream;
    return before;
}

} // namespace vukra::kernel
