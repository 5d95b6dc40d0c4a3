#include "zip_directory.hpp"

#include "library_log.hpp"

#include <algorithm>
#include <fstream>

namespace qobtool {
namespace {

constexpr std::uint32_t kEndSignature = 0x06054b50;
constexpr std::uint32_t kCentralSignature = 0x02014b50;
constexpr std::size_t kEndSize = 22;
constexpr std::size_t kCentralSize = 46;
constexpr std::size_t kLocalSize = 30;
constexpr std::size_t kMaxComment = 0xFFFF;

std::uint32_t Get16(std::string_view bytes, std::size_t at) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at])) |
           static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[at + 1])) << 8;
}

std::uint32_t Get32(std::string_view bytes, std::size_t at) {
    return Get16(bytes, at) | Get16(bytes, at + 2) << 16;
}

std::string ReadAt(std::ifstream& in, std::uint64_t offset, std::size_t length) {
    std::string bytes(length, '\0');
    in.seekg(static_cast<std::streamoff>(offset));
    in.read(bytes.data(), static_cast<std::streamsize>(length));
    if (!in || static_cast<std::size_t>(in.gcount()) != length) {
        throw ToolError("cannot read the zip directory");
    }
    return bytes;
}

char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

std::uint64_t ContentSizeFromExtra(std::string_view extra, std::uint64_t stored) noexcept {
    if (extra.size() != 4) {
        return stored;
    }
    const std::uint32_t value = Get32(extra, 0);
    return value != 0 && value <= stored ? value : stored;
}

std::vector<ZipEntry> ReadZipDirectory(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        throw ToolError("cannot open the file");
    }
    in.seekg(0, std::ios::end);
    const std::streamoff end = in.tellg();
    if (end < static_cast<std::streamoff>(kEndSize)) {
        throw ToolError("not a zip file: too short");
    }
    const auto size = static_cast<std::uint64_t>(end);

    // The end record sits in the last 22 bytes plus at most one comment.
    const std::size_t tailSize =
        static_cast<std::size_t>(std::min<std::uint64_t>(size, kEndSize + kMaxComment));
    const std::uint64_t tailStart = size - tailSize;
    const std::string tail = ReadAt(in, tailStart, tailSize);
    std::size_t endAt = std::string::npos;
    for (std::size_t at = tailSize - kEndSize + 1; at-- > 0;) {
        if (Get32(tail, at) == kEndSignature && at + kEndSize + Get16(tail, at + 20) <= tailSize) {
            endAt = at;
            break;
        }
    }
    if (endAt == std::string::npos) {
        throw ToolError("not a zip file: no end of central directory record");
    }
    const std::uint32_t count = Get16(tail, endAt + 10);
    const std::uint32_t directorySize = Get32(tail, endAt + 12);
    const std::uint32_t directoryOffset = Get32(tail, endAt + 16);
    if (count == 0xFFFF || directorySize == 0xFFFFFFFF || directoryOffset == 0xFFFFFFFF) {
        throw ToolError("zip64 archives are not supported");
    }
    const std::uint64_t endOffset = tailStart + endAt;
    if (std::uint64_t{directoryOffset} + directorySize > endOffset) {
        throw ToolError("corrupt zip file: central directory outside the file");
    }
    const std::string directory = ReadAt(in, directoryOffset, directorySize);

    std::vector<ZipEntry> entries;
    std::size_t at = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (directory.size() - at < kCentralSize || Get32(directory, at) != kCentralSignature) {
            throw ToolError("corrupt zip file: bad central record " + std::to_string(i));
        }
        const std::size_t nameLength = Get16(directory, at + 28);
        const std::size_t extraLength = Get16(directory, at + 30);
        const std::size_t commentLength = Get16(directory, at + 32);
        const std::size_t recordSize = kCentralSize + nameLength + extraLength + commentLength;
        if (directory.size() - at < recordSize) {
            throw ToolError("corrupt zip file: central record " + std::to_string(i) +
                            " runs past the directory");
        }
        const std::string_view record = std::string_view(directory).substr(at, recordSize);
        ZipEntry entry;
        entry.name.assign(record.substr(kCentralSize, nameLength));
        entry.allocated_size = Get32(record, 24);
        entry.content_size = ContentSizeFromExtra(
            record.substr(kCentralSize + nameLength, extraLength), entry.allocated_size);
        entry.dos_time = Get32(record, 12);
        entry.data_offset = std::uint64_t{Get32(record, 42)} + kLocalSize + nameLength +
                            extraLength + commentLength;
        entries.push_back(std::move(entry));
        at += recordSize;
    }
    return entries;
}

std::optional<ZipEntry> FindEntry(const std::vector<ZipEntry>& entries, std::string_view name) {
    for (const ZipEntry& entry : entries) {
        if (entry.name == name) {
            return entry;
        }
    }
    for (const ZipEntry& entry : entries) {
        if (std::ranges::equal(entry.name, name,
                               [](char a, char b) { return Lower(a) == Lower(b); })) {
            return entry;
        }
    }
    return std::nullopt;
}

} // namespace qobtool
