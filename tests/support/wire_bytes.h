// Builds expected remote-filesystem item streams byte by byte.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vukra::test {

struct Wire {
    std::vector<std::uint8_t> bytes;

    Wire& word(std::uint32_t v) {
        for (int i = 0; i < 4; ++i) bytes.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
        return *this;
    }
    // A 4-byte item holding v.
    Wire& item(std::uint32_t v) { return word(4).word(v); }
    // An item of length L holding these data bytes, then zeros up to L.
    Wire& item(std::uint32_t length, const std::vector<std::uint8_t>& data) {
        word(length);
        bytes.insert(bytes.end(), data.begin(), data.end());
        bytes.resize(bytes.size() + (length - data.size()), 0);
        return *this;
    }
    // A string item: the text, its NUL, zeros up to L.
    Wire& text(std::uint32_t length, const std::string& s) {
        std::vector<std::uint8_t> data(s.begin(), s.end());
        data.push_back(0);
        return item(length, data);
    }
};

} // namespace vukra::test
