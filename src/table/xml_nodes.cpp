// Making, linking and freeing XML nodes.
#include "table/xml_fatal.h"
#include "table/xml_tree.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vukra::table {

namespace {

[[noreturn]] void memory_error() {
    xml_fatal("Xml memory error\n", 0);
}

char* copy(const char* text) {
    if (text == nullptr) return nullptr;
    char* s = strdup(text);
    if (s == nullptr) memory_error();
    return s;
}

// One allocation for the node and copies of its name and value, which are
// the most nodes a document has: a table of registers is mostly attributes.
XmlNode* new_node(std::int32_t kind, const char* name, const char* value) {
    std::size_t name_size = name ? std::strlen(name) + 1 : 0;
    std::size_t value_size = value ? std::strlen(value) + 1 : 0;
    auto* node = static_cast<XmlNode*>(std::malloc(sizeof(XmlNode) + name_size + value_size));
    if (node == nullptr) memory_error();
    std::memset(node, 0, sizeof(XmlNode));
    node->kind = kind;
    char* strings = reinterpret_cast<char*>(node + 1);
    if (name) {
        node->name = static_cast<char*>(std::memcpy(strings, name, name_size));
        node->flags |= kXmlNameInline;
    }
    if (value) {
        node->value = static_cast<char*>(std::memcpy(strings + name_size, value, value_size));
        node->flags |= kXmlValueInline;
    }
    return node;
}

void free_name(XmlNode* node) {
    if (!(node->flags & kXmlNameInline)) std::free(node->name);
    node->flags &= ~kXmlNameInline;
    node->name = nullptr;
}

void free_value(XmlNode* node) {
    if (!(node->flags & kXmlValueInline)) std::free(node->value);
    node->flags &= ~kXmlValueInline;
    node->value = nullptr;
}

void unlink(XmlNode* node) {
    XmlNode* parent = node->parent;
    if (node->previous) node->previous->next = node->next;
    if (node->next) node->next->previous = node->previous;
    if (parent != nullptr) {
        if (node->kind == kXmlAttribute) {
            if (parent->first_attribute == node) parent->first_attribute = node->next;
            if (parent->last_attribute == node) parent->last_attribute = node->previous;
        } else {
            if (parent->first_child == node) parent->first_child = node->next;
            if (parent->last_child == node) parent->last_child = node->previous;
        }
    }
    node->parent = node->previous = node->next = nullptr;
}

void free_list(XmlNode* first) {
    while (first != nullptr) {
        XmlNode* next = first->next;
        first->parent = nullptr; // already being taken apart
        first->previous = first->next = nullptr;
        xml_free(first);
        first = next;
    }
}

} // namespace

XmlNode* xml_create_element(const char* name) { return new_node(kXmlElement, name, nullptr); }

XmlNode* xml_create_attribute(const char* name, const char* value) {
    return new_node(kXmlAttribute, name, value);
}

XmlNode* xml_create_text(const char* text) { return new_node(kXmlText, nullptr, text); }

void xml_set_value(XmlNode* node, const char* value) {
    char* s = copy(value);
    free_value(node);
    node->value = s;
}

void xml_append_child(XmlNode* element, XmlNode* child) {
    child->parent = element;
    child->next = nullptr;
    child->previous = element->last_child;
    if (element->last_child)
        element->last_child->next = child;
    else
        element->first_child = child;
    element->last_child = child;
}

void xml_prepend_child(XmlNode* element, XmlNode* child) {
    child->parent = element;
    child->previous = nullptr;
    child->next = element->first_child;
    if (element->first_child)
        element->first_child->previous = child;
    else
        element->last_child = child;
    element->first_child = child;
}

void xml_insert_after(XmlNode* node, XmlNode* sibling) {
    XmlNode* parent = node->parent;
    sibling->parent = parent;
    sibling->previous = node;
    sibling->next = node->next;
    if (node->next) node->next->previous = sibling;
    node->next = sibling;
    if (parent != nullptr) {
        if (node->kind == kXmlAttribute) {
            if (parent->last_attribute == node) parent->last_attribute = sibling;
        } else if (parent->last_child == node) {
            parent->last_child = sibling;
        }
    }
}

void xml_append_attribute(XmlNode* element, XmlNode* attribute) {
    attribute->parent = element;
    attribute->next = nullptr;
    attribute->previous = element->last_attribute;
    if (element->last_attribute)
        element->last_attribute->next = attribute;
    else
        element->first_attribute = attribute;
    element->last_attribute = attribute;
}

void xml_hide(XmlNode* node) { node->flags |= kXmlHidden; }

void xml_free(XmlNode* node) {
    if (node == nullptr) return;
    if (node->kind != kXmlElement && node->kind != kXmlAttribute && node->kind != kXmlText) {
        xml_fatal("Xml error, invalid type of object\n", -1);
    }
    unlink(node);
    if (node->kind == kXmlElement) {
        // Children are taken apart level by level through an explicit list,
        // so a deep tree cannot exhaust the stack.
        XmlNode* pending = node;
        node->next = nullptr;
        while (pending != nullptr) {
            XmlNode* element = pending;
            pending = element->next;
            free_list(element->first_attribute);
            for (XmlNode* child = element->first_child; child != nullptr;) {
                XmlNode* next = child->next;
                if (child->kind == kXmlElement) {
                    child->next = pending;
                    pending = child;
                } else {
                    child->next = nullptr;
                    child->parent = nullptr;
                    xml_free(child);
                }
                child = next;
            }
            free_name(element);
            std::free(element);
        }
        return;
    }
    free_name(node);
    free_value(node);
    std::free(node);
}

const char* xml_attribute_value(const XmlNode* element, const char* name) {
    const XmlNode* a = xml_attribute_node(element, name);
    return a ? a->value : nullptr;
}

XmlNode* xml_attribute_node(const XmlNode* element, const char* name) {
    if (element == nullptr || name == nullptr) return nullptr;
    for (XmlNode* a = element->first_attribute; a != nullptr; a = a->next)
        if (a->name && std::strcmp(a->name, name) == 0) return a;
    return nullptr;
}

} // namespace vukra::table
