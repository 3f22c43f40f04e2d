// The user's code in a generated table file, carried over to the next
// generation of that file: whatever stands between the lines
//   // @MODBUS_CODE_BEGIN/<tag>
//   // @MODBUS_CODE_END/<tag>
// is written again between the same markers.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace vukra::codegen {

struct KeptLines {
    std::string file_name;
    std::vector<std::string> lines; // without their line feeds (nor a CR before them)
};

// The lines of a previous file; none when it does not exist.
KeptLines load_kept_lines(const std::string& file_name);

// Writes the lines between the tag's markers, each with a line feed; nothing
// when either marker is missing or the end comes first.
void write_kept_code(std::FILE* out, const KeptLines& kept, const std::string& tag);

} // namespace vukra::codegen
