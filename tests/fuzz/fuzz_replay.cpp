// Gives a target each file of a folder, where no fuzzer is linked.
#include <filesystem>
#include <iterator>

#include "tests/fuzz/fuzz.h"

int main(int argc, char** argv) {
    size_t files = 0;
    if (argc != 2) return 2;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        ++files;
    }
    printf("replayed %zu inputs\n", files);
    return files > 0 ? 0 : 1;
}
