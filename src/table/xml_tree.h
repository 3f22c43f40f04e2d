// A small XML tree of the system's own: elements, attributes and text.
//
// The reader is deliberately strict and simple: every syntax error prints its
// message and ends the process. It knows no comments, declarations or
// processing instructions, keeps text only where it directly follows a start
// tag, and reads a document's first element only.
#pragma once

#include <cstdint>
#include <cstdio>

namespace vukra::table {

enum XmlKind : std::int32_t { kXmlElement = 0, kXmlAttribute = 1, kXmlText = 2 };

inline constexpr std::uint32_t kXmlHidden = 1; // the writer skips the node
// The name or the value was allocated with the node itself, not on its own.
inline constexpr std::uint32_t kXmlNameInline = 2;
inline constexpr std::uint32_t kXmlValueInline = 4;

struct XmlNode {
    std::int32_t kind;
    XmlNode* parent;
    XmlNode* previous;
    XmlNode* next;
    std::uint32_t flags;
    char* name;  // element and attribute
    char* value; // attribute value, or the text of a text node
    XmlNode* first_child; // elements and text, in document order
    XmlNode* last_child;
    XmlNode* first_attribute;
    XmlNode* last_attribute;
};

// Construction and editing. Strings are copied into the node.
XmlNode* xml_create_element(const char* name);
XmlNode* xml_create_attribute(const char* name, const char* value);
XmlNode* xml_create_text(const char* text);
void xml_set_value(XmlNode* node, const char* value); // attribute value or text
void xml_append_child(XmlNode* element, XmlNode* child);
void xml_prepend_child(XmlNode* element, XmlNode* child);
void xml_insert_after(XmlNode* node, XmlNode* sibling);
void xml_append_attribute(XmlNode* element, XmlNode* attribute);
void xml_hide(XmlNode* node);
// Unlinks the node and frees it; an element frees its children and its
// attributes along with it.
void xml_free(XmlNode* node);

// The root element of the file, or null when it cannot be opened (or holds
// no element). Syntax errors end the process.
XmlNode* xml_load(const char* path);

// Queries.
const char* xml_attribute_value(const XmlNode* element, const char* name);
XmlNode* xml_attribute_node(const XmlNode* element, const char* name);

// Iterates over the elements a slash-separated path reaches from start,
// whose name is the path's first segment, in document order. With a match
// text, only elements whose first child is a text equal to it (without
// regard to case when flags bit 0 is set).
struct XmlCursor {
    XmlNode* start;
    XmlNode* current;
    const char* path;
    const char* match;
    std::size_t segment;        // where the current segment starts in path
    std::size_t segment_length;
    std::uint32_t flags;
};

XmlNode* xml_find_first(XmlCursor& cursor, XmlNode* start, const char* path, const char* match = "",
                        std::uint32_t flags = 0);
XmlNode* xml_find_next(XmlCursor& cursor);
// The text of the first element the path reaches, when its first child is text.
const char* xml_text_at(XmlCursor& cursor, XmlNode* start, const char* path);

// Writing, indented by 3 blanks a level.
void xml_write(const XmlNode* node, std::FILE* stream);

} // namespace vukra::table
