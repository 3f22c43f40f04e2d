// Strict reading of a value typed by a person: the whole text must be a
// value of the register's type, in its range. (The conversion the library
// exports is lenient by contract; tools check with this first.)
//
//   int16 -32768..32767, uint16 0..65535, boolean 0 or 1,
//   int32 and uint32 in their ranges, real and buffer2float a finite number,
//   other buffers: exactly their element count of numbers of their C type,
//   separated by blanks.
//
// Integers are decimal ("010" is ten: never octal) or hexadecimal after
// "0x" ("0xFF"), and must lie in the type's range; reals are decimal
// ("1.5", "-2e3"). Nothing else: no blank around the number, no text after
// it, no "inf" or "nan", no hexadecimal real.
#pragma once

#include "table/register_table.h"

#include <cstddef>

namespace vukra::table {

// Writes the value area (2 x words bytes, host order) into area of size
// bytes. False, with area untouched, when the text is not such a value.
bool parse_value(const TypeRecord& type, const char* text, void* area, std::size_t size);

} // namespace vukra::table
