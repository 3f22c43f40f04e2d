// The table code generator: the C it writes compiles and runs, the user's
// code survives regeneration, and what it refuses (the pages as a browser
// shows them: html_pages).
#include "codegen/c_sources.h"
#include "codegen/html_pages.h"
#include "codegen/table_check.h"
#include "support/files.h"
#include "support/temp_dir.h"
#include "support/text_checks.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

using namespace vukra;
using test::read_file;
using test::write_file;
using test::contains;

namespace {

struct CodegenTest : ::testing::Test {
    test::TempWorkingDir dir;
    CodegenTest() {
        write_file("table.xml", read_file(VUKRA_EXAMPLES_DIR "/table.xml"));
        EXPECT_EQ(table::load("table.xml"), 1);
        std::filesystem::create_directories("generated");
    }
};

// Puts text between the markers of tag in a generated file.
void insert_user_code(const std::string& path, const std::string& tag, const std::string& text) {
    std::string file = read_file(path);
    std::string marker = "// @MODBUS_CODE_BEGIN/" + tag + "\n";
    std::size_t at = file.find(marker);
    ASSERT_NE(at, std::string::npos) << tag;
    file.insert(at + marker.size(), text);
    write_file(path, file);
}

std::string run(const std::string& command) {
    std::string output_file = "command.out";
    int status = std::system((command + " > " + output_file + " 2>&1").c_str());
    std::string out = read_file(output_file);
    return status == 0 ? out : "FAILED(" + std::to_string(status) + "): " + out;
}

TEST_F(CodegenTest, GeneratedCodeCompilesRunsAndKeepsTheUsersCode) {
    codegen::generate_c_sources();
    const std::string read_block = "   *val = 21.5f;\n\n   return 42;\n";
    insert_user_code("generated/mb_Tableprocess.c", "Function/Read/process/setpoint", read_block);
    insert_user_code("generated/mb_Tableprocess.c", "Header", "#include <stdio.h>\n");
    codegen::generate_c_sources(); // the user's lines must come through this
    std::string table_file = read_file("generated/mb_Tableprocess.c");
    EXPECT_TRUE(contains(table_file, "// @MODBUS_CODE_BEGIN/Function/Read/process/setpoint\n" + read_block +
                                     "// @MODBUS_CODE_END/Function/Read/process/setpoint\n"));
    EXPECT_TRUE(contains(table_file, "// @MODBUS_CODE_BEGIN/Header\n#include <stdio.h>\n// @MODBUS_CODE_END/Header\n"));

    write_file("modbus_header_extern.h",
               "/* Shared functions take the register's address first. */\n"
               "int MbWrite_process_CommonReset(unsigned short address, short *val);\n");
    write_file("main.c", R"(#include "generated/mb_Type.h"
#include "generated/mb_Header.h"
#include <stdio.h>

extern const ModbusTable ModbusTableIndex[];
static unsigned short reset_address;

int MbWrite_process_CommonReset(unsigned short address, short *val)
{
   reset_address = address;
   return *val == 1 ? 7 : -1;
}

int main(void)
{
   const ModbusTable *process = &ModbusTableIndex[0];
   const ModbusRegister *setpoint = &process->registers[0];
   const ModbusRegister *reset = &process->registers[7];
   float value = 0;
   short one = 1;
   int plain = ModbusCall(setpoint->functionRead, process->baseAddress + setpoint->offset, &value, setpoint->type);
   int shared = ModbusCall(reset->functionWrite, process->baseAddress + reset->offset, &one, reset->type);
   printf("%d %.1f %d 0x%x %d %d\n", plain, value, shared, reset_address, process->nbRegisters,
          process->nbWordRegisters);
   return 0;
}
)");
    std::string warnings = run("LC_ALL=C gcc -Wall -Wextra -I. -c generated/mb_Call.c generated/mb_Data.c "
                               "generated/mb_Tableprocess.c generated/mb_Tablestatus.c main.c");
    ASSERT_EQ(warnings.find("FAILED"), std::string::npos) << warnings;
    // The skeletons' fixed text leaves val unused; nothing else may warn.
    std::istringstream lines(warnings);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("warning:") == std::string::npos) continue;
        EXPECT_TRUE(contains(line, "unused parameter 'val'"));
    }
    std::string linked = run("gcc mb_Call.o mb_Data.o mb_Tableprocess.o mb_Tablestatus.o main.o -o table_test");
    ASSERT_EQ(linked, "");
    EXPECT_EQ(run("./table_test"), "42 21.5 7 0x10b 8 12\n");
}

