#include "table/value_parse.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>
#include <algorithm>

namespace vukra::table {

namespace {

bool is(const char* a, const char* b) { return a != nullptr && std::strcmp(a, b) == 0; }

// Decimal ("-12", "010" is ten), or hexadecimal after "0x" ("0x1F"); no
// blank, no sign before "0x", nothing after the digits.
bool whole_integer(const char* text, long long low, long long high, long long& out) {
    if (text == nullptr) return false;
    const char* p = text;
    bool negative = false;
    int base = 10;
    if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        base = 16;
        p += 2;
    } else if (*p == '-' || *p == '+') {
        negative = *p == '-';
        ++p;
    }
    if (*p == '\0') return false;
    unsigned long long magnitude = 0;
    for (; *p; ++p) {
        int digit;
        if (*p >= '0' && *p <= '9')
            digit = *p - '0';
        else if (base == 16 && *p >= 'a' && *p <= 'f')
            digit = *p - 'a' + 10;
        else if (base == 16 && *p >= 'A' && *p <= 'F')
            digit = *p - 'A' + 10;
        else
            return false;
        magnitude = magnitude * static_cast<unsigned>(base) + static_cast<unsigned>(digit);
        if (magnitude > (1ull << 40)) return false; // far past every type's range
    }
    long long v = negative ? -static_cast<long long>(magnitude) : static_cast<long long>(magnitude);
    if (v < low || v > high) return false;
    out = v;
    return true;
}

// A decimal number: sign, digits with at most one point, an exponent.
bool decimal_number(const char* p) {
    if (*p == '-' || *p == '+') ++p;
    int digits = 0;
    while (*p >= '0' && *p <= '9') ++p, ++digits;
    if (*p == '.') {
        ++p;
        while (*p >= '0' && *p <= '9') ++p, ++digits;
    }
    if (digits == 0) return false;
    if (*p == 'e' || *p == 'E') {
        ++p;
        if (*p == '-' || *p == '+') ++p;
        if (!(*p >= '0' && *p <= '9')) return false;
        while (*p >= '0' && *p <= '9') ++p;
    }
    return *p == '\0';
}

bool whole_float(const char* text, float& out) {
    if (text == nullptr || !decimal_number(text)) return false;
    char* end = nullptr;
    float v = std::strtof(text, &end);
    if (*end != '\0' || !std::isfinite(v)) return false;
    out = v;
    return true;
}

// Splits at blanks (spaces, tabs, line feeds), as buffer values are shown.
std::vector<std::string> fields(const char* text) {
    std::vector<std::string> out;
    std::string current;
    for (const char* p = text; ; ++p) {
        if (*p == '\0' || *p == ' ' || *p == '\t' || *p == '\n') {
            if (!current.empty()) out.push_back(current);
            current.clear();
            if (*p == '\0') break;
        } else {
            current += *p;
        }
    }
    return out;
}

bool parse_buffer(const TypeRecord& type, const char* text, std::uint8_t* value, std::size_t bytes) {
    std::size_t element = is(type.c_type, "short") ? 2 : (is(type.c_type, "long") || is(type.c_type, "float")) ? 4 : 0;
    if (element == 0) return false;
    std::vector<std::string> items = fields(text);
    if (items.size() != bytes / element) return false;
    for (std::size_t i = 0; i < items.size(); ++i) {
        std::uint8_t* at = value + i * element;
        long long v;
        float f;
        if (is(type.c_type, "float")) {
            if (!whole_float(items[i].c_str(), f)) return false;
            std::memcpy(at, &f, 4);
        } else if (element == 4) {
            if (!whole_integer(items[i].c_str(), INT32_MIN, INT32_MAX, v)) return false;
            auto l = static_cast<std::int32_t>(v);
            std::memcpy(at, &l, 4);
        } else {
            if (!whole_integer(items[i].c_str(), INT16_MIN, INT16_MAX, v)) return false;
            auto s = static_cast<std::int16_t>(v);
            std::memcpy(at, &s, 2);
        }
    }
    return true;
}

} // namespace

bool parse_value(const TypeRecord& type, const char* text, void* area, std::size_t size) {
    if (type.name == nullptr || text == nullptr || type.words <= 0) return false;
    const std::size_t bytes = 2 * static_cast<std::size_t>(type.words);
    if (bytes > size) return false;
    std::vector<std::uint8_t> value(bytes, 0);
    long long v = 0;
    float f = 0;
    const char* name = type.name;
    bool ok;
    if (is(name, "int16"))
        ok = whole_integer(text, INT16_MIN, INT16_MAX, v);
    else if (is(name, "uint16"))
        ok = whole_integer(text, 0, UINT16_MAX, v);
    else if (is(name, "boolean"))
        ok = whole_integer(text, 0, 1, v);
    else if (is(name, "int32"))
        ok = whole_integer(text, INT32_MIN, INT32_MAX, v);
    else if (is(name, "uint32"))
        ok = whole_integer(text, 0, UINT32_MAX, v);
    else if (is(name, "real") || is(name, "buffer2float"))
        ok = whole_float(text, f);
    else if (std::strncmp(name, "buffer", 6) == 0)
        return parse_buffer(type, text, value.data(), bytes) && (std::memcpy(area, value.data(), bytes), true);
    else
        return false;
    if (!ok) return false;
    if (is(name, "real") || is(name, "buffer2float")) {
        std::memcpy(value.data(), &f, std::min<std::size_t>(4, bytes));
    } else {
        // Integers: the low bytes of the host-order number (little-endian hosts).
        auto u = static_cast<std::uint32_t>(v);
        std::memcpy(value.data(), &u, std::min<std::size_t>(4, bytes));
    }
    std::memcpy(area, value.data(), bytes);
    return true;
}

} // namespace vukra::table
