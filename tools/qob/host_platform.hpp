// What differs between the systems the tool runs on: how the command line arrives, how
// standard output carries bytes, and how UTF-8 text names a file.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace qobtool {

// The command line as UTF-8 strings, program name first.
std::vector<std::string> Utf8Arguments(int argc, char** argv);

// Standard output passes bytes through unchanged, and the console shows UTF-8.
void PrepareStandardStreams();

inline std::filesystem::path PathFromUtf8(std::string_view text) {
    return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

inline std::string PathToUtf8(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return std::string(text.begin(), text.end());
}

} // namespace qobtool
