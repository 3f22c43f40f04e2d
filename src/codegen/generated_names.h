// The names the generator gives to files, functions and marker tags.
#pragma once

#include "table/register_table.h"

#include <string>

namespace vukra::codegen {

enum class Direction { kRead, kWrite };

// "<dir><file prefix><word>.c" and ".h", with word "Call", "Data", "Type" or "Header".
std::string source_file(const char* word);
std::string header_file(const char* word);
// "<dir><file prefix>Table<table>.c"
std::string table_file(const char* table_name);
// "<function prefix>Read_<table>_<name>" or "...Write_..."
std::string function_name(Direction direction, const char* table_name, const char* name);
// The function of a register: its shared function's name when it has one.
std::string register_function(Direction direction, const table::RegisterRecord& reg);
// "Function/Read/<table>/<register>"
std::string function_tag(Direction direction, const table::RegisterRecord& reg);

inline bool readable(const table::RegisterRecord& r) { return (r.access & table::kAccessRead) != 0; }
inline bool writable(const table::RegisterRecord& r) { return (r.access & table::kAccessWrite) != 0; }

} // namespace vukra::codegen
