#include "library_lines.h"

#include "modbus_vukra.h"

#include <atomic>

namespace vukra::tools {

namespace {

std::atomic<std::FILE*> target{stdout}; // as the library prints them until a tool chooses

void to_target(void*, const char* line) {
    if (std::FILE* out = target.load()) {
        std::fputs(line, out);
        std::fputc('\n', out);
        if (out != stdout) std::fflush(out);
    }
}

} // namespace

std::FILE* library_lines_to(std::FILE* stream) {
    static const bool installed = (modbus_vukra_set_log(to_target, nullptr), true);
    (void)installed;
    std::fflush(stdout);
    return target.exchange(stream);
}

} // namespace vukra::tools
