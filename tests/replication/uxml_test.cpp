#include "replication/uxml.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <climits>
#include <cstring>
#include <memory>

#include "base/releaser.h"

namespace {

using DocumentPtr = std::unique_ptr<xmlDoc, Releaser<&xmlFreeDoc>>;

DocumentPtr parse(const char* text) {
    return DocumentPtr(xmlReadMemory(text, static_cast<int>(strlen(text)), nullptr, nullptr, XML_PARSE_NONET));
}

TEST(Uxml, ValuesSurviveWritingAndReading) {
    DocumentPtr document(xmlNewDoc(reinterpret_cast<const xmlChar*>("1.0")));
    const xmlNodePtr root = xmlNewNode(nullptr, reinterpret_cast<const xmlChar*>("r"));
    xmlDocSetRootElement(document.get(), root);
    const std::string awkward = "a & b < c > \"d\" 'e' &amp; \xc3\xa4 ]]>";
    EXPECT_EQ(uxml_add_text(root, "text", awkward.c_str()), 0);
    EXPECT_EQ(uxml_add_text(root, "empty", ""), 0);
    EXPECT_EQ(uxml_add_bool(root, "bool", true), 0);
    EXPECT_EQ(uxml_add_int(root, "int", INT_MIN), 0);
    EXPECT_EQ(uxml_add_longlong(root, "longlong", LLONG_MIN), 0);
    EXPECT_EQ(uxml_add_ulong(root, "ulong", ULONG_MAX), 0);
    EXPECT_EQ(uxml_add_time(root, "time", 1700000000), 0);
    EXPECT_EQ(uxml_add_text(root, "broken", "latin1 \xe4"), -1) << "it would spoil the document";

    xmlChar* text = nullptr;
    int length = 0;
    xmlDocDumpFormatMemory(document.get(), &text, &length, 1);
    document = parse(reinterpret_cast<const char*>(text));
    xmlFree(text);
    ASSERT_TRUE(document);
    const xmlNodePtr read = xmlDocGetRootElement(document.get());
    std::string string;
    bool yes = false;
    int integer = 0;
    long long longLong = 0;
    unsigned long unsignedLong = 0;
    long time = 0;
    EXPECT_EQ(uxml_get_text(read, "text", &string), 0);
    EXPECT_EQ(string, awkward);
    EXPECT_EQ(uxml_get_text(read, "empty", &string), 0);
    EXPECT_EQ(string, "");
    EXPECT_EQ(uxml_get_bool(read, "bool", &yes), 0);
    EXPECT_TRUE(yes);
    EXPECT_EQ(uxml_get_int(read, "int", &integer), 0);
    EXPECT_EQ(integer, INT_MIN);
    EXPECT_EQ(uxml_get_longlong(read, "longlong", &longLong), 0);
    EXPECT_EQ(longLong, LLONG_MIN);
    EXPECT_EQ(uxml_get_ulong(read, "ulong", &unsignedLong), 0);
    EXPECT_EQ(unsignedLong, ULONG_MAX);
    EXPECT_EQ(uxml_get_long(read, "time", &time), 0);
    EXPECT_EQ(time, 1700000000);
    EXPECT_EQ(uxml_has_child(read, "broken"), 0);
}

TEST(Uxml, OnlyChildElementsCount) {
    const DocumentPtr document = parse("<r> text <!-- a --><b><a>deep</a></b><a>first</a><a><c>x</c>y</a></r>");
    const xmlNodePtr root = xmlDocGetRootElement(document.get());
    std::string text = "kept";
    EXPECT_EQ(uxml_get_text(root, "a", &text), 0);
    EXPECT_EQ(text, "first");
    std::vector<xmlNodePtr> children;
    ASSERT_EQ(uxml_children(root, "a", &children), 2);
    EXPECT_EQ(uxml_has_child(children[1], "c"), 1);
    EXPECT_EQ(uxml_children(root, "c", &children), 0);
    EXPECT_TRUE(children.empty());
    EXPECT_EQ(uxml_get_text(root, "c", &text), -1);
    EXPECT_EQ(text, "first");
    int number = 5;
    EXPECT_EQ(uxml_get_int(root, "a", &number), 0);
    EXPECT_EQ(number, 0) << "no number";
}

TEST(Uxml, TruthIsToldByTheFirstLetter) {
    const struct {
        const char* document;
        bool value;
    } cases[] = {{"<r><v>yes</v></r>", true}, {"<r><v>True</v></r>", true},   {"<r><v>1</v></r>", true},
                 {"<r><v>0</v></r>", false},  {"<r><v>false</v></r>", false}, {"<r><v/></r>", false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.document);
        const DocumentPtr document = parse(c.document);
        bool value = !c.value;
        EXPECT_EQ(uxml_get_bool(xmlDocGetRootElement(document.get()), "v", &value), 0);
        EXPECT_EQ(value, c.value);
    }
}

}  // namespace
