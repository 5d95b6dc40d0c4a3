// A small reader of a zip file's central directory, for listing entries and where their
// bytes sit. It trusts nothing in the file: every length and offset is checked against the
// bytes actually there.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qobtool {

struct ZipEntry {
    std::string name;                 // exactly as stored
    std::uint64_t content_size = 0;   // real content, from the 4-byte content size field
    std::uint64_t allocated_size = 0; // stored size: content plus reserved zero space
    std::uint64_t data_offset = 0;    // first content byte in the file
    std::uint32_t dos_time = 0;       // DOS date (high 16 bits) and time
};

// Every entry of the central directory, in its order. Throws ToolError when the file cannot
// be read or is not a zip file this reader understands (zip64 is not).
std::vector<ZipEntry> ReadZipDirectory(const std::filesystem::path& file);

// The content size that the 4-byte field means for an entry of the given stored size.
std::uint64_t ContentSizeFromExtra(std::string_view extra, std::uint64_t stored) noexcept;

// The entry named name: an exact match first, else one equal but for ASCII letter case.
std::optional<ZipEntry> FindEntry(const std::vector<ZipEntry>& entries, std::string_view name);

} // namespace qobtool
