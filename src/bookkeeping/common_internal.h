// common_internal.h - what the sources of the catalogue queries share.
#pragma once

#include <string>

// Keeps a text for dqLastError and logs it as an error of `function`, the public one, at the given line.
void dqStoreError(const char* file, int line, const char* function, const std::string& text);

#define DQ_ERROR(function, ...) dqStoreError(__FILE__, __LINE__, function, formatString(__VA_ARGS__))
