#include "table/value_format.h"

#include "table/value_conversion.h"

#include <cstring>

namespace vukra::table {

bool format_value(const TypeRecord& type, const void* value, std::string& text) {
    if (type.name == nullptr || type.words <= 0) return false;
    if (std::strncmp(type.name, "buffer", 6) != 0) {
        char one[kValueTextSize];
        if (!binary_to_text(one, sizeof one, type, value)) return false;
        text = one;
        return true;
    }
    // A buffer: each element alone through binary_to_text's own rendering,
    // as a one-element buffer of its kind.
    const char* c_type = type.c_type ? type.c_type : "";
    std::int32_t element_words = std::strcmp(c_type, "short") == 0 ? 1 : 2;
    TypeRecord one_element = type;
    one_element.words = element_words;
    const std::size_t count = static_cast<std::size_t>(type.words) / static_cast<std::size_t>(element_words);
    const auto* bytes = static_cast<const unsigned char*>(value);
    text.clear();
    for (std::size_t i = 0; i < count; ++i) {
        char one[kValueTextSize];
        if (!binary_to_text(one, sizeof one, one_element, bytes + 2 * static_cast<std::size_t>(element_words) * i))
            return false;
        std::size_t n = std::strlen(one);
        while (n > 0 && one[n - 1] == '\n') --n;
        if (i > 0) text += ' ';
        text.append(one, n);
    }
    return true;
}

} // namespace vukra::table
