#include "table_errors.h"

#include "library_lines.h"
#include "table/register_table.h"
#include "table/xml_fatal.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace vukra::tools {

namespace {

const char* tool_name = "vukra";
std::string table_file;

[[noreturn]] void end_tool(const char* message, int) {
    std::string line = message;
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s%s%s\n", tool_name, table_file.c_str(), table_file.empty() ? "" : ": ", line.c_str());
    std::exit(1);
}

} // namespace

void install_table_error_handler(const char* tool) {
    tool_name = tool;
    table::set_xml_fatal_handler(end_tool);
}

bool table_opens(const char* file) {
    std::FILE* probe = std::fopen(file, "r");
    if (probe != nullptr) std::fclose(probe);
    return probe != nullptr;
}

void set_table_being_read(const char* file) { table_file = file ? file : ""; }

int load_table(const char* file) {
    set_table_being_read(file);
    const LibraryLinesTo nowhere(nullptr);
    return table::load(file);
}

void warn_if_no_register(const char* tool, const char* file) {
    if (table::register_count() == 0)
        std::fprintf(stderr, "%s: warning: the table %s holds no register (does the file end early?)\n", tool, file);
}

} // namespace vukra::tools
