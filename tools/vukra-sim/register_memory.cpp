#include "register_memory.h"

#include "table/register_table.h"
#include "table/value_conversion.h"
#include "table/value_parse.h"

#include <cstdio>

namespace vukra::sim {

bool RegisterMemory::all_mapped(std::uint32_t first, std::uint32_t count) const {
    for (std::uint32_t a = first; a < first + count; ++a)
        if (a > 0xFFFF || !mapped[a]) return false;
    return true;
}

bool RegisterMemory::all_allowed(std::uint32_t first, std::uint32_t count, bool writing) const {
    for (std::uint32_t a = first; a < first + count; ++a)
        if (a > 0xFFFF || !(writing ? writable[a] : readable[a])) return false;
    return true;
}

int load_registers(RegisterMemory& memory) {
    int count = 0;
    table::RegisterRecord reg;
    for (int i = 0; table::register_by_index(reg, i); ++i, ++count) {
        table::TypeRecord type;
        table::find_type(reg.type_name, type);
        const std::size_t words = static_cast<std::size_t>(type.words > 0 ? type.words : 1);
        std::uint8_t area[table::kValueTextSize] = {};
        const char* text = table::xml_attribute_value(reg.element, "value");
        if (text != nullptr && !table::parse_value(type, text, area, sizeof area))
            std::fprintf(stderr, "vukra-sim: value \"%s\" of %s is not a %s; it starts at 0\n", text, reg.name,
                         type.name);
        // The first register holds the most significant word of the host-order number.
        for (std::size_t k = 0; k < words && k < table::kValueTextSize / 2; ++k) {
            std::uint32_t address = (table::address_of(reg) + static_cast<std::uint32_t>(k)) & 0xFFFF;
            std::size_t hi = 2 * words - 1 - 2 * k;
            memory.words[address] = static_cast<std::uint16_t>(area[hi] << 8 | area[hi - 1]);
            memory.mapped[address] = true;
            memory.readable[address] = (reg.access & table::kAccessRead) != 0;
            memory.writable[address] = (reg.access & table::kAccessWrite) != 0;
        }
    }
    return count;
}

} // namespace vukra::sim
