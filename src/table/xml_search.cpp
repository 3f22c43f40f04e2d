// Finding elements by slash-separated paths.
#include "table/xml_tree.h"

#include <cstring>
#include <strings.h>

namespace vukra::table {

namespace {

void measure(XmlCursor& c) {
    const char* s = c.path + c.segment;
    const char* end = std::strchr(s, '/');
    c.segment_length = end ? static_cast<std::size_t>(end - s) : std::strlen(s);
}

bool last_segment(const XmlCursor& c) { return c.path[c.segment + c.segment_length] == '\0'; }

// To the next sibling; where there is none, up to the parent and back one
// segment, and on from there. The walk stays inside the start element: back
// at its level (the first segment) it ends, so that the start's own siblings
// (the next table after one without a register list) are never searched.
void move_on(XmlCursor& c) {
    for (;;) {
        if (c.segment == 0) {
            c.current = nullptr;
            return;
        }
        if (c.current->next != nullptr) {
            c.current = c.current->next;
            return;
        }
        c.current = c.current->parent;
        std::size_t s = c.segment - 1; // the '/' ahead of this segment
        while (s > 0 && c.path[s - 1] != '/') --s;
        c.segment = s;
        measure(c);
    }
}

bool text_matches(const XmlCursor& c, const XmlNode* element) {
    if (c.match == nullptr || c.match[0] == '\0') return true;
    const XmlNode* first = element->first_child;
    if (first == nullptr || first->kind != kXmlText || first->value == nullptr) return false;
    return (c.flags & 1) ? strcasecmp(first->value, c.match) == 0 : std::strcmp(first->value, c.match) == 0;
}

XmlNode* search(XmlCursor& c) {
    while (c.current != nullptr) {
        XmlNode* node = c.current;
        measure(c);
        bool same = node->kind == kXmlElement && node->name != nullptr &&
                    std::strlen(node->name) == c.segment_length &&
                    std::memcmp(node->name, c.path + c.segment, c.segment_length) == 0;
        if (same && last_segment(c)) {
            bool hit = text_matches(c, node);
            move_on(c);
            if (hit) return node;
        } else if (same && node->first_child != nullptr) {
            c.current = node->first_child;
            c.segment += c.segment_length + 1;
        } else {
            move_on(c);
        }
    }
    return nullptr;
}

} // namespace

XmlNode* xml_find_first(XmlCursor& cursor, XmlNode* start, const char* path, const char* match,
                        std::uint32_t flags) {
    cursor = XmlCursor{start, start, path ? path : "", match, 0, 0, flags};
    if (start == nullptr) return nullptr;
    return search(cursor);
}

XmlNode* xml_find_next(XmlCursor& cursor) { return search(cursor); }

const char* xml_text_at(XmlCursor& cursor, XmlNode* start, const char* path) {
    XmlNode* element = xml_find_first(cursor, start, path);
    if (element == nullptr || element->first_child == nullptr || element->first_child->kind != kXmlText)
        return nullptr;
    return element->first_child->value;
}

} // namespace vukra::table
