// A register's value as one line of text for a person, by its type: the
// texts of binary_to_text, with a buffer's elements separated by blanks,
// and never cut (binary_to_text stops at its text size).
#pragma once

#include "table/register_table.h"

#include <string>

namespace vukra::table {

// False when the type has no text form. value holds 2 x words bytes.
bool format_value(const TypeRecord& type, const void* value, std::string& text);

} // namespace vukra::table
