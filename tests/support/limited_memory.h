// limited_memory.h - memory that runs out. Takes the place of the whole program's operator new, so only one source of a
// test program includes it.
#pragma once

#include <cstddef>
#include <new>

#include "support/test.h"

// The largest piece of memory that can be had, and a size of which there is none.
inline std::atomic<std::size_t> g_largestPiece = SIZE_MAX;
inline std::atomic<std::size_t> g_failingSize = 0;

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return size <= g_largestPiece && size != g_failingSize ? std::malloc(size) : nullptr;
}
void* operator new(std::size_t size) {
    void* const piece = operator new(size, std::nothrow);
    if (piece == nullptr)
        throw std::bad_alloc();
    return piece;
}
void operator delete(void* piece) noexcept {
    std::free(piece);
}
void operator delete(void* piece, std::size_t) noexcept {
    std::free(piece);
}
