#include "replication/uxml.h"

#include <libxml/parser.h>

#include "base/releaser.h"
#include "support/test.h"

namespace {

using DocumentPtr = std::unique_ptr<xmlDoc, Releaser<&xmlFreeDoc>>;

DocumentPtr parse(const char* text) {
    return DocumentPtr(xmlReadMemory(text, static_cast<int>(strlen(text)), nullptr, nullptr, XML_PARSE_NONET));
}

TEST(Uxml, ValuesAreWrittenAndReadOrRefused) {
    DocumentPtr document = parse("<r/>");
    const xmlNodePtr root = xmlDocGetRootElement(document.get());
    const std::string awkward = "a & b < c > \"d\" 'e' &amp; \xc3\xa4 ]]> \t\n \xf0\x9f\x98\x80";
    EXPECT_EQ(uxml_add_text(root, "text", awkward.c_str()) + uxml_add_bool(root, "bool", true) +
                  uxml_add_longlong(root, "n", LLONG_MIN) + uxml_add_ulong(root, "u", ULONG_MAX) +
                  uxml_add_int(root, "i", -5) + uxml_add_time(root, "t", 1700000000),
              0);
    // They would spoil the document, or come out as an empty element.
    for (const char* text : {"latin1 \xe4", "tar \x1b[1m", "\x01", "a\xef\xbf\xbe", "\xef\xbf\xbf", "\xed\xa0\x80"})
        EXPECT_EQ(uxml_add_text(root, "broken", text), -1) << text;
    xmlChar* text = nullptr;
    int length = 0;
    xmlDocDumpFormatMemory(document.get(), &text, &length, 1);
    document = parse(reinterpret_cast<const char*>(text));
    xmlFree(text);
    ASSERT_TRUE(document);
    const xmlNodePtr read = xmlDocGetRootElement(document.get());
    std::string string;
    long long number = 0;
    unsigned long largest = 0;
    EXPECT_EQ(uxml_get_text(read, "text", &string) + uxml_get_longlong(read, "n", &number) +
                  uxml_get_ulong(read, "u", &largest),
              0);
    EXPECT_EQ(string, awkward);
    EXPECT_TRUE(number == LLONG_MIN && largest == ULONG_MAX);
    for (const auto& [name, value] : {std::pair("bool", "true"), {"i", "-5"}, {"t", "1700000000"}}) {
        EXPECT_EQ(uxml_get_text(read, name, &string), 0);
        EXPECT_EQ(string, value);
    }
    EXPECT_EQ(uxml_has_child(read, "broken"), 0);
}

TEST(Uxml, OnlyChildElementsCount) {
    const DocumentPtr document = parse("<r> text <!-- a --><b><a>deep</a></b><a>first</a><a><c>x</c>y</a></r>");
    const xmlNodePtr root = xmlDocGetRootElement(document.get());
    std::string text = "kept";
    EXPECT_EQ(uxml_get_text(root, "a", &text), 0);
    std::vector<xmlNodePtr> children;
    ASSERT_EQ(uxml_children(root, "a", &children), 2);
    EXPECT_EQ(uxml_has_child(children[1], "c"), 1);
    EXPECT_TRUE(uxml_children(root, "c", &children) == 0 && children.empty());
    EXPECT_EQ(uxml_get_text(root, "c", &text), -1);
    EXPECT_EQ(text, "first");
    int number = 5;
    EXPECT_TRUE(uxml_get_int(root, "a", &number) == 0 && number == 0) << "no number";
}

TEST(Uxml, TruthIsToldByTheFirstLetter) {
    for (const auto& [text, truth] : {std::pair("yes", true), {"True", true}, {"1", true}, {"0", false}, {"", false}}) {
        const DocumentPtr document = parse(("<r><v>" + std::string(text) + "</v></r>").c_str());
        bool value = !truth;
        EXPECT_EQ(uxml_get_bool(xmlDocGetRootElement(document.get()), "v", &value), 0);
        EXPECT_EQ(value, truth) << text;
    }
}

}  // namespace
