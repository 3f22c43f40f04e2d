#include "table/value_conversion.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

namespace vukra::table {

namespace {

template <typename T>
T read_as(const void* value, std::size_t at = 0) {
    T v;
    std::memcpy(&v, static_cast<const unsigned char*>(value) + at, sizeof v);
    return v;
}

template <typename T>
void write_as(void* value, T v) {
    std::memcpy(value, &v, sizeof v);
}

bool is(const char* name, const char* wanted) { return std::strcmp(name, wanted) == 0; }

// One element a line: "float", "long" (32-bit) or "short" (16-bit).
int buffer_to_text(char* text, std::size_t size, const TypeRecord& type, const void* value) {
    const char* c_type = type.c_type ? type.c_type : "";
    std::size_t element;
    if (is(c_type, "float") || is(c_type, "long"))
        element = 4;
    else if (is(c_type, "short"))
        element = 2;
    else
        return 0;
    std::size_t count = static_cast<std::size_t>(type.words > 0 ? type.words : 0) * 2 / element;
    std::size_t used = 0;
    text[0] = '\0';
    for (std::size_t i = 0; i < count && used < size; ++i) {
        int n;
        if (is(c_type, "float"))
            n = std::snprintf(text + used, size - used, "%f\n", static_cast<double>(read_as<float>(value, i * 4)));
        else if (is(c_type, "long"))
            n = std::snprintf(text + used, size - used, "%ld\n", static_cast<long>(read_as<std::int32_t>(value, i * 4)));
        else
            n = std::snprintf(text + used, size - used, "%d\n", static_cast<int>(read_as<std::int16_t>(value, i * 2)));
        if (n < 0) return 0;
        used += static_cast<std::size_t>(n);
    }
    return 1;
}

} // namespace

int binary_to_text(char* text, std::size_t size, const TypeRecord& type, const void* value) {
    if (text == nullptr || size == 0 || value == nullptr || type.name == nullptr) return 0;
    const char* name = type.name;
    if (is(name, "real"))
        std::snprintf(text, size, "%f", static_cast<double>(read_as<float>(value)));
    else if (is(name, "int16") || is(name, "boolean"))
        std::snprintf(text, size, "%d", static_cast<int>(read_as<std::int16_t>(value)));
    else if (is(name, "uint16"))
        std::snprintf(text, size, "%u", static_cast<unsigned>(read_as<std::uint16_t>(value)));
    else if (is(name, "int32"))
        std::snprintf(text, size, "%ld", static_cast<long>(read_as<std::int32_t>(value)));
    else if (is(name, "uint32"))
        std::snprintf(text, size, "%u", static_cast<unsigned>(read_as<std::uint32_t>(value)));
    else if (std::strncmp(name, "buffer", 6) == 0)
        return buffer_to_text(text, size, type, value);
    else
        return 0;
    return 1;
}

int text_to_binary(void* value, const char* type_name, const char* text) {
    if (value == nullptr || type_name == nullptr || text == nullptr) return 0;
    if (is(type_name, "real")) {
        float f;
        if (std::sscanf(text, "%f", &f) == 1) write_as(value, f);
    } else if (is(type_name, "int16") || is(type_name, "boolean")) {
        int v;
        if (std::sscanf(text, "%d", &v) == 1) write_as(value, static_cast<std::uint16_t>(v));
    } else if (is(type_name, "int32")) {
        long v;
        if (std::sscanf(text, "%ld", &v) == 1) write_as(value, static_cast<std::uint32_t>(v));
    } else if (is(type_name, "buffer2float")) {
        float f;
        if (std::sscanf(text, "%f[10]", &f) == 1) write_as(value, f);
    } else {
        return 0;
    }
    return 1;
}

} // namespace vukra::table
