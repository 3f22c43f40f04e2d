// The marks of the local card's written units: one bit a unit, grown as
// writes reach further (a write is not cut at the card's end).
#include "kernel/card_changes.h"

#include <vector>

namespace vukra::kernel {

namespace {

struct CardChanges {
    bool noted = false;
    std::vector<std::uint64_t> bits; // bit u: unit u was written
};

CardChanges changes;

constexpr std::uint64_t kBitsPerWord = 64;

} // namespace

void card_changes_start() {
    changes.bits.assign(0x800000 / kCardChangeUnit / kBitsPerWord, 0);
    changes.noted = true;
}

void card_changes_stop() {
    changes.noted = false;
    changes.bits.clear();
    changes.bits.shrink_to_fit();
}

bool card_changes_noted() { return changes.noted; }

void note_card_write(std::uint64_t offset, std::uint64_t length) {
    if (!changes.noted || length == 0) return;
    const std::uint64_t first = offset / kCardChangeUnit, last = (offset + length - 1) / kCardChangeUnit;
    if (last / kBitsPerWord >= changes.bits.size()) changes.bits.resize(last / kBitsPerWord + 1, 0);
    for (std::uint64_t u = first; u <= last; ++u) changes.bits[u / kBitsPerWord] |= std::uint64_t{1} << (u % kBitsPerWord);
}

bool card_changed(std::uint64_t offset, std::uint64_t length) {
    if (length == 0) return false;
    const std::uint64_t first = offset / kCardChangeUnit, last = (offset + length - 1) / kCardChangeUnit;
    for (std::uint64_t u = first; u <= last && u / kBitsPerWord < changes.bits.size(); ++u)
        if (changes.bits[u / kBitsPerWord] >> (u % kBitsPerWord) & 1) return true;
    return false;
}

} // namespace vukra::kernel
