// An ini file of any bytes. A value of plain letters that is put in comes back, whatever stood there; no other key of
// the file's sections changes; and the readers stay within the room that they are given.

#include "config/ini.h"

#include <cctype>
#include <cstring>
#include <map>
#include <vector>

#include "fuzz_support.h"

namespace {

constexpr std::size_t ROOM = 1 << 16;

std::vector<std::string> names(const char* section, const std::string& path) {
    std::vector<char> list(ROOM, 'x');
    std::vector<std::string> found;
    if (ini_get_string(section, nullptr, "", list.data(), list.size(), path) == 0)
        for (const char* name = list.data(); *name != '\0'; name += std::strlen(name) + 1)
            found.emplace_back(name);
    return found;
}

// What every key reads as, by section.
std::map<std::string, std::map<std::string, std::string>> valuesOf(const std::string& path) {
    std::map<std::string, std::map<std::string, std::string>> values;
    for (const std::string& section : names(nullptr, path))
        for (const std::string& key : names(section.c_str(), path))
            values[section].try_emplace(key, ini_text(section.c_str(), key.c_str(), "absent", path, ROOM));
    return values;
}

std::string letters(std::string text) {
    for (char& c : text)
        c = static_cast<char>('a' + static_cast<unsigned char>(c) % 26);
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzzStart();
    FuzzInput input(data, size);
    const bool isField = (input.byte() & 1) != 0;
    const std::string section = letters(input.take(1));
    const std::string key = letters(input.take(1));
    const std::string value = letters(input.take(input.byte() % 100 + 1));
    const MemoryFile file(input.rest());
    const std::string path = file.path();
    char small[4] = "...";
    (void)ini_get_string(section.c_str(), key.c_str(), "", small, sizeof small, path);
    FUZZ_CHECK(std::memchr(small, '\0', sizeof small) != nullptr);
    const auto before = valuesOf(path);
    const int result = isField ? ini_put_field(section.c_str(), key.c_str(), value.c_str(), path)
                               : ini_put_data(section.c_str(), key.c_str(), value.c_str(), path);
    FUZZ_CHECK(result == 0);
    // Reader and writer find the end of a section's name differently, as files of other programs need it; where they
    // agree about the file, what was put is what is read.
    if (input.rest().find_first_of("[]\\'\"\r\v\f\t") == std::string_view::npos &&
        input.rest().find('\0') == std::string_view::npos) {
        FUZZ_CHECK(ini_text(section.c_str(), key.c_str(), "absent", path, ROOM) == value);
        for (const auto& [name, keys] : before)
            for (const auto& [other, text] : keys)
                if (name != section || other != key)
                    FUZZ_CHECK(ini_text(name.c_str(), other.c_str(), "absent", path, ROOM) == text);
    }
    return 0;
}
