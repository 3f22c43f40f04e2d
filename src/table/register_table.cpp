#include "table/register_table.h"
#include "session/log.h"

#include "platform/platform.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vukra::table {

namespace {

const TypeRecord kDefaultType{"?", 1, "?", 2, -1, "?"};

struct Model {
    XmlNode* document = nullptr;
    XmlNode* config = nullptr;
    XmlNode* tables = nullptr;
    std::string file_name;
    TableConfig settings;

    std::vector<TypeRecord> type_list;
    std::deque<std::string> identifiers; // stable storage for TypeRecord::identifier
    std::unordered_map<std::string_view, int> type_by_name; // first of each name
    std::vector<RegisterRecord> registers; // document order
    std::vector<int> register_type; // index into type_list, or -1
    std::unordered_map<std::string_view, int> register_by_name;
};

Model model;

platform::RecursiveLock& table_lock() {
    static platform::RecursiveLock* lock = [] {
        static platform::RecursiveLock storage;
        platform::lock_init(storage);
        return &storage;
    }();
    return *lock;
}

std::uint32_t hex_attribute(const XmlNode* element, const char* name) {
    const char* text = xml_attribute_value(element, name);
    return text ? static_cast<std::uint32_t>(std::strtoul(text, nullptr, 16)) : 0; // as "%x" reads it
}

int decimal_attribute(const XmlNode* element, const char* name) {
    const char* text = xml_attribute_value(element, name);
    return text ? std::atoi(text) : 0;
}

void read_config(Model& m) {
    TableConfig c;
    const XmlNode* e = m.config;
    c.modbus_word_size = decimal_attribute(e, "modbus_word_size");
    auto take = [&](const char* key, std::string& out, bool& present) {
        const char* v = xml_attribute_value(e, key);
        present = v != nullptr;
        if (v) out = v;
    };
    take("C_code_file_prefix", c.file_prefix, c.has_file_prefix);
    take("C_code_function_prefix", c.function_prefix, c.has_function_prefix);
    take("C_code_XML_dump", c.xml_dump, c.has_xml_dump);
    if (const char* path = xml_attribute_value(e, "path")) c.output_dir = std::string(path) + "/";
    m.settings = c;
}

void index_types(Model& m) {
    XmlCursor list;
    XmlNode* type_list = xml_find_first(list, m.document, "root/type_list");
    if (type_list == nullptr) return;
    XmlCursor cursor;
    int index = 0;
    for (XmlNode* t = xml_find_first(cursor, type_list, "type_list/type"); t; t = xml_find_next(cursor), ++index) {
        const char* name = xml_attribute_value(t, "name");
        std::string identifier = "TYPE_";
        for (const char* p = name ? name : ""; *p; ++p)
            identifier += static_cast<char>(std::toupper(static_cast<unsigned char>(*p)));
        m.identifiers.push_back(identifier);
        m.type_list.push_back(TypeRecord{name, decimal_attribute(t, "words"), xml_attribute_value(t, "Ctype"),
                                         decimal_attribute(t, "SizeCtype"), index, m.identifiers.back().c_str()});
        if (name != nullptr) m.type_by_name.emplace(name, index);
    }
}

int type_index(const Model& m, const char* name) {
    if (name == nullptr) return -1;
    auto it = m.type_by_name.find(name);
    return it == m.type_by_name.end() ? -1 : it->second;
}

const TypeRecord& type_at(const Model& m, int index) { return index < 0 ? kDefaultType : m.type_list[index]; }

// Walks the registers of one table element in document order, giving each
// its automatic offset; visit returns true to stop the walk.
template <typename Visit>
bool walk_table(const Model& m, XmlNode* table, Visit&& visit) {
    const char* table_name = xml_attribute_value(table, "name");
    const char* automatic_text = xml_attribute_value(table, "auto_offset");
    bool automatic = automatic_text != nullptr && std::strcmp(automatic_text, "yes") == 0;
    std::uint32_t base = hex_attribute(table, "base");
    XmlCursor list_cursor;
    XmlNode* list = xml_find_first(list_cursor, table, "table/register_list");
    if (list == nullptr) return false;
    std::uint32_t previous_offset = 0;
    std::int32_t previous_words = 0;
    XmlCursor regs;
    for (XmlNode* r = xml_find_first(regs, list, "register_list/register"); r; r = xml_find_next(regs)) {
        RegisterRecord reg;
        read_register(r, previous_offset, previous_words, automatic, reg);
        reg.base = base;
        reg.table_name = table_name;
        int type = type_index(m, reg.type_name);
        if (visit(reg, type)) return true;
        previous_offset = reg.offset;
        previous_words = type_at(m, type).words;
    }
    return false;
}

// Walks every register of every table in document order.
template <typename Visit>
bool walk_registers(const Model& m, Visit&& visit) {
    if (m.tables == nullptr) return false;
    XmlCursor tables;
    for (XmlNode* t = xml_find_first(tables, m.tables, "table_list/table"); t; t = xml_find_next(tables))
        if (walk_table(m, t, visit)) return true;
    return false;
}

void index_registers(Model& m) {
    walk_registers(m, [&](const RegisterRecord& reg, int type) {
        int position = static_cast<int>(m.registers.size());
        m.registers.push_back(reg);
        m.register_type.push_back(type);
        if (reg.name != nullptr) m.register_by_name.emplace(reg.name, position);
        return false;
    });
}

} // namespace

