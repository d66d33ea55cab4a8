// uxml.h - small helpers on libxml2 trees: values as child elements with text.
//
// Threads: a tree belongs to one thread.
// Errors:  0, or -1 logged; outputs are untouched on failure.
#pragma once

#include <libxml/tree.h>

#include <ctime>
#include <string>
#include <vector>

// Add a child element that holds the value. Text that isn't UTF-8, or holds a character that
// XML has no place for, fails its element: it would be lost, or spoil the document, unnoticed.
[[nodiscard]] int uxml_add_text(xmlNodePtr parent, const char* name, const char* content);
[[nodiscard]] int uxml_add_bool(xmlNodePtr parent, const char* name, bool value);
[[nodiscard]] int uxml_add_int(xmlNodePtr parent, const char* name, int value);
[[nodiscard]] int uxml_add_longlong(xmlNodePtr parent, const char* name, long long value);
[[nodiscard]] int uxml_add_ulong(xmlNodePtr parent, const char* name, unsigned long value);
[[nodiscard]] int uxml_add_time(xmlNodePtr parent, const char* name, time_t value);

// The first child element of that name, null for none.
[[nodiscard]] xmlNodePtr uxml_find_child(xmlNodePtr node, const char* name);
[[nodiscard]] int uxml_has_child(xmlNodePtr node, const char* name);

// The content of a child: -1 if it is missing or can't be read, -2 without memory. A text that isn't a number gives 0.
[[nodiscard]] int uxml_get_text(xmlNodePtr node, const char* name, std::string* text);
[[nodiscard]] int uxml_get_bool(xmlNodePtr node, const char* name, bool* value);
[[nodiscard]] int uxml_get_int(xmlNodePtr node, const char* name, int* value);
[[nodiscard]] int uxml_get_long(xmlNodePtr node, const char* name, long* value);
[[nodiscard]] int uxml_get_longlong(xmlNodePtr node, const char* name, long long* value);
[[nodiscard]] int uxml_get_ulong(xmlNodePtr node, const char* name, unsigned long* value);

// All child elements of that name, borrowed from the tree. Their number.
[[nodiscard]] int uxml_children(xmlNodePtr node, const char* name, std::vector<xmlNodePtr>* children);