TEST_F(CodegenTest, AlteredMarkersDropTheirBlockAndCrLfLinesAreKept) {
    codegen::write_table_files();
    insert_user_code("generated/mb_Tablestatus.c", "Function/Read/status/alarm", "   *val = 1;\n");
    insert_user_code("generated/mb_Tablestatus.c", "Function/Read/status/temperature", "   *val = 2;\n");
    std::string file = read_file("generated/mb_Tablestatus.c");
    std::size_t end = file.find("// @MODBUS_CODE_END/Function/Read/status/temperature");
    file.replace(end, 3, "//@"); // the end marker no longer matches
    for (std::size_t at = 0; (at = file.find('\n', at)) != std::string::npos; at += 2) file.insert(at, "\r");
    write_file("generated/mb_Tablestatus.c", file); // edited with CR LF
    codegen::write_table_files();
    file = read_file("generated/mb_Tablestatus.c");
    EXPECT_TRUE(contains(file, "   *val = 1;\n"));
    EXPECT_EQ(file.find("   *val = 2;\n"), std::string::npos);
}

// The table's XML goes into each table's file unless C_code_XML_dump says "no".
TEST_F(CodegenTest, TheXmlDumpFollowsItsSetting) {
    codegen::write_table_files();
    EXPECT_TRUE(contains(read_file("generated/mb_Tableprocess.c"),
                         " * Partie de la table MODBUS correspondante en XML :\n<table name=\"process\""));
    std::string no_dump = read_file("table.xml");
    write_file("table.xml", no_dump.replace(no_dump.find("XML_dump=\"yes\""), 14, "XML_dump=\"no\""));
    ASSERT_EQ(table::load("table.xml"), 1);
    codegen::write_table_files();
    EXPECT_EQ(read_file("generated/mb_Tableprocess.c").find("Partie de la table"), std::string::npos);
}

// A directory that cannot be written: vukra_cli_tools.
TEST_F(CodegenTest, AnEmptyTableListAndATableWithoutRegisters) {
    write_file("none.xml", "<root><config/><table_list/></root>");
    ASSERT_EQ(table::load("none.xml"), 1);
    codegen::write_data_file();
    EXPECT_TRUE(contains(read_file("./Data.c"), "ModbusTableIndex [] = {\n   { 0,0,0,0 } // Marqueur"));

    // A table without a register list has no registers; the next keeps its own.
    write_file("hollow.xml", "<root><config/><type_list/><table_list><table name=\"hollow\" base=\"50\"/>"
                             "<table name=\"t\" base=\"100\"><register_list><register name=\"r\" offset=\"2\"/>"
                             "</register_list></table></table_list></root>");
    ASSERT_EQ(table::load("hollow.xml"), 1);
    codegen::write_data_file();
    EXPECT_TRUE(contains(read_file("./Data.c"), "ModbusRegisterhollow [] = {\n};\n"
                                                "// Table t\n"));
    EXPECT_TRUE(contains(read_file("./Data.c"), "   { (ModbusRegister *)ModbusRegisterhollow, 0x0050, 0, 0 }\n"));
}

TEST_F(CodegenTest, ATableThatWouldNotCompileIsRefusedWithItsProblems) {
    write_file("bad.xml", R"(<root><config/><type_list><type name="int16" Ctype="short " words="1"/></type_list>
<table_list><table name="t" base="0"><register_list><register name="9lives" type="int16" offset="0"/>
<register name="ok" type="int16" offset="1"/></register_list></table></table_list></root>)");
    ASSERT_EQ(table::load("bad.xml"), 1);
    EXPECT_EQ(codegen::generation_problems(),
              (std::vector<std::string>{"type \"int16\": Ctype \"short \" is not a C type",
                                        "table \"t\", register \"9lives\": its name is not a C identifier"}));
}

} // namespace
