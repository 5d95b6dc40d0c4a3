// Paths are UTF-8 byte strings inside the library; std::filesystem::path speaks the
// platform's encoding (UTF-16 on Windows). These two convert at that boundary.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace QOB {

inline std::filesystem::path PathFromUtf8(std::string_view text) {
    return std::filesystem::path(std::u8string(text.begin(), text.end()));
}

inline std::string PathToUtf8(const std::filesystem::path& path) {
    const std::u8string text = path.u8string();
    return std::string(text.begin(), text.end());
}

} // namespace QOB
