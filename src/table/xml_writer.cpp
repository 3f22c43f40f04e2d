// Writing a tree back out: 3 blanks of indentation a level, attribute values
// as they are, text with &amp; &lt; &gt; and &#N; for bytes above 127.
#include "table/xml_fatal.h"
#include "table/xml_tree.h"

#include <cstdlib>

namespace vukra::table {

namespace {

void indent(std::FILE* out, int level) {
    for (int i = 0; i < level; ++i) std::fputs("   ", out);
}

void write_text(const XmlNode* node, std::FILE* out) {
    for (const char* p = node->value ? node->value : ""; *p; ++p) {
        auto c = static_cast<unsigned char>(*p);
        if (c == '&')
            std::fputs("&amp;", out);
        else if (c == '<')
            std::fputs("&lt;", out);
        else if (c == '>')
            std::fputs("&gt;", out);
        else if (c < 128)
            std::fputc(c, out);
        else
            std::fprintf(out, "&#%u;", static_cast<unsigned>(c));
    }
}

// Writes a node and, at levels above 0, the siblings that follow it.
void write_node(const XmlNode* node, std::FILE* out, int level, bool no_indent) {
    for (; node != nullptr; node = level > 0 ? node->next : nullptr) {
        if (node->flags & kXmlHidden) continue;
        if (node->kind == kXmlText) {
            write_text(node, out);
            no_indent = true; // what follows a text goes on its line
            continue;
        }
        if (node->kind != kXmlElement) {
            xml_fatal("Xml error, invalid type of object\n", -1);
        }
        if (!no_indent) indent(out, level);
        no_indent = false;
        std::fprintf(out, "<%s", node->name);
        for (const XmlNode* a = node->first_attribute; a != nullptr; a = a->next)
            if (!(a->flags & kXmlHidden)) std::fprintf(out, " %s=\"%s\"", a->name, a->value ? a->value : "");
        if (node->first_child != nullptr) {
            std::fputc('>', out);
            if (node->first_child->kind != kXmlText) std::fputc('\n', out);
            write_node(node->first_child, out, level + 1, false);
            if (node->last_child->kind != kXmlText) {
                std::fputc('\n', out);
                indent(out, level);
            }
            std::fprintf(out, "</%s>", node->name);
        } else {
            std::fputs("/>", out);
        }
        if (node->next != nullptr && node->next->kind != kXmlText) std::fputc('\n', out);
    }
}

} // namespace

void xml_write(const XmlNode* node, std::FILE* stream) { write_node(node, stream, 0, false); }

} // namespace vukra::table
