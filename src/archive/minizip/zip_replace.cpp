// In-place replacement of an entry inside the space it already occupies.
#include "archive/minizip/bytes.hpp"
#include "archive/minizip/crc32.hpp"
#include "archive/minizip/zip_writer_state.hpp"

#include <algorithm>
#include <cstring>
#include <new>

namespace QOB::MiniZip {
namespace {

constexpr std::uint32_t kZeroChunk = 65536;
constexpr std::uint32_t kContentSizeField = 4;
// Entries up to this size (header included) are rewritten with a single write.
constexpr std::size_t kSingleWrite = 1024 * 1024;

// The bytes the entry may occupy end at the next local header behind it, or at the end of
// the data. Checked so that a damaged directory can never make us write over a neighbour.
bool FitsInPlace(const ZipWriter& writer, const CentralRecord& row, std::uint64_t localPosition,
                 std::uint32_t endOfData) {
    std::uint64_t limit = endOfData;
    for (const CentralRecord& other : writer.table) {
        if (other.localHeaderOffset > row.localHeaderOffset) {
            limit = std::min<std::uint64_t>(limit, std::uint64_t{other.localHeaderOffset} +
                                                       writer.bytesBefore);
        }
    }
    const std::uint64_t end = localPosition + kLocalHeaderSize + row.name.size() +
                              kContentSizeField + row.uncompressedSize;
    return end <= limit;
}

int Replace(ZipWriter& writer, const char* name, const void* content, std::uint32_t length) {
    if (writer.entry) {
        if (const int closed = zipCloseFileInZip(&writer); closed != ZIP_OK) {
            return closed;
        }
    }
    const std::ptrdiff_t index = FindRow(writer, name);
    if (index < 0) {
        return ZIP_FILENOTINPACKAGE;
    }
    CentralRecord& row = writer.table[static_cast<std::size_t>(index)];
    const std::uint32_t allocated = row.uncompressedSize;
    if (length > allocated) {
        return ZIP_PARAMERROR; // never grows an entry; nothing has been touched
    }
    // Only a stored, unencrypted entry has its content at predictable bytes.
    if (row.method != 0 || row.compressedSize != allocated || (row.flags & kFlagEncrypted) != 0) {
        return ZIP_PARAMERROR;
    }

    const auto endOfData = writer.file.Tell();
    if (!endOfData) {
        return ZIP_ERRNO;
    }
    const std::uint64_t localPosition = std::uint64_t{row.localHeaderOffset} + writer.bytesBefore;
    // Reading moves the position: put it back at once, so that a refusal leaves the writer
    // where new entries and the directory go.
    std::uint8_t oldHeader[kLocalHeaderSize];
    const bool read = writer.file.ReadAt(localPosition, oldHeader, sizeof oldHeader);
    if (!writer.file.SeekTo(*endOfData) || !read) {
        return ZIP_ERRNO;
    }
    if (Bytes::Get32(oldHeader) != kLocalHeaderSignature) {
        return ZIP_BADZIPFILE;
    }
    // The new header must take exactly as many bytes as the old one, or the content would
    // shift; entries from other tools with other local extra fields are not rewritten.
    if (std::uint32_t{Bytes::Get16(oldHeader + 26)} + Bytes::Get16(oldHeader + 28) !=
        row.name.size() + kContentSizeField) {
        return ZIP_PARAMERROR;
    }
    if (!FitsInPlace(writer, row, localPosition, *endOfData)) {
        return ZIP_BADZIPFILE;
    }

    const std::uint32_t padding = allocated - length;
    std::vector<std::uint8_t> zeros(std::min(padding, kZeroChunk));
    std::uint32_t crc = Crc32(0, content, length);
    for (std::uint32_t left = padding; left > 0;) {
        const std::uint32_t chunk = std::min(left, kZeroChunk);
        crc = Crc32(crc, zeros.data(), chunk);
        left -= chunk;
    }
    row.crc = crc;
    row.extra.assign(kContentSizeField, 0);
    Bytes::Put32(row.extra.data(), length < allocated ? length : 0);

    std::vector<std::uint8_t> header;
    AppendLocalHeader(header, row, row.extra.data(), row.extra.size());
    bool written = false;
    if (header.size() + allocated <= kSingleWrite) {
        // Header, content and padding in one write: one region for a journal to save
        // and flush before the entry changes, instead of one per piece.
        const std::size_t headerSize = header.size();
        header.resize(headerSize + allocated, 0);
        if (length > 0) {
            std::memcpy(header.data() + headerSize, content, length);
        }
        written = writer.file.WriteAt(localPosition, header.data(),
                                      static_cast<std::uint32_t>(header.size()));
    } else {
        written = writer.file.WriteAt(localPosition, header.data(),
                                      static_cast<std::uint32_t>(header.size())) &&
                  writer.file.Write(content, length);
        for (std::uint32_t left = padding; written && left > 0;) {
            const std::uint32_t chunk = std::min(left, kZeroChunk);
            written = writer.file.Write(zeros.data(), chunk);
            left -= chunk;
        }
    }
    // The directory is written from the table on close, which now holds the new CRC and
    // field. New entries keep going where the data ended.
    const bool back = writer.file.SeekTo(*endOfData);
    return written && back ? ZIP_OK : ZIP_ERRNO;
}

} // namespace

int zipReplaceFileInZip(zipFile file, const char* name, const void* content, std::uint32_t length) {
    if (file == nullptr || name == nullptr || (content == nullptr && length > 0)) {
        return ZIP_PARAMERROR;
    }
    try {
        return Replace(*AsWriter(file), name, content, length);
    } catch (const std::bad_alloc&) {
        return ZIP_PARAMERROR;
    }
}

} // namespace QOB::MiniZip
