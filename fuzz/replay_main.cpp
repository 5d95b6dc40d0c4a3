// Runs the fuzz entry point over every file of the directories (or files) given, without
// libFuzzer: the regression replay of the seed corpus and of every crash found so far.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void RunOne(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

} // namespace

int main(int argc, char** argv) {
    std::size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        const std::filesystem::path root(argv[i]);
        std::error_code error;
        if (std::filesystem::is_regular_file(root, error)) {
            RunOne(root);
            ++count;
            continue;
        }
        if (!std::filesystem::is_directory(root, error)) {
            continue;
        }
        for (const auto& item : std::filesystem::recursive_directory_iterator(root)) {
            if (item.is_regular_file()) {
                RunOne(item.path());
                ++count;
            }
        }
    }
    std::printf("replayed %zu inputs\n", count);
    return count > 0 ? 0 : 1;
}
