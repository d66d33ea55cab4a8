#include "replication/uxml.h"

#include <libxml/parserInternals.h>
#include <libxml/xmlstring.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "base/releaser.h"
#include "base/text.h"
#include "log/logger.h"

namespace {

const xmlChar* toXml(const char* text) {
    return reinterpret_cast<const xmlChar*>(text);
}

void freeXmlText(xmlChar* text) {
    xmlFree(text);
}
using XmlTextPtr = std::unique_ptr<xmlChar, Releaser<&freeXmlText>>;

bool isElement(xmlNodePtr node, const char* name) {
    return node->type == XML_ELEMENT_NODE && xmlStrcmp(node->name, toXml(name)) == 0;
}

// Whether an element can hold the text. The library would write an empty element, or a broken document, without a word.
bool isXmlText(const char* text) {
    int left = static_cast<int>(std::strlen(text));
    while (left > 0) {
        int length = left;
        const int character = xmlGetUTF8Char(toXml(text), &length);
        if (character < 0 || !IS_CHAR(character))
            return false;
        text += length;
        left -= length;
    }
    return true;
}

// Text of a child, or its default when the child is missing.
template <typename Number, typename Parse>
int getNumber(xmlNodePtr node, const char* name, Number* value, Parse parse) {
    std::string text;
    const int result = uxml_get_text(node, name, &text);
    if (result == 0)
        *value = static_cast<Number>(parse(text.c_str()));
    return result;
}

}  // namespace

int uxml_add_text(xmlNodePtr parent, const char* name, const char* content) {
    if (content != nullptr && !isXmlText(content)) {
        LOG_HERE(0, "Text of XML element <%s> is not UTF-8, or has characters that XML can't carry", name);
        return -1;
    }
    // The call for text: the one for content would leave '&' as it stands.
    return xmlNewTextChild(parent, nullptr, toXml(name), toXml(content)) != nullptr ? 0 : -1;
}

int uxml_add_bool(xmlNodePtr parent, const char* name, bool value) {
    char text[32];
    if (formatText(text, sizeof text, "%s", value ? "true" : "false") == -1) {
        LOG_HERE(0, "Internal error: buffer too short for boolean value");
        return -1;
    }
    return uxml_add_text(parent, name, text);
}

int uxml_add_int(xmlNodePtr parent, const char* name, int value) {
    char text[32];
    if (formatText(text, sizeof text, "%d", value) == -1) {
        LOG_HERE(0, "Internal error: buffer too short for integer value");
        return -1;
    }
    return uxml_add_text(parent, name, text);
}

int uxml_add_longlong(xmlNodePtr parent, const char* name, long long value) {
    char text[64];
    if (formatText(text, sizeof text, "%lld", value) == -1) {
        LOG_HERE(0, "Internal error: buffer too short for long long value");
        return -1;
    }
    return uxml_add_text(parent, name, text);
}

int uxml_add_ulong(xmlNodePtr parent, const char* name, unsigned long value) {
    char text[32];
    if (formatText(text, sizeof text, "%lu", value) == -1) {
        LOG_HERE(0, "Internal error: buffer too short for unsigned long value");
        return -1;
    }
    return uxml_add_text(parent, name, text);
}

int uxml_add_time(xmlNodePtr parent, const char* name, time_t value) {
    char text[32];
    if (formatText(text, sizeof text, "%ld", static_cast<long>(value)) == -1) {
        LOG_HERE(0, "Internal error: buffer too short for time_t value");
        return -1;
    }
    return uxml_add_text(parent, name, text);
}

xmlNodePtr uxml_find_child(xmlNodePtr node, const char* name) {
    if (node == nullptr)
        return nullptr;
    for (xmlNodePtr child = node->children; child != nullptr; child = child->next) {
        if (isElement(child, name)) {
            LOG_HERE(5, "Returning XML element '%s'\n", name);
            return child;
        }
    }
    return nullptr;
}

int uxml_has_child(xmlNodePtr node, const char* name) {
    return uxml_find_child(node, name) != nullptr ? 1 : 0;
}

int uxml_get_text(xmlNodePtr node, const char* name, std::string* text) {
    const xmlNodePtr child = uxml_find_child(node, name);
    if (child == nullptr) {
        LOG_HERE(0, "XML element <%s> could not be retrieved", name);
        return -1;
    }
    const XmlTextPtr content(xmlNodeGetContent(child));
    if (!content) {
        LOG_HERE(0, "XML element <%s> content could not be read", name);
        return -1;
    }
    try {
        *text = reinterpret_cast<const char*>(content.get());
    } catch (const std::bad_alloc&) {
        LOG_HERE(0, "Out of memory for XML element <%s>", name);
        return -2;
    }
    return 0;
}

int uxml_get_bool(xmlNodePtr node, const char* name, bool* value) {
    return getNumber(node, name, value,
                     [](const char* text) { return *text != '\0' && std::strchr("TtYy1", *text) != nullptr; });
}

int uxml_get_int(xmlNodePtr node, const char* name, int* value) {
    return getNumber(node, name, value, [](const char* text) { return strtol(text, nullptr, 10); });
}

int uxml_get_long(xmlNodePtr node, const char* name, long* value) {
    return getNumber(node, name, value, [](const char* text) { return strtol(text, nullptr, 10); });
}

int uxml_get_longlong(xmlNodePtr node, const char* name, long long* value) {
    return getNumber(node, name, value, [](const char* text) { return strtoll(text, nullptr, 10); });
}

int uxml_get_ulong(xmlNodePtr node, const char* name, unsigned long* value) {
    return getNumber(node, name, value, [](const char* text) { return strtoul(text, nullptr, 10); });
}

int uxml_children(xmlNodePtr node, const char* name, std::vector<xmlNodePtr>* children) {
    children->clear();
    try {
        for (xmlNodePtr child = node != nullptr ? node->children : nullptr; child != nullptr; child = child->next)
            if (isElement(child, name))
                children->push_back(child);
    } catch (const std::bad_alloc&) {
        LOG_HERE(0, "Out of memory for XML node pointer array\n");
        return -1;
    }
    return static_cast<int>(children->size());
}
