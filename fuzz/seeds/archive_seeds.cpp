// Writes the seed corpus of the archive fuzz target into the directory given (created if
// needed): the tests' zip fixtures, made by the tests' zip writer.
#include "common/zip_fixtures.hpp"

#include <filesystem>
#include <fstream>
#include <iostream>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: archive_seeds <directory>\n";
        return 2;
    }
    const std::filesystem::path directory(argv[1]);
    std::filesystem::create_directories(directory);
    for (const auto& [name, bytes] : qobtest::ArchiveSeeds()) {
        std::ofstream out(directory / name, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out) {
            std::cerr << "cannot write " << (directory / name).string() << "\n";
            return 1;
        }
    }
    return 0;
}