void read_register(XmlNode* element, std::uint32_t previous_offset, std::int32_t previous_words,
                   bool automatic, RegisterRecord& reg) {
    reg.name = xml_attribute_value(element, "name");
    reg.comment = xml_attribute_value(element, "comment");
    reg.offset = automatic ? previous_offset + static_cast<std::uint32_t>(previous_words)
                           : hex_attribute(element, "offset");
    const char* access = xml_attribute_value(element, "access");
    if (access == nullptr || std::strcmp(access, "RW") == 0)
        reg.access = kAccessReadWrite;
    else if (std::strcmp(access, "R") == 0)
        reg.access = kAccessRead;
    else if (std::strcmp(access, "W") == 0)
        reg.access = kAccessWrite;
    else
        reg.access = kAccessReadWrite;
    reg.type_name = xml_attribute_value(element, "type");
    reg.shared_function = xml_attribute_value(element, "shared_function");
    reg.base = 0;
    reg.table_name = nullptr;
    reg.element = element;
}

int load(const char* name) {
    if (name == nullptr) log::print("error: invalid xml input file\r\n");
    XmlNode* root = xml_load(name);
    if (root == nullptr) {
        log::print("error: cannot open xml input file: %s\r\n", name ? name : "(null)");
        return 0;
    }
    Model fresh;
    fresh.document = root;
    fresh.file_name = name;
    XmlCursor cursor;
    fresh.config = xml_find_first(cursor, root, "root/config");
    fresh.tables = xml_find_first(cursor, root, "root/table_list");
    read_config(fresh);
    index_types(fresh);
    index_registers(fresh);
    XmlNode* previous = nullptr;
    {
        platform::LockGuard guard(table_lock());
        previous = model.document;
        model = std::move(fresh);
    }
    xml_free(previous);
    return 1;
}

TableLock::TableLock() { platform::lock_enter(table_lock()); }
TableLock::~TableLock() { platform::lock_leave(table_lock()); }

int find_type(const char* type_name, TypeRecord& type) {
    int index = type_index(model, type_name);
    type = type_at(model, index);
    return index >= 0 ? 1 : 0;
}

int find_register(RegisterRecord& reg, TypeRecord& type, const char* register_name) {
    if (register_name == nullptr) return 0;
    auto it = model.register_by_name.find(register_name);
    if (it == model.register_by_name.end()) return 0;
    reg = model.registers[static_cast<std::size_t>(it->second)];
    type = type_at(model, model.register_type[static_cast<std::size_t>(it->second)]);
    return 1;
}

int register_by_index(RegisterRecord& reg, int index) {
    if (index < 0 || index >= register_count()) return 0;
    reg = model.registers[static_cast<std::size_t>(index)];
    return 1;
}

int register_count() { return static_cast<int>(model.registers.size()); }

int list_tables() {
    log::print("* Liste des tables *\n");
    if (model.tables == nullptr) return 1;
    XmlCursor tables;
    for (XmlNode* t = xml_find_first(tables, model.tables, "table_list/table"); t; t = xml_find_next(tables)) {
        const char* name = xml_attribute_value(t, "name");
        log::print("%s [0x%04x]\n", name ? name : "(null)", hex_attribute(t, "base"));
    }
    return 1;
}

int list_registers(const char* table_name, bool with_comments) {
    log::print("* Liste des registres de la table \"%s\" *\n", table_name ? table_name : "(null)");
    if (model.tables == nullptr || table_name == nullptr) return 0;
    XmlCursor tables;
    XmlNode* table = xml_find_first(tables, model.tables, "table_list/table");
    while (table != nullptr) {
        const char* name = xml_attribute_value(table, "name");
        if (name != nullptr && std::strcmp(name, table_name) == 0) break;
        table = xml_find_next(tables);
    }
    if (table == nullptr) return 0;
    walk_table(model, table, [&](const RegisterRecord& reg, int type_position) {
        const TypeRecord& type = type_at(model, type_position);
        const char* shown_name = reg.name ? reg.name : "(null)";
        const char* shown_type = reg.type_name ? reg.type_name : "(null)";
        if (with_comments)
            log::print("%s [0x%04x, %s (%d)]\n -> %s\n", shown_name, address_of(reg), shown_type, type.words,
                        reg.comment ? reg.comment : "(null)");
        else
            log::print("%s [0x%04x, %s (%d)]\n", shown_name, address_of(reg), shown_type, type.words);
        return false;
    });
    return 1;
}

std::vector<TableInfo> tables() {
    std::vector<TableInfo> out;
    if (model.tables == nullptr) return out;
    XmlCursor cursor;
    for (XmlNode* t = xml_find_first(cursor, model.tables, "table_list/table"); t; t = xml_find_next(cursor)) {
        const char* automatic_text = xml_attribute_value(t, "auto_offset");
        XmlCursor list;
        out.push_back(TableInfo{t, xml_attribute_value(t, "name"), hex_attribute(t, "base"),
                                automatic_text != nullptr && std::strcmp(automatic_text, "yes") == 0,
                                xml_find_first(list, t, "table/register_list") != nullptr});
    }
    return out;
}

std::vector<std::pair<RegisterRecord, TypeRecord>> registers_of(const TableInfo& table) {
    std::vector<std::pair<RegisterRecord, TypeRecord>> out;
    walk_table(model, table.element, [&](const RegisterRecord& reg, int type) {
        out.emplace_back(reg, type_at(model, type));
        return false;
    });
    return out;
}

std::vector<TypeRecord> types() { return model.type_list; }

XmlNode* document() { return model.document; }
const TableConfig& config() { return model.settings; }
const char* file_name() { return model.file_name.c_str(); }

} // namespace vukra::table
