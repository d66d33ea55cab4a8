// releaser.h - owners for what C libraries hand out: a deleter made of the library's own release function.
#pragma once

#include <cstdlib>
#include <memory>
#include <utility>

template <auto release>
struct Releaser {
    void operator()(auto* p) const noexcept { release(p); }
};

// A block from malloc: text or bytes that a C interface returned to be freed.
template <typename T>
using MallocPtr = std::unique_ptr<T, Releaser<&std::free>>;

// Runs a function at the end of the scope, whichever way it is left.
template <typename F>
class Cleanup {
public:
    explicit Cleanup(F f) : f_(std::move(f)) {}
    Cleanup(const Cleanup&) = delete;
    Cleanup& operator=(const Cleanup&) = delete;
    ~Cleanup() { f_(); }

private:
    F f_;
};
