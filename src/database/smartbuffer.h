// smartbuffer.h - growing text buffers for long statements.
//
// An error stays set once any step failed, so a caller builds a long text and checks once at the end.
// The text is always NUL-terminated. A buffer belongs to one thread.
#pragma once

#include "base/releaser.h"

inline constexpr int SMARTBUFFER_STEP = 2048;  // bytes

// The heap form.
struct smartbuffer {
    MallocPtr<char> text;
    int capacity = 0;  // bytes of the block
    int length = 0;    // bytes of text, without the NUL
    int error = 0;
};

// The inline form: text lives in the record until it outgrows it.
struct smartbuffer_stack {
    char inlineText[SMARTBUFFER_STEP] = "";
    MallocPtr<char> text;
    int capacity = 0;
    int length = 0;
    int error = 0;

    [[nodiscard]] const char* c_str() const { return text ? text.get() : inlineText; }
};

// All return 0, or -1 with the error set. A negative length means strlen.
int smartbuffer_init(smartbuffer* buffer);
int smartbuffer_append(smartbuffer* buffer, const char* text, int length);
[[gnu::format(printf, 2, 3)]] int smartbuffer_printf(smartbuffer* buffer, const char* format, ...);

int smartbuffer_stack_init(smartbuffer_stack* buffer);
int smartbuffer_stack_append(smartbuffer_stack* buffer, const char* text, int length);
[[gnu::format(printf, 2, 3)]] int smartbuffer_stack_printf(smartbuffer_stack* buffer, const char* format, ...);
