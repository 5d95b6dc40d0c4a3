#include "package/manifest_format.hpp"

#include <algorithm>
#include <climits>
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
    // atoi's digits, without its undefined behaviour on overflow, and the same result where
    // long is 32 bits (Windows) and where it is 64: out-of-range values saturate to int.
    const long long value = std::strtoll(text, nullptr, 10);
    const long long clamped = std::clamp<long long>(value, INT_MIN, INT_MAX);
    return static_cast<unsigned>(static_cast<int>(clamped));
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
