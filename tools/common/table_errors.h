// What every tool does about a register table that cannot be used: the
// table reader's syntax errors end the tool with their message on standard
// error and status 1 (the library's own ending prints on standard output
// and exits with 0), and a table without a single register is worth a
// warning: a file that ends early loads as whatever came before its end.
#pragma once

namespace vukra::tools {

// Installs the ending for the table reader's fatal errors; tool names the
// program in the message ("vukra: table.xml: Xml error in attribute").
void install_table_error_handler(const char* tool);

// Whether the table file opens for reading: asked before loading, so that
// a missing table is told as such rather than as a failed load.
bool table_opens(const char* file);

// Says which table the next load reads, for the message above.
void set_table_being_read(const char* file);

// Loads the table without the reader's own lines ("error: cannot open xml
// input file: ...") on the tool's standard output, which carries its data:
// the tool says why on standard error itself. 1 when loaded.
int load_table(const char* file);

// After a load: warns on standard error when the table holds no register.
void warn_if_no_register(const char* tool, const char* file);

} // namespace vukra::tools
