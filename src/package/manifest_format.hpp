// The manifest as a file format: the 23 entry names, the package's internal directories,
// and the element names and header values of the XML tree.
#pragma once

#include <qob/qob.h>

#include <array>
#include <cstddef>
#include <string_view>

namespace QOB {

// Row order is fixed and used by every loop over manifests; row i keeps its text in
// QOB_PackageInfo::szManifests[i]. Row 0 is the primary manifest and alone has the header.
inline constexpr std::array<const char*, QOB_MANIFEST_COUNT> kManifestNames = {
    "manifest.xml",     "manifest50.xml",   "manifest70.xml",   "manifest80.xml",
    "manifest81.xml",   "manifest82.xml",   "manifest90.xml",   "manifest91.xml",
    "manifest100.xml",  "manifest110.xml",  "manifest120.xml",  "manifest130.xml",
    "manifest131.xml",  "manifest140.xml",  "manifest141.xml",  "manifest152.xml",
    "manifest165.xml",  "manifest166.xml",  "manifest1664.xml", "manifest1665.xml",
    "manifest1670.xml", "manifest1674.xml", "manifest1680.xml"};

inline constexpr std::size_t kPrimaryManifestRow = 0;
inline constexpr std::size_t kLastManifestRow = QOB_MANIFEST_COUNT - 1;

// A manifest's text lives NUL-terminated in its buffer, so it holds at most 16383 characters.
inline constexpr std::size_t kManifestBufferSize = QOB_MANIFEST_SIZE;
// Space reserved behind every manifest entry, so that a longer manifest is rewritten in place.
inline constexpr std::size_t kManifestReserve = 16384;

inline char* ManifestText(QOB_PackageInfo& info, std::size_t row) noexcept {
    return info.szManifests[row];
}

// True when name is exactly (case-sensitively) one of the 23 manifest names.
bool IsManifestName(std::string_view name) noexcept;

// Internal directories, each with its trailing slash.
inline constexpr std::string_view kSettingsPrefix = "Quillmarsh/Settings1680/";
inline constexpr std::string_view kProxyPrefix = "Quillmarsh/Cache/Proxies/";

// Element and attribute names; readers compare them without regard to case.
namespace ManifestTag {
inline constexpr std::string_view kManifest = "Manifest";
inline constexpr std::string_view kPlatform = "Platform";
inline constexpr std::string_view kVersion = "Version";
inline constexpr std::string_view kMinorVersion = "MinorVersion";
inline constexpr std::string_view kType = "Type";
inline constexpr std::string_view kFile = "File";
inline constexpr std::string_view kRawPath = "RawPath";
inline constexpr std::string_view kSettingsPath = "SettingsPath";
inline constexpr std::string_view kProxyPath = "ProxyPath";
inline constexpr std::string_view kLccs = "LCCs";
inline constexpr std::string_view kLccPath = "LCCPath";
inline constexpr std::string_view kLccId = "LccID";
inline constexpr std::string_view kIccs = "ICCs";
inline constexpr std::string_view kIccPath = "ICCPath";
inline constexpr std::string_view kIccId = "IccID";
inline constexpr std::string_view kMaskPath = "QmMaskPath";
inline constexpr std::string_view kHairPath = "QmHairPath";
} // namespace ManifestTag

// Header values written into the primary manifest. Only Version is checked on reading.
inline constexpr std::string_view kPlatformValue = "0";
inline constexpr std::string_view kVersionValue = "1";
inline constexpr std::string_view kMinorVersionValue = "3";
inline constexpr std::string_view kTypeValue = "0";
inline constexpr unsigned kSupportedVersion = 1;
inline constexpr unsigned kMaxFilesPerManifest = 10;

// The version as a reader sees it: leading decimal digits as atoi takes them (text without
// them is 0), taken as an unsigned 32-bit number, so "-1" is 4294967295.
unsigned ManifestVersion(const char* text) noexcept;

// Kinds of package file. The numbering is internal; it picks the naming rule and directory.
enum class EntryKind : unsigned {
    Raw = 0,
    Settings = 1,
    Lcc = 2,
    Proxy = 3,
    Icc = 4,
    Mask = 5,
    Hair = 6
};

// The directory of a kind inside the package ("" for the archive root).
std::string_view KindDirectory(EntryKind kind) noexcept;

} // namespace QOB
