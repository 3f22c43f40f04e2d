// Where the library's own lines (frames on the line, times, the system's
// messages) go in a tool: its standard output carries only data, so they
// go through the library's diagnostics sink to standard error, nowhere, or
// (for a command whose data they are) to standard output.
#pragma once

#include <cstdio>

namespace vukra::tools {

// From now on the library's lines go to stream, null: nowhere. Returns the
// stream before.
std::FILE* library_lines_to(std::FILE* stream);

// While it lives, the library's lines go to stream.
class LibraryLinesTo {
public:
    explicit LibraryLinesTo(std::FILE* stream) : before_(library_lines_to(stream)) {}
    ~LibraryLinesTo() { library_lines_to(before_); }
    LibraryLinesTo(const LibraryLinesTo&) = delete;
    LibraryLinesTo& operator=(const LibraryLinesTo&) = delete;

private:
    std::FILE* before_;
};

} // namespace vukra::tools
