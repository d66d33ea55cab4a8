// Runs a fuzz target once over each file of a folder: what was found stays mended, without the fuzzer.

#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    int count = 0;
    try {
        for (int i = 1; i < argc; ++i)
            for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
                if (!entry.is_regular_file())
                    continue;
                std::ifstream file(entry.path(), std::ios::binary);
                const std::string bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
                std::printf("%s\n", entry.path().c_str());
                std::fflush(stdout);  // the input that ends the run is the last one named
                (void)LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
                ++count;
            }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    std::printf("%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
