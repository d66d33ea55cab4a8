// fuzz_support.h - what the fuzz targets share: taking an input apart, files in memory, and a check that stops.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "base/file_descriptor.h"

// A property that doesn't hold ends the run, with the input kept by the fuzzer.
#define FUZZ_CHECK(condition) fuzzCheck(condition, #condition, __FILE__, __LINE__)
void fuzzCheck(bool holds, const char* condition, const char* file, int line);

// The front of an input tells how to use the rest of it. Beyond the end everything is 0.
class FuzzInput {
public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : rest_(reinterpret_cast<const char*>(data), size) {}

    std::uint8_t byte() { return static_cast<std::uint8_t>(take(1)[0]); }
    // Exactly `size` bytes, filled up with NULs.
    std::string take(std::size_t size) {
        std::string bytes(rest_.substr(0, size));
        rest_.remove_prefix(bytes.size());
        bytes.resize(size, '\0');
        return bytes;
    }
    [[nodiscard]] std::string_view rest() const { return rest_; }

private:
    std::string_view rest_;
};

// A file in memory with these bytes, and its name for those who open by path.
class MemoryFile {
public:
    explicit MemoryFile(std::string_view bytes);
    [[nodiscard]] int fd() const { return fd_.get(); }
    [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(fd_.get()); }

private:
    FileDescriptor fd_;
};

// To be called first by each target: silences the log.
void fuzzStart();
