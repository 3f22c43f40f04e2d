// Writers of the device side's C sources, each over the loaded register
// table, into the table's output directory:
//   <prefix>Type.h    the ModbusRegister and ModbusTable types, then the TYPE_ constants
//   <prefix>Header.h  a prototype for every register's read and write function
//   <prefix>Call.c    ModbusCall, the dispatcher by type
//   <prefix>Data.c    one register array per table and the table index
//   <prefix>Table<name>.c  function skeletons of one table, keeping the
//                     user's code between the marker comments
#pragma once

#include <string>
#include <vector>

namespace vukra::codegen {

void write_type_header();    // written anew, without its #endif
void write_type_constants(); // appended to the type header, with the #endif
void write_prototypes();
void write_dispatcher();
void write_data_file(); // created empty, then the arrays, then the index
void write_table_files();

// All of them, in that order.
void generate_c_sources();

// The files of the last generate_c_sources that could not be opened or
// written whole (those without a message of their own included).
const std::vector<std::string>& unwritten_files();

} // namespace vukra::codegen
