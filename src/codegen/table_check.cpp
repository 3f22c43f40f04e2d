#include "codegen/table_check.h"

#include "codegen/generated_names.h"
#include "table/register_table.h"

#include <cstring>
#include <set>

namespace vukra::codegen {

namespace {

constexpr const char* kKeywords[] = {
    "auto",     "break",    "case",     "char",     "const",    "continue", "default",  "do",
    "double",   "else",     "enum",     "extern",   "float",    "for",      "goto",     "if",
    "inline",   "int",      "long",     "register", "restrict", "return",   "short",    "signed",
    "sizeof",   "static",   "struct",   "switch",   "typedef",  "union",    "unsigned", "void",
    "volatile", "while",    "_Bool",    "_Complex", "_Imaginary", "_Alignas", "_Alignof", "_Atomic",
    "_Generic", "_Noreturn", "_Static_assert", "_Thread_local", "bool", "true", "false", "alignas",
    "alignof", "nullptr", "static_assert", "thread_local", "typeof", "constexpr"};

bool word_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool only_word_chars(const std::string& s) {
    for (char c : s)
        if (!word_char(c)) return false;
    return true;
}

bool identifier(const char* s) {
    if (s == nullptr || *s == '\0' || (*s >= '0' && *s <= '9') || !only_word_chars(s)) return false;
    for (const char* k : kKeywords)
        if (std::strcmp(s, k) == 0) return false;
    return true;
}

// "unsigned short", "float", "my_type_t": identifiers separated by single blanks.
bool c_type(const char* s) {
    if (s == nullptr || *s == '\0' || *s == ' ') return false;
    for (const char* p = s; *p; ++p) {
        if (*p == ' ' && (p[1] == ' ' || p[1] == '\0')) return false;
        if (*p != ' ' && !word_char(*p)) return false;
    }
    return true;
}

std::string shown(const char* s) { return s ? std::string("\"") + s + "\"" : "(none)"; }

bool closes_comment(const char* s) { return s != nullptr && std::strstr(s, "*/") != nullptr; }

// The first text under element (attribute values, texts, names) that holds "*/".
const char* comment_breaker(const table::XmlNode* element) {
    if (closes_comment(element->name)) return element->name;
    for (const table::XmlNode* a = element->first_attribute; a; a = a->next)
        if (closes_comment(a->name) || closes_comment(a->value)) return closes_comment(a->name) ? a->name : a->value;
    for (const table::XmlNode* c = element->first_child; c; c = c->next) {
        if (c->kind == table::kXmlText && closes_comment(c->value)) return c->value;
        if (c->kind == table::kXmlElement)
            if (const char* found = comment_breaker(c)) return found;
    }
    return nullptr;
}

} // namespace

std::vector<std::string> generation_problems() {
    std::vector<std::string> problems;
    const table::TableConfig& config = table::config();
    if (!only_word_chars(config.function_prefix))
        problems.push_back("the file prefix (C_code_function_prefix) " + shown(config.function_prefix.c_str()) +
                           " may hold only letters, digits and _");
    if (!config.file_prefix.empty() && !identifier(config.file_prefix.c_str()))
        problems.push_back("the function prefix (C_code_file_prefix) " + shown(config.file_prefix.c_str()) +
                           " must begin a C identifier");
    for (char c : config.output_dir)
        if (c == '"' || static_cast<unsigned char>(c) < 0x20) {
            problems.push_back("the output directory (path) " + shown(config.output_dir.c_str()) +
                               " holds a quote or a control character");
            break;
        }

    std::set<std::string> type_identifiers;
    for (const table::TypeRecord& t : table::types()) {
        if (!identifier(t.name))
            problems.push_back("type " + shown(t.name) + ": its name is not a C identifier");
        else if (!type_identifiers.insert(t.identifier).second)
            problems.push_back("type " + shown(t.name) + ": another type also gives " + t.identifier);
        if (!c_type(t.c_type)) problems.push_back("type " + shown(t.name) + ": Ctype " + shown(t.c_type) + " is not a C type");
    }

    const std::string& d = config.xml_dump; // as the table files decide it
    const bool dump = config.has_xml_dump && !(d.empty() || d == "0" || d == "no" || d == "false");
    std::set<std::string> table_names, functions;
    for (const table::TableInfo& t : table::tables()) {
        const std::string where = "table " + shown(t.name);
        if (!identifier(t.name)) {
            problems.push_back(where + ": its name is not a C identifier");
            continue;
        }
        if (!table_names.insert(t.name).second) problems.push_back(where + ": two tables have this name");
        if (dump)
            if (const char* breaker = comment_breaker(t.element))
                problems.push_back(where + ": the text " + shown(breaker) + " would end the banner comment early");
        for (const auto& [reg, type] : table::registers_of(t)) {
            const std::string at = where + ", register " + shown(reg.name);
            if (!identifier(reg.name)) {
                problems.push_back(at + ": its name is not a C identifier");
                continue;
            }
            if (closes_comment(reg.comment)) problems.push_back(at + ": its comment holds \"*/\"");
            if (type.index < 0) problems.push_back(at + ": its type " + shown(reg.type_name) + " is not declared");
            if (reg.shared_function != nullptr) {
                if (!identifier(reg.shared_function))
                    problems.push_back(at + ": shared function " + shown(reg.shared_function) +
                                       " is not a C identifier");
                continue; // shared functions are shared on purpose
            }
            for (Direction dir : {Direction::kRead, Direction::kWrite}) {
                if (!(dir == Direction::kRead ? readable(reg) : writable(reg))) continue;
                const std::string name = register_function(dir, reg);
                if (!functions.insert(name).second)
                    problems.push_back(at + ": its function " + name + " is generated twice");
            }
        }
    }
    return problems;
}

} // namespace vukra::codegen
