#include "codegen/html_pages.h"

#include "table/value_conversion.h"

#include <cstdio>
#include <cstring>

namespace vukra::codegen {

namespace {

using table::RegisterRecord;
using table::TypeRecord;

const char* text(const char* s) { return s ? s : "(null)"; }

const char* row_colour(int row) { return row % 2 == 0 ? "A060FF" : "8040FF"; }

bool page_written = false;

std::FILE* begin_page(const char* path) {
    std::FILE* f = path ? std::fopen(path, "w") : nullptr;
    page_written = f != nullptr;
    if (f == nullptr) return nullptr;
    std::fprintf(f, "<html>\n");
    std::fprintf(f, "<head>\n");
    std::fprintf(f, "<META http-equiv=\"Content-Style-Type\" content=\"text/css\">\n");
    std::fprintf(f, "</head>\n");
    std::fprintf(f, "<body bgcolor=\"#301080\">\n");
    std::fprintf(f, "<BASEFONT FACE=\"Arial, Helvetica, Geneva, sans-serif\">\n");
    std::fprintf(f, "<img style=\"width: 203px; height: 58px;\" alt=\"MODBUS\" src=\"logo_modbus.jpg\">");
    std::fprintf(f, "<table  style=\"font-family: helvetica,arial,sans-serif;\" frame=\"border\" border=\"0\" "
                    "rules=\"all\" cellspacing=\"0\">\n");
    return f;
}

int end_page(std::FILE* f) {
    std::fprintf(f, "</table>\n");
    std::fprintf(f, "</body>\n");
    std::fprintf(f, "</html>\n");
    if (std::ferror(f) != 0) page_written = false;
    if (std::fclose(f) != 0) page_written = false;
    return 0;
}

} // namespace

int write_register_map(const char* path) {
    std::FILE* f = begin_page(path);
    if (f == nullptr) return 0;
    for (const table::TableInfo& t : table::tables()) {
        // The row's "</TR" lacks its ">": the page has always been so.
        std::fprintf(f, "<TR bgcolor=\"#FFFF00\"><TD><b>%s</TD><TD><b>0x%04x</TD><TD></TD><TD></TD><TD></TD><TD></TD></TR\n",
                     text(t.name), t.base);
        std::fprintf(f, "<TR bgcolor=\"#FFFF00\"><TD><b>Offset</TD><TD><b>Name</TD><TD><b>Comment</TD>"
                        "<TD><b>Access</TD><TD><b>Type</TD><TD><b>Length</TD></TR>\n");
        int row = 0;
        for (const auto& [reg, type] : table::registers_of(t)) {
            std::fprintf(f, "<TR bgcolor=\"#%s\">\n", row_colour(row++));
            std::fprintf(f, "<a name=\"%s\">", text(reg.name));
            std::fprintf(f, "<TD>0x%04x</TD><TD>%s</TD><TD>%s</TD><TD>%s%s</TD><TD>%s</TD><TD>%d</TD></TR>\n",
                         reg.offset, text(reg.name), text(reg.comment), (reg.access & 1) ? "R" : "",
                         (reg.access & 2) ? "W" : "", text(type.name), type.words);
        }
    }
    return end_page(f);
}

int write_live_page(const char* path, const char* host, const ReadRegister& read, const char* register_name) {
    std::FILE* f = begin_page(path);
    if (f == nullptr) return 0;
    for (const table::TableInfo& t : table::tables()) {
        std::fprintf(f, "<TR bgcolor=\"#FFFF00\"><TD><b>Table : %s</b></TD><TD></TD><TD></TD></TR>\n", text(t.name));
        int row = 0;
        for (const auto& [reg, type] : table::registers_of(t)) {
            char value_text[table::kValueTextSize] = "Erreur";
            if (register_name != nullptr && (reg.name == nullptr || std::strcmp(register_name, reg.name) != 0)) {
                if (const char* cached = table::xml_attribute_value(reg.element, "value"))
                    std::snprintf(value_text, sizeof value_text, "%s", cached);
            } else {
                std::uint8_t value[table::kValueTextSize] = {};
                char shown[table::kValueTextSize];
                if (read && read(reg, type, value) && table::binary_to_text(shown, sizeof shown, type, value))
                    std::snprintf(value_text, sizeof value_text, "%s", shown);
                if (table::XmlNode* cached = table::xml_attribute_node(reg.element, "value"))
                    table::xml_set_value(cached, value_text);
                else
                    table::xml_append_attribute(reg.element, table::xml_create_attribute("value", value_text));
            }
            std::fprintf(f, "<TR bgcolor=\"#%s\">\n", row_colour(row++));
            std::fprintf(f, "<a name=\"%s\">", text(reg.name));
            std::fprintf(f, "<TD>%s</TD>", text(reg.name));
            std::fprintf(f, "<TD><FORM action=\"http://%s/modbus.cb\" method=\"post\">\n<P><INPUT type=\"text\" "
                            "name=\"%s\" value=\"%s\">\n</FORM></TD>\n",
                         text(host), text(reg.name), value_text);
            std::fprintf(f, "<TD>%s</TD>", text(type.name));
            std::fprintf(f, "</TR>\n");
        }
    }
    return end_page(f);
}

bool last_page_written() { return page_written; }

int generator_entry(int argc, char** argv) {
    if (argc < 2) {
        std::printf("error: missing xml input file\r\n");
        return -1;
    }
    if (argc > 2) std::printf("warning: too many input parameters\r\n");
    if (!table::load(argv[1])) {
        std::printf("error: invalid xml input file\r\n");
        return 0;
    }
    return 1;
}

} // namespace vukra::codegen
