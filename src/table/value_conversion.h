// Register values between their binary form (16-bit words in register
// order, in host order; a 32-bit value in the first two words as one
// host-order number) and text, chosen by the type's name:
//
//   real          "%f" of a 32-bit float        scanned with "%f"
//   int16/boolean "%d" of the first word        scanned with "%d", low 16 bits kept
//   uint16        "%u" of the first word        (not written from text)
//   int32         "%ld" of the 32-bit value     scanned with "%ld"
//   uint32        "%u" of the 32-bit value      (not written from text)
//   buffer2float  as a buffer                   scanned with "%f[10]" as one float
//   buffer*       one element a line, by C type (not written from text)
#pragma once

#include "table/register_table.h"

#include <cstddef>

namespace vukra::table {

// The text size the exports and the named register calls work with.
inline constexpr std::size_t kValueTextSize = 256;

// 1 with the text (cut to size), 0 when the type cannot be shown.
int binary_to_text(char* text, std::size_t size, const TypeRecord& type, const void* value);

// 1 when the type can be written from text. Text that does not parse still
// counts, and leaves the value as it was.
int text_to_binary(void* value, const char* type_name, const char* text);

} // namespace vukra::table
