// A register lookup by walking the tables in document order, as the table's
// index stands in for: the tests, the fuzzer and the benchmark hold the
// index against it.
#pragma once

#include "table/register_table.h"

#include <cstring>

namespace vukra::test {

inline int find_register_by_walk(table::RegisterRecord& reg, table::TypeRecord& type, const char* register_name) {
    if (register_name == nullptr) return 0;
    for (const table::TableInfo& t : table::tables())
        for (const auto& [r, ty] : table::registers_of(t))
            if (r.name != nullptr && std::strcmp(r.name, register_name) == 0) {
                reg = r;
                type = ty;
                return 1;
            }
    return 0;
}

} // namespace vukra::test
