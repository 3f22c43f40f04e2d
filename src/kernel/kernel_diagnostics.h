// Where the kernel's diagnostics go. The library prints them on standard
// output, which is where they go unless a program says otherwise; a tool
// that writes data on standard output sends them elsewhere or nowhere.
#pragma once

#include <cstdio>

namespace vukra::kernel {

// Prints one diagnostic, printf-style, on the current stream.
void diagnostic(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The stream diagnostics go to from now on; null: nowhere. Returns the one before.
std::FILE* set_diagnostic_stream(std::FILE* stream);

} // namespace vukra::kernel
