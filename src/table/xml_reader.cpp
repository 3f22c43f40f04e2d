// Reading an XML file into a tree.
//
// The grammar is the system's own small one (see xml_tree.h). Elements are
// read with an explicit stack of open elements rather than by recursion, so
// neither a long list of siblings nor a deep nesting can exhaust the stack.
// Every buffer is bounded: a name stops at 511 characters, an attribute
// value at 511 and a text at 8191, the rest of an over-long value or text
// being read and dropped. An end of file ends the document wherever it comes.
#include "table/xml_fatal.h"
#include "table/xml_tree.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace vukra::table {

namespace {

constexpr std::size_t kNameSize = 512;
constexpr std::size_t kValueSize = 512;
constexpr std::size_t kTextSize = 8192;

// The tree being read: a syntax error frees it before the reader ends, so
// that no partial tree survives, also where a handler leaves by a jump.
thread_local XmlNode* partial_root = nullptr;

[[noreturn]] void fail(const char* message) {
    XmlNode* partial = partial_root;
    partial_root = nullptr;
    xml_free(partial);
    xml_fatal(message, 0);
}

// A set of delimiter characters, tested with one lookup.
struct CharSet {
    std::array<bool, 256> member{};
    constexpr explicit CharSet(const char* chars) {
        for (; *chars; ++chars) member[static_cast<unsigned char>(*chars)] = true;
    }
};

constexpr CharSet kBlanks(" \t");
constexpr CharSet kNameEnd(" \t/>"); // also what ends an empty element
constexpr CharSet kAttributeNameEnd(" \t=");
constexpr CharSet kClosingNameEnd(">");

struct Reader {
    // The whole file, read at once: the parse then walks memory.
    std::string data;
    std::size_t at = 0;
    int current = 0; // the current character, EOF included
    bool from_entity = false;
    char name[kNameSize];
    char text_buffer[kTextSize];

    void next() {
        if (current != EOF) current = at < data.size() ? static_cast<unsigned char>(data[at++]) : EOF;
        from_entity = false;
    }

    static bool in(int c, const CharSet& set) { return c != EOF && set.member[static_cast<unsigned char>(c)]; }

    void skip(const CharSet& set) {
        while (in(current, set)) next();
    }

    // Appends characters to buffer until one of delimiters, the end of the
    // file, or a full buffer. True when a delimiter stopped it.
    bool token(char* buffer, std::size_t size, const CharSet& delimiters) {
        std::size_t n = 0;
        bool found = false;
        while (current != EOF && n < size - 1) {
            if (in(current, delimiters)) {
                found = true;
                break;
            }
            buffer[n++] = static_cast<char>(current);
            next();
        }
        buffer[n] = '\0';
        return found;
    }

    // One character of a value or a text, with entities and two-byte
    // sequences decoded. in_text selects the text content's entity rules.
    int decode(bool in_text) {
        int c = current;
        if (c == '&') {
            char entity[16];
            std::size_t n = 0;
            next();
            while (current != ';') {
                if (current == EOF || n == sizeof entity - 1) fail("Xml error : bad esc char\n");
                entity[n++] = static_cast<char>(current);
                next();
            }
            entity[n] = '\0';
            if (entity[0] == '#') {
                int code = 0;
                std::sscanf(entity + 1, "%d", &code);
                c = in_text ? (code & 0xFF) : static_cast<unsigned char>(code);
            } else if (std::strcmp(entity, "amp") == 0) {
                c = '&';
            } else if (std::strcmp(entity, "lt") == 0) {
                c = '<';
            } else if (std::strcmp(entity, "gt") == 0) {
                c = '>';
            } else if (!in_text && std::strcmp(entity, "quot") == 0) {
                c = '"';
            } else {
                c = ' ';
            }
            next();
            from_entity = true;
            return c;
        }
        if (c >= 0xC0 && c <= 0xC3) {
            next();
            int second = current == EOF ? 0 : current;
            c = (second & 63) + (c & 3) * 64;
        }
        next();
        return c;
    }

    void attributes(XmlNode* element) {
        for (;;) {
            if (!token(name, kNameSize, kAttributeNameEnd)) return;
            skip(kBlanks);
            if (current != '=') fail("Xml error in attribute\n");
            next();
            skip(kBlanks);
            if (current != '"') fail("Xml error in attribute\n");
            next();
            char value[kValueSize];
            std::size_t n = 0;
            for (;;) {
                if (current == EOF) fail("Xml error in attribute\n");
                if (current == '"') break;
                int c = decode(false); // an entity's quote stays in the value
                if (n < kValueSize - 1) value[n++] = static_cast<char>(c);
            }
            value[n] = '\0';
            next(); // the closing quote
            xml_append_attribute(element, xml_create_attribute(name, value));
            skip(kBlanks);
            if (current == '/' || current == '>') return;
        }
    }

    // The text after a start tag, up to the next '<'. A text node is added
    // when it holds more than blanks, tabs and line feeds.
    void text(XmlNode* element) {
        std::size_t n = 0;
        bool content = false;
        while (current != EOF && current != '<') {
            int c = decode(true);
            if (c != ' ' && c != '\t' && c != '\n') content = true;
            if (n < kTextSize - 1) text_buffer[n++] = static_cast<char>(c);
        }
        text_buffer[n] = '\0';
        if (content) xml_append_child(element, xml_create_text(text_buffer));
    }
};

} // namespace

XmlNode* xml_load(const char* path) {
    std::FILE* file = path ? std::fopen(path, "r") : nullptr;
    if (file == nullptr) return nullptr;
    Reader r;
    char chunk[65536];
    std::size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, file)) > 0) r.data.append(chunk, n);
    std::fclose(file);
    r.next();

    XmlNode* root = nullptr;
    XmlNode* parent = nullptr; // the element whose children are being read
    for (;;) {
        // One element, or the closing tag of parent.
        while (r.current != EOF && r.current != '<') r.next();
        if (r.current == EOF) break;
        r.next();
        if (r.current == '/') {
            if (parent == nullptr) break; // a closing tag where the root should be
            r.next();
            r.token(r.name, kNameSize, kClosingNameEnd);
            if (r.name[0] == '\0') fail("Xml error, void name\n");
            if (std::strcmp(r.name, parent->name) != 0) {
                const std::string message =
                    std::string("Xml error, different names ") + parent->name + " " + r.name + "\n";
                fail(message.c_str());
            }
            parent = parent->parent; // its following siblings come next
            if (parent == nullptr) break;
            continue;
        }
        r.token(r.name, kNameSize, kNameEnd);
        if (r.name[0] == '\0') fail("Xml error, void name\n");
        XmlNode* element = xml_create_element(r.name);
        if (parent != nullptr)
            xml_append_child(parent, element);
        else
            partial_root = root = element;

        while (r.current == ' ' || r.current == '\t') {
            r.skip(kBlanks);
            r.attributes(element);
        }
        if (r.current == '/') {
            r.skip(kNameEnd);
            if (parent == nullptr) break; // a root's siblings are not read
        } else if (r.current == '>') {
            r.next();
            r.text(element);
            parent = element; // its children come next
        } else {
            // A name cut by the end of the file or by its length: the element
            // ends here, and so does its parent, without a closing tag.
            if (parent == nullptr) break;
            parent = parent->parent;
            if (parent == nullptr) break;
        }
    }
    partial_root = nullptr;
    return root;
}

} // namespace vukra::table
