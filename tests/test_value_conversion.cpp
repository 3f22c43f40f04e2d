// Register values to text and back, by type (through the two exports: test_table_threads).
#include "modbus_vukra.h"
#include "table/value_conversion.h"
#include "table/value_format.h"
#include "table/value_parse.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

using namespace vukra;
using namespace vukra::table;

namespace {

TypeRecord type_of(const char* name, int words, const char* c_type = "?") {
    return TypeRecord{name, words, c_type, 2 * words, 0, "T"};
}

std::string text_of(const TypeRecord& type, const void* value) {
    char text[kValueTextSize];
    if (!binary_to_text(text, sizeof text, type, value)) return "<fails>";
    return text;
}

TEST(ValueConversion, EveryTypeToTextAndBack) {
    std::uint8_t area[16] = {};
    ASSERT_EQ(text_to_binary(area, "real", "21.5"), 1);
    EXPECT_EQ(text_of(type_of("real", 2), area), "21.500000");
    float f;
    std::memcpy(&f, area, 4);
    EXPECT_EQ(f, 21.5f);

    ASSERT_EQ(text_to_binary(area, "int16", "-12"), 1);
    EXPECT_EQ(text_of(type_of("int16", 1), area), "-12");
    EXPECT_EQ(text_of(type_of("uint16", 1), area), "65524");
    ASSERT_EQ(text_to_binary(area, "boolean", "1"), 1);
    EXPECT_EQ(text_of(type_of("boolean", 1), area), "1");
    ASSERT_EQ(text_to_binary(area, "int16", "70000"), 1);
    EXPECT_EQ(text_of(type_of("uint16", 1), area), "4464") << "the low 16 bits";

    ASSERT_EQ(text_to_binary(area, "int32", "-100000"), 1);
    EXPECT_EQ(text_of(type_of("int32", 2), area), "-100000");
    std::uint16_t words[2];
    std::memcpy(words, area, 4);
    EXPECT_EQ(words[0], 0x7960) << "the first word holds the low 16 bits";
    EXPECT_EQ(words[1], 0xFFFE);
    EXPECT_EQ(text_of(type_of("uint32", 2), area), "4294867296");

    ASSERT_EQ(text_to_binary(area, "buffer2float", "0.75[10]"), 1);
    EXPECT_EQ(text_of(type_of("buffer2float", 2, "float"), area), "0.750000\n");

    for (const char* refused : {"uint16", "uint32", "buffer_x", "?"}) EXPECT_EQ(text_to_binary(area, refused, "5"), 0);
    EXPECT_EQ(text_of(type_of("?", 1), area), "<fails>");
    std::uint16_t word = 1234; // text that does not parse counts and leaves the value
    EXPECT_EQ(text_to_binary(&word, "int16", "abc"), 1);
    EXPECT_EQ(word, 1234);
}

TEST(ValueConversion, BuffersShowOneElementALine) {
    const std::int32_t longs[3] = {70000, -5, 99};
    EXPECT_EQ(text_of(type_of("buffer_l", 5, "long"), longs), "70000\n-5\n") << "10 bytes hold 2 longs";
    const std::int16_t shorts[3] = {100, -200, 300};
    EXPECT_EQ(text_of(type_of("buffer_s", 3, "short"), shorts), "100\n-200\n300\n");
    const float floats[2] = {1.5f, -2.0f};
    EXPECT_EQ(text_of(type_of("buffer_f", 4, "float"), floats), "1.500000\n-2.000000\n");
    EXPECT_EQ(text_of(type_of("buffer_c", 2, "char"), floats), "<fails>");

    std::int16_t many[200] = {};
    char small[16];
    ASSERT_EQ(binary_to_text(small, sizeof small, type_of("buffer_big", 200, "short"), many), 1);
    EXPECT_LT(std::strlen(small), sizeof small) << "the text is cut at its buffer";
}

// Numbers mean what they say: whole values in the type's range, decimal or
// 0x hexadecimal for integers; never octal, no blank or text around,
// buffer elements apart by blanks, as many as the buffer holds.
TEST(ValueParse, WholeDecimalOrHexadecimalValuesInRangeAndNothingElse) {
    auto int16_of = [](const char* text) {
        std::int16_t v = 0;
        return parse_value(type_of("int16", 1), text, &v, sizeof v) ? std::to_string(v) : std::string("refused");
    };
    EXPECT_EQ(int16_of("-32768"), "-32768");
    EXPECT_EQ(int16_of("010"), "10");
    EXPECT_EQ(int16_of("0X7fff"), "32767");
    for (const char* bad : {"70000", "0x8000", "", " 5", "5 ", "0x", "-0x5", "1e3", "1.0", "5abc", "0b1", "--5", "+"})
        EXPECT_EQ(int16_of(bad), "refused") << bad;
    std::uint8_t area[16] = {};
    EXPECT_TRUE(parse_value(type_of("uint16", 1), "65535", area, sizeof area));
    EXPECT_FALSE(parse_value(type_of("uint16", 1), "-1", area, sizeof area));
    EXPECT_FALSE(parse_value(type_of("boolean", 1), "2", area, sizeof area));
    EXPECT_FALSE(parse_value(type_of("boolean", 1), "-1", area, sizeof area));
    EXPECT_FALSE(parse_value(type_of("int32", 2), "2147483648", area, sizeof area));
    EXPECT_FALSE(parse_value(type_of("int32", 2), "1", area, 2)) << "does not fit the area";
    EXPECT_FALSE(parse_value(type_of("?", 1), "1", area, sizeof area));
    std::uint32_t u = 0;
    EXPECT_TRUE(parse_value(type_of("uint32", 2), "0xFFFFFFFF", &u, sizeof u));
    EXPECT_EQ(u, 0xFFFFFFFFu);
    EXPECT_FALSE(parse_value(type_of("uint32", 2), "0x100000000", &u, sizeof u));
    float f = 0;
    EXPECT_TRUE(parse_value(type_of("real", 2), "-2.5e1", &f, sizeof f));
    EXPECT_EQ(f, -25.0f);
    for (const char* bad : {"1e999", "0x1p3", "inf", "nan", " 1.5", "1.5x", ".", "1e"})
        EXPECT_FALSE(parse_value(type_of("real", 2), bad, &f, sizeof f)) << bad;
    std::int16_t shorts[3] = {};
    EXPECT_TRUE(parse_value(type_of("buffer_s", 3, "short"), "0x10 010\t-3", shorts, sizeof shorts));
    EXPECT_EQ((std::vector<int>{shorts[0], shorts[1], shorts[2]}), (std::vector<int>{16, 10, -3}));
    for (const char* bad : {"1 2", "1 2 3 4", "1,2,3", "1, 2, 3"})
        EXPECT_FALSE(parse_value(type_of("buffer_s", 3, "short"), bad, shorts, sizeof shorts)) << bad;
}

// A long buffer's text is whole, with its elements apart by blanks, where
// the exported conversion stops at its 256 bytes.
TEST(ValueFormat, ShowsEveryElementOfALongBuffer) {
    std::int16_t elements[100];
    for (int i = 0; i < 100; ++i) elements[i] = static_cast<std::int16_t>(-1000 - i);
    TypeRecord type = type_of("buffer_s", 100, "short");
    std::string text;
    ASSERT_TRUE(format_value(type, elements, text));
    EXPECT_EQ(text.substr(0, 12), "-1000 -1001 ");
    EXPECT_EQ(text.substr(text.size() - 6), " -1099");
    EXPECT_EQ(std::count(text.begin(), text.end(), ' '), 99);
    std::int16_t back[100] = {};
    ASSERT_TRUE(parse_value(type, text.c_str(), back, sizeof back));
    EXPECT_EQ(std::memcmp(back, elements, sizeof back), 0);
    float gain = 0.75f;
    ASSERT_TRUE(format_value(type_of("buffer2float", 2, "float"), &gain, text));
    EXPECT_EQ(text, "0.750000");
    EXPECT_FALSE(format_value(type_of("buffer_x", 2, "double"), &gain, text));
}

} // namespace
