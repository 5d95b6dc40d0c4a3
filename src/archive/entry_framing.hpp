// How every entry is laid out: stored (never compressed), followed by zero padding that
// reserves room for a later, larger version, with a raw 4-byte little-endian "content
// size" extra field in both headers (no header ID: readers know it by its length alone).
// The field holds the content length when there is padding, else 0 (all stored bytes are
// content). Private to the archive module; the handles are those of MiniZip::Handle.
#pragma once

#include "archive/path.hpp"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

namespace QOB {

// One entry as read back from the central directory.
struct Entry {
    // Bytes in front of the archive (a self-extractor stub) + local header offset + 30 + name,
    // extra and comment lengths of the central record: a position in the file. Exact for
    // entries we write; for other tools' entries the local extra field may differ, so
    // content is never read through this offset.
    std::uint64_t data_offset = 0;
    std::uint64_t allocated_size = 0; // stored size: content plus padding
    std::uint64_t content_size = 0;
    // The name decoded to UTF-8 as the standard readers show it (code page 437 unless flagged
    // UTF-8, or the Unicode Path field; backslashes kept). Entries we write read back as
    // stored.
    std::string path;
    // From the DOS date and time; tm_year is the full year (e.g. 2024), tm_mon 0-based;
    // weekday, day of year and daylight flag are 0.
    std::tm time{};
    std::uint32_t dos_time = 0; // raw DOS word, date in the high 16 bits
    std::uint32_t crc = 0;      // the central record's CRC-32 (of content and padding)
    std::uint32_t method = 0;   // 0 stored, 8 deflated (other tools' entries)
    // Where its central record is, so that it can be read again by its own record rather
    // than by name (names may repeat, or differ in letter case only).
    std::uint32_t index = 0;
    std::uint32_t record_position = 0;
};

inline constexpr std::uint64_t kMaxEntrySize = 0xFFFFFFFFu;
// Copies and padding go through buffers of at most this size.
inline constexpr std::size_t kCopyBufferSize = 1024 * 1024;

// Opens a new entry and writes its local header. time counts years since 1900. Throws
// "entry too large" (nothing written) for length above 0xFFFFFFFF.
void WriteBegin(void* zip, const Path& path, const std::tm& time, std::uint64_t length,
                std::uint64_t padding_size);
// Writes the zero padding and closes the entry (CRC-32 over content and padding).
void WriteEnd(void* zip, std::uint64_t padding_size);

// Locates the entry (ASCII case-insensitive) and opens it for reading.
void ReadBegin(void* unzip, const Path& path);
// Opens the entry that List returned, by its own central record.
void ReadBegin(void* unzip, const Entry& entry);
// Reads exactly length bytes of the open entry, or throws.
void TryRead(void* unzip, std::byte* buffer, std::uint64_t length);
// Reads and checks the padding behind content_size, then closes the entry, which verifies
// the CRC-32.
void ReadEnd(void* unzip, const Entry& entry);

// The record of the entry the reader stands on.
Entry GetCurrent(void* unzip);
// Decodes the content size field of a stored entry; anything but a plausible 4-byte field
// means that the whole stored size is content. Compressed entries carry none.
std::uint64_t IntoContentSize(const std::vector<std::byte>& extra, std::uint64_t allocated);
// Local modification time of a file on disk (years since 1900), else the current time.
std::tm GetFileModificationTime(const std::filesystem::path& path);

} // namespace QOB
