// Where the library's diagnostics go: the frames on the line, "ready", the
// times, the system's messages, the kernel's lines. By default they are
// printed with printf on standard output, as the system always has; a host
// may take them instead (modbus_vukra_set_log): it then receives each line,
// its line end removed, and nothing is printed.
#pragma once

#include "modbus_vukra.h"

#include <cstdarg>
#include <cstddef>

namespace vukra::log {

// Prints one diagnostic, printf-style.
void print(const char* format, ...) __attribute__((format(printf, 1, 2)));
void vprint(const char* format, va_list arguments);
// count bytes of text as they stand.
void write(const char* text, std::size_t count);

// Installs the host's sink (null: back to standard output). A line begun
// before the change on some thread goes where its end goes.
void set_sink(modbus_vukra_log_callback sink, void* context);

} // namespace vukra::log
