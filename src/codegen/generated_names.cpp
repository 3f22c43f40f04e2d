#include "codegen/generated_names.h"

namespace vukra::codegen {

namespace {

std::string text(const char* s) { return s ? s : "(null)"; }
const char* word_of(Direction d) { return d == Direction::kRead ? "Read" : "Write"; }

} // namespace

// The configuration's keys are crossed on purpose: "C_code_function_prefix"
// prefixes file names and "C_code_file_prefix" function names.
std::string source_file(const char* word) {
    return table::config().output_dir + table::config().function_prefix + word + ".c";
}

std::string header_file(const char* word) {
    return table::config().output_dir + table::config().function_prefix + word + ".h";
}

std::string table_file(const char* table_name) {
    return table::config().output_dir + table::config().function_prefix + "Table" + text(table_name) + ".c";
}

std::string function_name(Direction direction, const char* table_name, const char* name) {
    return table::config().file_prefix + word_of(direction) + "_" + text(table_name) + "_" + text(name);
}

std::string register_function(Direction direction, const table::RegisterRecord& reg) {
    return function_name(direction, reg.table_name, reg.shared_function ? reg.shared_function : reg.name);
}

std::string function_tag(Direction direction, const table::RegisterRecord& reg) {
    return std::string("Function/") + word_of(direction) + "/" + text(reg.table_name) + "/" + text(reg.name);
}

} // namespace vukra::codegen
