// The C sources and headers of the device side of the register table.
#include "codegen/c_sources.h"

#include "codegen/generated_names.h"
#include "codegen/kept_code.h"
#include "platform/platform.h"

#include <cstdio>
#include <string>
#include <vector>

namespace vukra::codegen {

namespace {

using table::RegisterRecord;
using table::TableInfo;
using table::TypeRecord;

// The box at the head of every table file.
const char kBanner[] =
    "/*****************************************************************\n"
    " *                                                               *\n"
    " *            __  __   ___   ____   ____   _   _   ____          *\n"
    " *           |  \\/  | / _ \\ |  _ \\ | __ ) | | | | / ___|         *\n"
    " *           | |\\/| || | | || | | ||  _ \\ | | | | \\___ \\         *\n"
    " *           | |  | || |_| || |_| || |_) || |_| |  ___) |        *\n"
    " *           |_|  |_| \\___/ |____/ |____/  \\___/  |____/         *\n"
    " *                                                               *\n"
    " *           Code d'implémentation des fonctions MODBUS          *\n"
    " *                                                               *\n"
    " * Le squelette des fonctions est généré automatiquement à       *\n"
    " * partir d'un fichier XML. Le corps des fonctions est à         *\n"
    " * compléter entre les balises \"@MODBUS_xxx/Function\".           *\n"
    " * La zone comprise entre les balises \"@MODBUS_xxx/Header\"       *\n"
    " * contient un en-tête utilisateur. Le contenu de ces zones      *\n"
    " * est conservé à la prochaine génération. Une altération des    *\n"
    " * balises entraîne la perte des données                         *\n"
    " * -> NE PAS LES MODIFIER !                                      *\n"
    " *                                                               *\n"
    " ****************************************************************/\n"
    "\n";

const char kRegisterStruct[] =
    "typedef struct {\n"
    "  unsigned short offset;\n"
    "  void *functionRead;\n"
    "  void *functionWrite;\n"
    "  unsigned char type;\n"
    "  unsigned char typeSize;\n"
    "  unsigned char CtypeSize;\n"
    "} ModbusRegister;\n"
    "\n";

const char kTableStruct[] =
    "typedef struct {\n"
    "  ModbusRegister *registers;\n"
    "  unsigned short baseAddress;\n"
    "  unsigned short nbRegisters;\n"
    "  unsigned short nbWordRegisters;\n"
    "} ModbusTable;\n"
    "\n";

const char* text(const char* s) { return s ? s : "(null)"; }

// The files of this run that could not be written whole.
std::vector<std::string> unwritten;

void note_unwritten(const std::string& name) {
    for (const std::string& n : unwritten)
        if (n == name) return;
    unwritten.push_back(name);
}

// Opens a generated file; says so when it cannot (the type header and the
// dispatcher fail silently, but are noted all the same).
std::FILE* open_for(const std::string& name, const char* mode, bool report = true) {
    std::FILE* f = std::fopen(name.c_str(), mode);
    if (f == nullptr && report) std::printf("Erreur d'ouverture en ecriture [%s]\n", name.c_str());
    if (f == nullptr) note_unwritten(name);
    return f;
}

// Closes a generated file, noting it when a write or the close failed.
void close_file(std::FILE* f, const std::string& name) {
    bool failed = std::ferror(f) != 0;
    if (std::fclose(f) != 0) failed = true;
    if (failed) note_unwritten(name);
}

void write_kept_block(std::FILE* f, const KeptLines& kept, const std::string& tag) {
    std::fprintf(f, "// @MODBUS_CODE_BEGIN/%s\n", tag.c_str());
    write_kept_code(f, kept, tag);
    std::fprintf(f, "// @MODBUS_CODE_END/%s\n", tag.c_str());
}

void write_skeleton(std::FILE* f, Direction direction, const RegisterRecord& reg, const TypeRecord& type,
                    const KeptLines& kept) {
    std::fprintf(f, "int %s(", register_function(direction, reg).c_str());
    std::fprintf(f, "%s *val)\n{\n", text(type.c_type));
    write_kept_block(f, kept, function_tag(direction, reg));
    std::fprintf(f, "   return 0;\n}\n\n");
}

void write_banner(std::FILE* f, const TableInfo& t) {
    std::fputs(kBanner, f);
    const platform::LocalTime now = platform::local_time();
    std::fprintf(f, "/****************************************************************\n");
    std::fprintf(f, " * Date de génération : %02d/%02d/%4d\n", now.day, now.month, now.year);
    std::fprintf(f, " ****************************************************************/\n");
    std::fprintf(f, "\n");
    std::fprintf(f, "/****************************************************************\n");
    std::fprintf(f, " * Table : %s\n", text(t.name));
}

// "C_code_XML_dump" asks for the table's XML in the banner, unless it says no.
bool xml_dump_wanted() {
    const table::TableConfig& c = table::config();
    if (!c.has_xml_dump) return false;
    return !(c.xml_dump.empty() || c.xml_dump == "0" || c.xml_dump == "no" || c.xml_dump == "false");
}

} // namespace

void write_type_header() {
    std::FILE* f = open_for(header_file("Type"), "w", false);
    if (f == nullptr) return;
    std::fprintf(f, "#ifndef MODBUS_TYPE_H\n#define MODBUS_TYPE_H\n\n");
    std::fputs(kRegisterStruct, f);
    std::fputs(kTableStruct, f);
    std::fprintf(f, "#define SHARED_FCT 0x80\n");
    std::fprintf(f, "int ModbusCall(void *func, unsigned short address, void *arg, unsigned char argType);\n");
    close_file(f, header_file("Type"));
}

void write_type_constants() {
    std::FILE* f = open_for(header_file("Type"), "a", false);
    if (f == nullptr) return;
    for (const TypeRecord& type : table::types()) std::fprintf(f, "#define %s %d\n", type.identifier, type.index);
    std::fprintf(f, "\n#endif\n");
    close_file(f, header_file("Type"));
}

void write_prototypes() {
    std::FILE* f = open_for(header_file("Header"), "w");
    if (f == nullptr) return;
    std::fprintf(f, "#ifndef MODBUS_HEADER_H\n#define MODBUS_HEADER_H\n\n");
    std::fprintf(f, "#include \"modbus_header_extern.h\"\n\n");
    for (const TableInfo& t : table::tables()) {
        std::fprintf(f, "// Table %s\n", text(t.name));
        for (const auto& [reg, type] : table::registers_of(t)) {
            if (reg.shared_function) std::fprintf(f, "/* fonction partagée utilisée : %s\n", reg.shared_function);
            for (Direction d : {Direction::kRead, Direction::kWrite}) {
                if (d == Direction::kRead ? !readable(reg) : !writable(reg)) continue;
                std::fprintf(f, "int %s(", register_function(d, reg).c_str());
                std::fprintf(f, "%s *val); // accés : ", text(type.c_type));
                std::fprintf(f, "%s\n", d == Direction::kRead ? "R" : "W");
            }
            if (reg.shared_function) std::fprintf(f, "*/\n");
        }
    }
    std::fprintf(f, "\n#endif\n");
    close_file(f, header_file("Header"));
}

void write_dispatcher() {
    std::FILE* f = open_for(source_file("Call"), "w", false);
    if (f == nullptr) return;
    std::fprintf(f, "#include \"%s\"\n\n", header_file("Type").c_str());
    std::fprintf(f, "int ModbusCall(void *func, unsigned short address, void *arg, unsigned char argType)\n{\n"
                    "  switch(argType) {\n");
    const std::vector<TypeRecord> types = table::types();
    for (bool shared : {false, true}) {
        for (const TypeRecord& type : types) {
            std::fprintf(f, "    case %s %s:\n", type.identifier, shared ? "| SHARED_FCT" : "");
            std::fprintf(f, "      {\n");
            const char* address_type = shared ? "unsigned short," : "";
            std::fprintf(f, "         int (*f)(%s%s *);\n", address_type, text(type.c_type));
            std::fprintf(f, "         f = (int(*)(%s%s *))func;\n", address_type, text(type.c_type));
            std::fprintf(f, "         return f(%s(%s *)arg);\n", shared ? "address," : "", text(type.c_type));
            std::fprintf(f, "      }\n");
        }
    }
    std::fprintf(f, "  }\n return 0;\n}\n");
    close_file(f, source_file("Call"));
}

void write_data_file() {
    const std::string name = source_file("Data");
    std::FILE* f = open_for(name, "w");
    if (f == nullptr) return;
    close_file(f, name);

    // The register arrays.
    if ((f = open_for(name, "a")) == nullptr) return;
    std::fprintf(f, "#include \"%s\"\n", header_file("Type").c_str());
    std::fprintf(f, "#include \"%s\"\n\n", header_file("Header").c_str());
    const std::vector<TableInfo> tables = table::tables();
    std::vector<std::vector<std::pair<RegisterRecord, TypeRecord>>> registers; // of each table, for the index too
    for (const TableInfo& t : tables) {
        registers.push_back(table::registers_of(t));
        std::fprintf(f, "// Table %s\n", text(t.name));
        std::fprintf(f, "const ModbusRegister ModbusRegister%s [] = {\n", text(t.name));
        char separator = ' ';
        for (const auto& [reg, type] : registers.back()) {
            std::string read = readable(reg) ? register_function(Direction::kRead, reg) : "0";
            std::string write = writable(reg) ? register_function(Direction::kWrite, reg) : "0";
            std::fprintf(f, "   %c{ 0x%04X, (void*)%s, (void*)%s, %s %s, %i,sizeof(%s)}\n", separator, reg.offset,
                         read.c_str(), write.c_str(), text(type.identifier), reg.shared_function ? "| SHARED_FCT" : "",
                         type.words * 2, text(type.c_type));
            separator = ',';
        }
        std::fprintf(f, "};\n");
    }
    close_file(f, name);

    // The table index.
    if ((f = open_for(name, "a")) == nullptr) return;
    std::fprintf(f, "// Index\n");
    std::fprintf(f, "const ModbusTable ModbusTableIndex [] = {\n");
    char separator = ' ';
    for (std::size_t i = 0; i < tables.size(); ++i) {
        const TableInfo& t = tables[i];
        const int count = static_cast<int>(registers[i].size());
        int words = 0;
        for (const auto& entry : registers[i]) words += entry.second.words;
        std::fprintf(f, "  %c{ (ModbusRegister *)ModbusRegister%s, 0x%04X, %d, %d }\n", separator, text(t.name), t.base,
                     count, words);
        separator = ',';
    }
    std::fprintf(f, "  %c{ 0,0,0,0 } // Marqueur de fin de table\n", separator);
    std::fprintf(f, "};\n");
    close_file(f, name);
}

void write_table_files() {
    const bool dump = xml_dump_wanted();
    for (const TableInfo& t : table::tables()) {
        const std::string name = table_file(t.name);
        KeptLines kept = load_kept_lines(name);
        std::FILE* f = open_for(name, "w");
        if (f == nullptr) continue;
        if (t.has_register_list) {
            write_banner(f, t);
            if (dump) {
                std::fprintf(f, " * Partie de la table MODBUS correspondante en XML :\n");
                table::xml_write(t.element, f);
                std::fprintf(f, "\n */\n\n");
            } else {
                std::fprintf(f, " */\n\n");
            }
            write_kept_block(f, kept, "Header");
            std::fprintf(f, "\n");
        }
        for (const auto& [reg, type] : table::registers_of(t)) {
            std::fprintf(f, "/****************************************************************\n"
                            " * Table : %s, register : %s\n * %s\n */\n",
                         text(t.name), text(reg.name), text(reg.comment));
            if (reg.shared_function) {
                std::fprintf(f, "/* Fonction partagée utilisée : %s */\n\n", reg.shared_function);
                continue;
            }
            if (readable(reg)) write_skeleton(f, Direction::kRead, reg, type, kept);
            if (writable(reg)) write_skeleton(f, Direction::kWrite, reg, type, kept);
        }
        close_file(f, name);
    }
}

void generate_c_sources() {
    unwritten.clear();
    write_type_header();
    write_type_constants();
    write_prototypes();
    write_dispatcher();
    write_data_file();
    write_table_files();
}

const std::vector<std::string>& unwritten_files() { return unwritten; }

} // namespace vukra::codegen
