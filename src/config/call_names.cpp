// The call-name stack. One for the process: it is kept by the main thread.
#include <cstring>

#include "config/directories.h"
#include "log/logger.h"

namespace {

constexpr int NAME_LIMIT = 50;
constexpr std::size_t NAME_SIZE = 64;
constexpr const char* NOT_SET = "Not set:";

char names[NAME_LIMIT][NAME_SIZE];
int top = -1;

void copyName(char* dest, const char* name) {
    const std::size_t length = strnlen(name, NAME_SIZE - 1);
    std::memcpy(dest, name, length);
    dest[length] = '\0';
}

int clearFullStack() {
    log_message(1, "WARNING: push_name() limit of %d reached\n", NAME_LIMIT);
    for (int i = 0; i < NAME_LIMIT; i++)
        log_message(1, "name_array[%d] is \"%s\"\n", i, names[i]);
    std::memset(names, 0, sizeof(names));
    top = -1;
    return -1;
}

}  // namespace

int push_name(const char* name) {
    if (name == nullptr)
        log_message(4, "Entering function: (null function name)\n");
    else
        log_message(4, "Entering function: %s\n", name);
    if (top > NAME_LIMIT - 2)
        return clearFullStack();
    copyName(names[++top], name == nullptr ? NOT_SET : name);
    return 0;
}

int pop_name() {
    if (top < 0 || top >= NAME_LIMIT) {
        log_message(1, "WARNING: pop_name() - cannot pop stack further\n");
        return -1;
    }
    log_message(4, "Leaving function: %s\n", names[top]);
    top--;
    return 0;
}

const char* dbproc_name() {
    static char present[NAME_SIZE];
    const bool isSet =
        top >= 0 && top < NAME_LIMIT && names[top][0] != '\0' && std::strstr(names[top], "%%s") == nullptr;
    copyName(present, isSet ? names[top] : NOT_SET);
    return present;
}

void dump_names() {
    log_message(1, "Stack Procedure Trace Dump:\n");
    for (int i = 0; i <= top; i++)
        log_message(1, "%s\n", dbproc_name());
}
