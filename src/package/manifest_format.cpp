#include "package/manifest_format.hpp"

#include <cstdlib>

namespace QOB {

bool IsManifestName(std::string_view name) noexcept {
    for (const char* row : kManifestNames) {
        if (name == row) {
            return true;
        }
    }
    return false;
}

unsigned ManifestVersion(const char* text) noexcept {
    if (text == nullptr) {
        return 0;
    }
    // strtol rather than atoi: same digits, but no undefined behaviour on overflow.
    const long value = std::strtol(text, nullptr, 10);
    return static_cast<unsigned>(static_cast<int>(value));
}

std::string_view KindDirectory(EntryKind kind) noexcept {
    switch (kind) {
    case EntryKind::Raw:
        return "";
    case EntryKind::Proxy:
        return kProxyPrefix;
    default:
        return kSettingsPrefix;
    }
}

} // namespace QOB
