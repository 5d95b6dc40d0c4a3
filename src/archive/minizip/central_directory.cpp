#include "archive/minizip/central_directory.hpp"

#include "archive/minizip/bytes.hpp"
#include "archive/minizip/unzip.hpp"

#include <algorithm>

namespace QOB::MiniZip {

using Bytes::Get16;
using Bytes::Get32;

bool ParseCentralHeader(const std::uint8_t* p, CentralRecord& record, VariableLengths& lengths) {
    if (Get32(p) != kCentralHeaderSignature) {
        return false;
    }
    record.versionMadeBy = Get16(p + 4);
    record.versionNeeded = Get16(p + 6);
    record.flags = Get16(p + 8);
    record.method = Get16(p + 10);
    record.dosDate = Get32(p + 12);
    record.crc = Get32(p + 16);
    record.compressedSize = Get32(p + 20);
    record.uncompressedSize = Get32(p + 24);
    lengths.name = Get16(p + 28);
    lengths.extra = Get16(p + 30);
    lengths.comment = Get16(p + 32);
    record.diskStart = Get16(p + 34);
    record.internalAttributes = Get16(p + 36);
    record.externalAttributes = Get32(p + 38);
    record.localHeaderOffset = Get32(p + 42);
    return true;
}

void AssignVariableFields(const std::uint8_t* bytes, const VariableLengths& lengths,
                          CentralRecord& record) {
    const auto* chars = reinterpret_cast<const char*>(bytes);
    record.name.assign(chars, lengths.name);
    record.extra.assign(bytes + lengths.name, bytes + lengths.name + lengths.extra);
    record.comment.assign(chars + lengths.name + lengths.extra, lengths.comment);
}

void AppendCentralRecord(std::vector<std::uint8_t>& out, const CentralRecord& record) {
    using Bytes::Append;
    Append(out, kCentralHeaderSignature, 4);
    Append(out, record.versionMadeBy, 2);
    Append(out, record.versionNeeded, 2);
    Append(out, record.flags, 2);
    Append(out, record.method, 2);
    Append(out, record.dosDate, 4);
    Append(out, record.crc, 4);
    Append(out, record.compressedSize, 4);
    Append(out, record.uncompressedSize, 4);
    Append(out, record.name.size(), 2);
    Append(out, record.extra.size(), 2);
    Append(out, record.comment.size(), 2);
    Append(out, record.diskStart, 2);
    Append(out, record.internalAttributes, 2);
    Append(out, record.externalAttributes, 4);
    Append(out, record.localHeaderOffset, 4);
    Bytes::AppendBytes(out, record.name.data(), record.name.size());
    Bytes::AppendBytes(out, record.extra.data(), record.extra.size());
    Bytes::AppendBytes(out, record.comment.data(), record.comment.size());
}

void AppendLocalHeader(std::vector<std::uint8_t>& out, const CentralRecord& record,
                       const void* extra, std::size_t extraSize) {
    using Bytes::Append;
    Append(out, kLocalHeaderSignature, 4);
    Append(out, record.versionNeeded, 2);
    Append(out, record.flags, 2);
    Append(out, record.method, 2);
    Append(out, record.dosDate, 4);
    Append(out, record.crc, 4);
    Append(out, record.compressedSize, 4);
    Append(out, record.uncompressedSize, 4);
    Append(out, record.name.size(), 2);
    Append(out, extraSize, 2);
    Bytes::AppendBytes(out, record.name.data(), record.name.size());
    Bytes::AppendBytes(out, extra, extraSize);
}

int FindEndRecord(StreamAccess& file, EndRecord& end) {
    const auto fileSize = file.Size();
    if (!fileSize) {
        return UNZ_ERRNO;
    }
    if (*fileSize < kEndRecordSize) {
        return UNZ_BADZIPFILE;
    }
    // Nearly every archive ends with an end record without a comment: the last 22 bytes
    // settle it, the one candidate the scan below would take first. Otherwise the whole tail
    // that a comment could span is read and scanned.
    std::uint32_t tailSize = kEndRecordSize;
    std::uint32_t tailStart = *fileSize - tailSize;
    std::vector<std::uint8_t> tail(tailSize);
    if (!file.ReadAt(tailStart, tail.data(), tailSize)) {
        return UNZ_ERRNO;
    }
    if (Get32(tail.data()) != kEndRecordSignature || Get16(tail.data() + 20) != 0) {
        tailSize = std::min<std::uint32_t>(*fileSize, kMaxCommentSize + kEndRecordSize);
        tailStart = *fileSize - tailSize;
        tail.resize(tailSize);
        if (!file.ReadAt(tailStart, tail.data(), tailSize)) {
            return UNZ_ERRNO;
        }
    }

    // The nearest signature to the end whose comment fits in the file. A signature inside
    // a comment usually carries a comment length that runs past the end, and is skipped.
    for (std::uint32_t at = tailSize - kEndRecordSize + 1; at-- > 0;) {
        const std::uint8_t* p = tail.data() + at;
        if (Get32(p) != kEndRecordSignature) {
            continue;
        }
        const std::uint16_t commentSize = Get16(p + 20);
        if (std::uint64_t{at} + kEndRecordSize + commentSize > tailSize) {
            continue;
        }
        const std::uint16_t disk = Get16(p + 4);
        const std::uint16_t directoryDisk = Get16(p + 6);
        const std::uint16_t entriesOnDisk = Get16(p + 8);
        end.fileSize = *fileSize;
        end.position = tailStart + at;
        end.entryCount = Get16(p + 10);
        end.directorySize = Get32(p + 12);
        end.directoryOffset = Get32(p + 16);
        end.comment.assign(reinterpret_cast<const char*>(p + kEndRecordSize), commentSize);
        if (disk != 0 || directoryDisk != 0 || entriesOnDisk != end.entryCount) {
            return UNZ_BADZIPFILE;
        }
        const std::uint64_t directoryEnd = std::uint64_t{end.directoryOffset} + end.directorySize;
        if (directoryEnd > end.position) {
            return UNZ_BADZIPFILE;
        }
        // Whatever lies between the stored end of the directory and the record is taken
        // to be a prefix in front of the archive.
        end.bytesBefore = static_cast<std::uint32_t>(end.position - directoryEnd);
        if (std::uint64_t{end.entryCount} * kCentralHeaderSize > end.directorySize) {
            return UNZ_BADZIPFILE;
        }
        return UNZ_OK;
    }
    return UNZ_BADZIPFILE;
}

} // namespace QOB::MiniZip
