// The register table as HTML: a register map for documentation, and a live
// page of current values with a form per register that posts a new value to
// the device's web interface.
#pragma once

#include "table/register_table.h"

#include <functional>

namespace vukra::codegen {

// Reads a register's binary value into value (256 bytes); non-zero on success.
using ReadRegister = std::function<int(const table::RegisterRecord&, const table::TypeRecord&, void* value)>;

// Both return 0, also when the file cannot be created (nothing is written then).
int write_register_map(const char* path);

// Reads every register, or only the one named (the others show the text of
// their cached "value" attribute), and stores what it read, or "Erreur", in
// the register's "value" attribute.
int write_live_page(const char* path, const char* host, const ReadRegister& read, const char* register_name);

// Whether the last page asked for was created and written whole.
bool last_page_written();

// The generator's entry: argv[1] names the table. -1 without it, 1 when the
// table loads, 0 when it does not.
int generator_entry(int argc, char** argv);

} // namespace vukra::codegen
