// The emulated device's holding registers: 65536 words, of which those the
// register table maps answer; the others give exception 2. A register's
// access in the table holds too: reading a "W" register or writing an "R"
// one gives exception 2 (illegal data address) as well, as a device that
// does not allow that function on that address answers.
#pragma once

#include <bitset>
#include <cstdint>
#include <vector>

namespace vukra::sim {

struct RegisterMemory {
    std::vector<std::uint16_t> words = std::vector<std::uint16_t>(65536, 0);
    std::bitset<65536> mapped;
    std::bitset<65536> readable;
    std::bitset<65536> writable;

    bool all_mapped(std::uint32_t first, std::uint32_t count) const;
    // All mapped and allowed for reading (or writing).
    bool all_allowed(std::uint32_t first, std::uint32_t count, bool writing) const;
};

// Maps every register of the loaded table, with its "value" attribute as
// initial value where it has one (by its type; buffers as numbers separated
// by blanks), else 0. Returns the number of registers mapped.
int load_registers(RegisterMemory& memory);

} // namespace vukra::sim
