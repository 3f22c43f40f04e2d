// The register table: "table.xml" with its configuration, value types and
// tables of registers, loaded once per session open and kept for the
// process.
//
// Lookups answer what a walk of the document in document order answers
// (first match wins, automatic offsets, the default type for an undeclared
// one); an index built at load time lets them do so without walking.
#pragma once

#include "table/xml_tree.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vukra::table {

struct TypeRecord {
    const char* name;
    std::int32_t words; // 16-bit Modbus words of a value
    const char* c_type;
    std::int32_t c_size; // bytes of the C type
    std::int32_t index;  // in the type list from 0; -1 for the default type
    const char* identifier; // "TYPE_" and the name in upper case
};

enum Access : std::int32_t { kAccessRead = 1, kAccessWrite = 2, kAccessReadWrite = 3 };

struct RegisterRecord {
    const char* name;
    const char* table_name;
    const char* comment; // may be null
    std::uint32_t base;  // the table's base address
    std::uint32_t offset;
    std::int32_t access;
    const char* type_name;
    const char* shared_function; // may be null
    XmlNode* element; // the register's element, for its other attributes
};

inline std::uint32_t address_of(const RegisterRecord& r) { return r.base + r.offset; }

struct TableConfig {
    int modbus_word_size = 0;
    std::string file_prefix;     // "C_code_file_prefix": prefixes generated function names
    std::string function_prefix; // "C_code_function_prefix": prefixes generated file names
    std::string xml_dump;        // "C_code_XML_dump"
    bool has_file_prefix = false, has_function_prefix = false, has_xml_dump = false;
    std::string output_dir = "./";
};

// Loads file_name (printing why when it cannot) and replaces the table.
// A syntax error in the file ends the process (see xml_fatal.h). 1, or 0 on
// failure, when the previous table stays. The file is read before the table
// lock is taken; the replacement itself runs under it.
int load(const char* file_name);

// Holds the table lock: while one is held no load replaces the table, so
// the records a lookup filled (whose texts point into the table) stay
// valid. Host threads that read the table while another may open a
// session (the register_btoa and register_atob exports, the named register
// calls) hold one around their lookup and its use. Recursive.
class TableLock {
public:
    TableLock();
    ~TableLock();
    TableLock(const TableLock&) = delete;
    TableLock& operator=(const TableLock&) = delete;
};

// 1 when found; otherwise 0 with the default type ("?", 1 word).
int find_type(const char* type_name, TypeRecord& type);
// 1 with both records filled for the first register of that name, else 0.
int find_register(RegisterRecord& reg, TypeRecord& type, const char* register_name);
// The register at a running position across all tables, from 0.
int register_by_index(RegisterRecord& reg, int index);
int register_count();

// Printed listings.
int list_tables();
int list_registers(const char* table_name, bool with_comments);

// The tables in document order, each with its registers as the walk gives
// them (automatic offsets included), for the generator.
struct TableInfo {
    XmlNode* element;
    const char* name;
    std::uint32_t base; // 0 when the table has no "base"
    bool automatic;
    bool has_register_list;
};
std::vector<TableInfo> tables();
// The registers of one table, with the type of each (the default type when undeclared).
std::vector<std::pair<RegisterRecord, TypeRecord>> registers_of(const TableInfo& table);
// The declared types in document order.
std::vector<TypeRecord> types();

// The loaded document and its parts, for the generator and the tools.
XmlNode* document();
const TableConfig& config();
const char* file_name();

// Reads one register element: previous offset and size give the automatic
// offset when the table has automatic offsets.
void read_register(XmlNode* element, std::uint32_t previous_offset, std::int32_t previous_words,
                   bool automatic, RegisterRecord& reg);

} // namespace vukra::table
