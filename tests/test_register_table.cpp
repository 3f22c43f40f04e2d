// The register table: loading, lookups, the index, listings.
#include "support/files.h"
#include "support/temp_dir.h"
#include "table/register_table.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace vukra;
using namespace vukra::table;

namespace {

const char kTable[] = R"(<root>
   <config modbus_word_size="2" C_code_file_prefix="Mb" path="out"/>
   <type_list>
      <type name="int16" Ctype="short" words="1" SizeCtype="2"/>
      <type name="int32" Ctype="long" words="2" SizeCtype="4"/>
      <type name="int16" Ctype="char" words="9" SizeCtype="9"/>
   </type_list>
   <table_list>
      <table name="first" base="10">
         <register_list>
            <register name="a" comment="first a" offset="3" access="R" type="int16"/>
            <register name="twice" offset="4" access="rw" type="int32" shared_function="Shared"/>
         </register_list>
      </table>
      <table name="hollow" base="50"/>
      <table name="packed" base="100" auto_offset="yes">
         <register_list>
            <register name="p0" type="int32" offset="50"/>
            <register name="p1" type="int16" access="W"/>
            <register name="p2" type="mystery"/>
            <register name="p3" type="int16"/>
            <register name="twice" type="int16"/>
         </register_list>
      </table>
      <table name="not_packed" base="200" auto_offset="Yes">
         <register_list>
            <register name="n0" type="int32" offset="7"/>
            <register name="n1" type="int16"/>
         </register_list>
      </table>
      <table name="empty" base="300"/>
   </table_list>
</root>)";

struct TableTest : ::testing::Test {
    test::TempWorkingDir dir;
    TableTest() {
        test::write_file("table.xml", kTable);
        EXPECT_EQ(load("table.xml"), 1);
    }
    RegisterRecord reg{};
    TypeRecord type{};
};

TEST_F(TableTest, ConfigurationAndTypes) {
    EXPECT_EQ(config().modbus_word_size, 2);
    EXPECT_EQ(config().file_prefix, "Mb");
    EXPECT_FALSE(config().has_function_prefix);
    EXPECT_EQ(config().output_dir, "out/");

    const auto shown = [](const TypeRecord& t) {
        return std::string(t.name) + " " + t.c_type + " " + std::to_string(t.words) + " " + std::to_string(t.c_size) +
               " " + std::to_string(t.index) + " " + t.identifier;
    };
    ASSERT_EQ(find_type("int32", type), 1);
    EXPECT_EQ(shown(type), "int32 long 2 4 1 TYPE_INT32");
    ASSERT_EQ(find_type("int16", type), 1);
    EXPECT_EQ(type.words, 1) << "the first type of a name wins";
    EXPECT_EQ(find_type("Int16", type), 0);
    EXPECT_EQ(shown(type), "? ? 1 2 -1 ?");
    EXPECT_EQ(find_type(nullptr, type), 0);
}

TEST_F(TableTest, RegistersWithOffsetsAccessAndTheirTypes) {
    ASSERT_EQ(find_register(reg, type, "a"), 1);
    EXPECT_EQ(std::string(reg.table_name) + " " + reg.comment, "first first a");
    EXPECT_EQ((std::vector<std::uint32_t>{reg.base, reg.offset, address_of(reg)}), (std::vector<std::uint32_t>{0x10, 3, 0x13}));
    EXPECT_EQ(reg.access, kAccessRead);

    ASSERT_EQ(find_register(reg, type, "twice"), 1);
    EXPECT_STREQ(reg.table_name, "first") << "the earlier table wins";
    EXPECT_EQ(reg.access, kAccessReadWrite) << "lower-case rw is any other text";
    EXPECT_STREQ(reg.shared_function, "Shared");
    EXPECT_STREQ(type.name, "int32");

    // Automatic offsets pack by word counts, from 0, ignoring "offset".
    const std::pair<const char*, unsigned> packed[] = {{"p0", 0}, {"p1", 2}, {"p2", 3}, {"p3", 4}};
    for (auto [name, offset] : packed) {
        ASSERT_EQ(find_register(reg, type, name), 1) << name;
        EXPECT_EQ(reg.offset, offset) << name;
    }
    find_register(reg, type, "p1");
    EXPECT_EQ(reg.access, kAccessWrite);
    find_register(reg, type, "p2");
    EXPECT_STREQ(type.name, "?") << "an undeclared type gives the default";
    EXPECT_STREQ(reg.type_name, "mystery");

    ASSERT_EQ(find_register(reg, type, "n1"), 1);
    EXPECT_EQ(reg.offset, 0u) << "\"Yes\" is not \"yes\": no automatic offsets";

    EXPECT_EQ(find_register(reg, type, "nothing"), 0);
    EXPECT_EQ(find_register(reg, type, nullptr), 0);
}

// The index against a walk of the tables: the XML reader's fuzzer, on
// every table that loads.
TEST_F(TableTest, RegistersByIndexInDocumentOrder) {
    ASSERT_EQ(register_count(), 9);
    EXPECT_EQ(register_by_index(reg, 9), 0);
    EXPECT_EQ(register_by_index(reg, -1), 0);
    ASSERT_EQ(register_by_index(reg, 6), 1);
    EXPECT_STREQ(reg.name, "twice");
    EXPECT_STREQ(reg.table_name, "packed");
}

TEST_F(TableTest, ListingsPrintTheirLines) {
    testing::internal::CaptureStdout();
    list_tables();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "* Liste des tables *\nfirst [0x0010]\nhollow [0x0050]\npacked [0x0100]\nnot_packed [0x0200]\nempty [0x0300]\n");
    testing::internal::CaptureStdout();
    EXPECT_EQ(list_registers("first", true), 1);
    EXPECT_EQ(list_registers("hollow", false), 1); // lists nothing: the next table's registers are its own
    EXPECT_EQ(list_registers("packed", false), 1);
    EXPECT_EQ(list_registers("empty", false), 1);
    EXPECT_EQ(list_registers("none", false), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "* Liste des registres de la table \"first\" *\n"
              "a [0x0013, int16 (1)]\n -> first a\n"
              "twice [0x0014, int32 (2)]\n -> (null)\n"
              "* Liste des registres de la table \"hollow\" *\n"
              "* Liste des registres de la table \"packed\" *\n"
              "p0 [0x0100, int32 (2)]\np1 [0x0102, int16 (1)]\np2 [0x0103, mystery (1)]\n"
              "p3 [0x0104, int16 (1)]\ntwice [0x0105, int16 (1)]\n"
              "* Liste des registres de la table \"empty\" *\n"
              "* Liste des registres de la table \"none\" *\n");
}

TEST_F(TableTest, AFailedLoadKeepsTheTableAndSaysWhy) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(load("missing.xml"), 0);
    EXPECT_EQ(load(nullptr), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "error: cannot open xml input file: missing.xml\r\n"
              "error: invalid xml input file\r\n"
              "error: cannot open xml input file: (null)\r\n");
    EXPECT_EQ(find_register(reg, type, "a"), 1);

    test::write_file("bare.xml", "<root><config/></root>");
    ASSERT_EQ(load("bare.xml"), 1);
    EXPECT_EQ(config().modbus_word_size, 0);
    EXPECT_EQ(config().output_dir, "./");
    EXPECT_EQ(register_count(), 0);
    EXPECT_EQ(find_register(reg, type, "a"), 0);
}

} // namespace
