// The XML reader, search, editing and writer (three blanks a level, hidden
// nodes skipped).
#include "support/files.h"
#include "support/temp_dir.h"
#include "table/xml_tree.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <utility>
#include <unistd.h>

using namespace vukra;
using namespace vukra::table;

namespace {

struct XmlTest : ::testing::Test {
    test::TempWorkingDir dir;

    XmlNode* parse(const std::string& text) {
        test::write_file("doc.xml", text);
        return xml_load("doc.xml");
    }

    std::string written(const XmlNode* node) {
        std::FILE* f = std::fopen("out.xml", "w");
        xml_write(node, f);
        std::fclose(f);
        return test::read_file("out.xml");
    }
};

// Loads text in a child process whose standard output is its standard
// error, so that a death test can match the reader's message.
void load_dying(const std::string& text) {
    test::write_file("bad.xml", text);
    dup2(2, 1);
    xml_load("bad.xml");
    std::fflush(stdout);
}

TEST_F(XmlTest, ElementsAttributesAndTextAsTheReaderKeepsThem) {
    XmlNode* root = parse("<r><a/><b></b><c k=\"1\" j=\"x y\"/>  <d>x<e/>y</d></r>");
    ASSERT_NE(root, nullptr);
    XmlNode *a = root->first_child, *b = a->next, *c = b->next, *d = c->next;
    EXPECT_EQ(std::string(a->name) + b->name + c->name + d->name, "abcd");
    EXPECT_EQ(a->first_child, b->first_child);
    EXPECT_EQ(a->first_child, nullptr);
    EXPECT_EQ(std::string(xml_attribute_value(c, "k")) + xml_attribute_value(c, "j"), "1x y");
    EXPECT_EQ(xml_attribute_value(c, "K"), nullptr);
    ASSERT_NE(d->first_child, nullptr);
    EXPECT_EQ(d->first_child->kind, kXmlText);
    EXPECT_STREQ(d->first_child->value, "x"); // the y after <e/> is dropped
    EXPECT_STREQ(d->first_child->next->name, "e");
    EXPECT_EQ(d->first_child->next->next, nullptr);
    EXPECT_EQ(d->parent, root);
    EXPECT_EQ(root->last_child, d);
    xml_free(root);
}

TEST_F(XmlTest, EntitiesAndTwoByteSequencesDecode) {
    XmlNode* root = parse("<r v=\"a&quot;b &amp;&lt;&gt;&#65;&zz;\"><t>q&quot;q &#233; \xC3\xA9 &#321;</t></r>");
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(xml_attribute_value(root, "v"), "a\"b &<>A ");
    XmlNode* t = root->first_child;
    EXPECT_EQ(std::string(t->first_child->value), "q q \xE9 \xE9 A"); // 321 & 0xFF is 'A'
    // The writer escapes what needs it and gives bytes above 127 as numbers.
    xml_set_value(t->first_child, "1<2 & \xE9");
    EXPECT_EQ(written(t), "<t>1&lt;2 &amp; &#233;</t>");
    xml_free(root);
}

TEST_F(XmlTest, PathsFindEveryMatchInDocumentOrder) {
    XmlNode* root = parse(
        "<root><config n=\"1\"/><list><item>one</item><item>Two</item></list><config n=\"2\"/></root>");
    ASSERT_NE(root, nullptr);
    XmlCursor cursor;
    XmlNode* first = xml_find_first(cursor, root, "root/config");
    ASSERT_NE(first, nullptr);
    EXPECT_STREQ(xml_attribute_value(first, "n"), "1");
    XmlNode* second = xml_find_next(cursor);
    ASSERT_NE(second, nullptr);
    EXPECT_STREQ(xml_attribute_value(second, "n"), "2");
    EXPECT_EQ(xml_find_next(cursor), nullptr);

    EXPECT_EQ(xml_find_first(cursor, root, "other/config"), nullptr);
    EXPECT_NE(xml_find_first(cursor, root, "root/list/item", "two", 1), nullptr);
    EXPECT_EQ(xml_find_first(cursor, root, "root/list/item", "two", 0), nullptr);
    EXPECT_STREQ(xml_text_at(cursor, root, "root/list/item"), "one");
    EXPECT_EQ(xml_text_at(cursor, root, "root/config"), nullptr);
    xml_free(root);
}

TEST_F(XmlTest, OverlongValuesAreCutAndAnEndOfFileEndsTheDocument) {
    XmlNode* root = parse("<r v=\"" + std::string(3000, 'v') + "\">" + std::string(10000, 't') + "<c/></r>");
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(std::string(xml_attribute_value(root, "v")).size(), 511u);
    EXPECT_EQ(std::string(root->first_child->value).size(), 8191u);
    EXPECT_STREQ(root->first_child->next->name, "c");
    xml_free(root);

    // A document cut anywhere: what was read up to the cut.
    std::string shapes;
    for (const char* cut : {"<r><a", "<r><a k=\"1\"", "<r>text", "<r", "", "<r><a></a"}) {
        XmlNode* partial = parse(cut);
        shapes += partial == nullptr ? std::string("-") : partial->name;
        for (XmlNode* c = partial ? partial->first_child : nullptr; c != nullptr; c = c->next)
            shapes += std::string(c->kind == kXmlText ? "'" : "/") + (c->kind == kXmlText ? c->value : c->name);
        shapes += " ";
        if (partial != nullptr) xml_free(partial);
    }
    EXPECT_EQ(shapes, "r/a r/a r'text r - r/a ");
    EXPECT_EQ(xml_load("missing.xml"), nullptr);

    std::string many = "<root>", deep; // many siblings, deep nesting
    for (int i = 0; i < 100000; ++i) many += "<r n=\"" + std::to_string(i) + "\"/>\n";
    root = parse(many + "</root>");
    ASSERT_NE(root, nullptr);
    EXPECT_STREQ(xml_attribute_value(root->last_child, "n"), "99999");
    xml_free(root);
    for (int i = 0; i < 100000; ++i) deep += "<d>";
    for (int i = 0; i < 100000; ++i) deep += "</d>";
    root = parse(deep);
    ASSERT_NE(root, nullptr);
    xml_free(root);
}

// Documents the reader refuses, and its message.
const std::pair<const char*, const char*> kSyntaxErrors[] = {
    {"<a></b>", "Xml error, different names a b\n"},
    {"<a><></a>", "Xml error, void name\n"},
    {"<r><a >x</a> <b/></r>", "Xml error in attribute\n"},
    {"<a k=1/>", "Xml error in attribute\n"},
    {"<a k=\"open/>", "Xml error in attribute\n"},
    {"<a k=\"&ampersandwithoutend\"/>", "Xml error : bad esc char\n"},
};

TEST_F(XmlTest, SyntaxErrorsEndTheProcessWithTheirMessage) {
    for (const auto& [text, message] : kSyntaxErrors)
        EXPECT_EXIT(load_dying(text), ::testing::ExitedWithCode(0), message) << text;
}

TEST_F(XmlTest, EditingKeepsTheListsLinked) {
    XmlNode* root = xml_create_element("root");
    XmlNode* b = xml_create_element("b");
    xml_append_child(root, b);
    xml_prepend_child(root, xml_create_element("a"));
    xml_insert_after(b, xml_create_element("c"));
    xml_append_attribute(root, xml_create_attribute("k", "v"));
    xml_set_value(xml_attribute_node(root, "k"), "w");
    EXPECT_EQ(written(root), "<root k=\"w\">\n   <a/>\n   <b/>\n   <c/>\n</root>");
    xml_hide(b); // the writer skips a hidden node
    EXPECT_EQ(written(root), "<root k=\"w\">\n   <a/>\n   <c/>\n</root>");
    xml_free(b);
    EXPECT_EQ(written(root), "<root k=\"w\">\n   <a/>\n   <c/>\n</root>");
    EXPECT_STREQ(root->last_child->name, "c");
    xml_free(root);
}

} // namespace
