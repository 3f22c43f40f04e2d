#include "kernel/kernel_diagnostics.h"

#include "session/log.h"

#include <cstdarg>

namespace vukra::kernel {

namespace {

// Standard output until a program chooses; null: nowhere.
std::FILE*& stream() {
    static std::FILE* chosen = stdout;
    return chosen;
}

} // namespace

void diagnostic(const char* format, ...) {
    std::FILE* out = stream();
    if (out == nullptr) return;
    va_list arguments;
    va_start(arguments, format);
    if (out == stdout)
        log::vprint(format, arguments); // the library's own diagnostics, wherever the host sends them
    else
        std::vfprintf(out, format, arguments);
    va_end(arguments);
}

std::FILE* set_diagnostic_stream(std::FILE* chosen) {
    std::FILE* before = stream();
    stream() = chosen;
    return before;
}

} // namespace vukra::kernel
