// What in the loaded table would make the C generation write outside its
// output directory or produce C that does not compile: checked before a
// single file is written, so that a refused table leaves every file as it
// was.
//
//   table, register, type and shared-function names: C identifiers, not C
//     keywords (they form file names, array and function names, TYPE_
//     constants);
//   no two tables of one name (one skeleton file each), no two generated
//     functions or TYPE_ constants of one name;
//   every register of a declared type, and C types made of identifiers;
//   the name prefixes: letters, digits and "_" only;
//   no "*/" in any text that lands in a comment (comments, and the whole
//     table element when its XML is dumped into the banner), and no quote or
//     control character in the output directory (it lands in #include "").
#pragma once

#include <string>
#include <vector>

namespace vukra::codegen {

// One line per problem, naming the table, register or type; empty when the
// table can be generated.
std::vector<std::string> generation_problems();

} // namespace vukra::codegen
