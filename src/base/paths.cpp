#include "base/paths.h"

#include <cstdlib>

namespace {

std::string cleanRoot(std::string_view root) {
    // "/lab/" and "/lab" are the same root; "/" is none.
    while (!root.empty() && root.back() == '/')
        root.remove_suffix(1);
    return std::string(root);
}

std::string& root() {
    static std::string value = [] {
        const char* environment = secure_getenv("FERRYD_ROOT");
        return cleanRoot(environment == nullptr ? "" : environment);
    }();
    return value;
}

}  // namespace

std::string systemPath(std::string_view path) {
    const std::string& front = root();
    std::string whole;
    whole.reserve(front.size() + path.size());
    return whole.append(front).append(path);
}

void overrideSystemRoot(std::string_view newRoot) {
    root() = cleanRoot(newRoot);
}
