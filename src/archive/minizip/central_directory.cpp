#include "archive/minizip/central_directory.hpp"

#include "archive/minizip/bytes.hpp"
#include "archive/minizip/unzip.hpp"

#include <algorithm>
#include <cstring>
#include <optional>

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

namespace {

// Whether a signature at `position` can be an end record as the standard readers read one:
// they look for the directory right in front of it (directory size bytes back) and read
// records from there. An end record whose directory is not there is no end record to them.
// Returns 1 (can be), 0 (cannot) or UNZ_ERRNO.
int Plausible(StreamAccess& file, const std::uint8_t* p, std::uint64_t position) {
    const std::uint32_t directorySize = Get32(p + 12);
    if (directorySize > position) {
        return 0;
    }
    if (directorySize == 0) {
        return 1;
    }
    std::uint8_t signature[4];
    if (directorySize < sizeof signature ||
        !file.ReadAt(position - directorySize, signature, sizeof signature)) {
        return directorySize < sizeof signature ? 0 : UNZ_ERRNO;
    }
    return Get32(signature) == kCentralHeaderSignature ? 1 : 0;
}

} // namespace

int FindEndRecord(StreamAccess& file, EndRecord& end) {
    const auto fileSize = file.Size();
    if (!fileSize) {
        return UNZ_ERRNO;
    }
    if (*fileSize < kEndRecordSize) {
        return UNZ_BADZIPFILE;
    }
    // Nearly every archive ends with an end record without a comment: the last 22 bytes
    // settle it (the one candidate the scan below would take first), read together with the
    // 20 in front of them, where a zip64 locator would be. Otherwise the whole tail that a
    // comment could span is read and scanned.
    std::uint32_t tailSize = std::min<std::uint32_t>(*fileSize, kEndRecordSize + kZip64LocatorSize);
    std::uint32_t tailStart = *fileSize - tailSize;
    std::vector<std::uint8_t> tail(tailSize);
    if (!file.ReadAt(tailStart, tail.data(), tailSize)) {
        return UNZ_ERRNO;
    }
    std::optional<std::uint32_t> chosen;
    if (const std::uint8_t* last = tail.data() + tailSize - kEndRecordSize;
        Get32(last) == kEndRecordSignature && Get16(last + 20) == 0) {
        chosen = tailSize - kEndRecordSize;
    } else {
        tailSize = std::min<std::uint32_t>(*fileSize, kMaxCommentSize + kEndRecordSize);
        tailStart = *fileSize - tailSize;
        tail.resize(tailSize);
        if (!file.ReadAt(tailStart, tail.data(), tailSize)) {
            return UNZ_ERRNO;
        }
    }

    // The last signature is the end record, whatever comment length it declares: a reader
    // that moved on to an earlier one when the comment does not fit would read a second
    // archive hidden in the file, one that other readers never show. Only a signature that
    // cannot be an end record is passed over, and then only for an earlier record whose
    // comment holds it and ends exactly where the file ends.
    std::optional<std::uint32_t> last;
    for (std::uint32_t at = tailSize - kEndRecordSize + 1; !chosen && at-- > 0;) {
        const std::uint8_t* p = tail.data() + at;
        if (Get32(p) != kEndRecordSignature) {
            continue;
        }
        const bool exactComment = std::uint64_t{at} + kEndRecordSize + Get16(p + 20) == tailSize;
        if (last && !exactComment) {
            continue;
        }
        const int plausible = Plausible(file, p, tailStart + std::uint64_t{at});
        if (plausible < 0) {
            return UNZ_ERRNO;
        }
        if (plausible == 1) {
            chosen = at; // the last signature, or the record whose comment holds it
        } else if (!last) {
            last = at; // taken unless an earlier record's comment holds it
        }
    }
    if (!chosen) {
        chosen = last;
    }
    if (!chosen) {
        return UNZ_BADZIPFILE;
    }

    const std::uint8_t* p = tail.data() + *chosen;
    const std::uint32_t commentRoom = tailSize - *chosen - kEndRecordSize;
    const std::uint16_t disk = Get16(p + 4);
    const std::uint16_t directoryDisk = Get16(p + 6);
    const std::uint16_t entriesOnDisk = Get16(p + 8);
    end.fileSize = *fileSize;
    end.position = tailStart + *chosen;
    end.entryCount = Get16(p + 10);
    end.directorySize = Get32(p + 12);
    end.directoryOffset = Get32(p + 16);
    end.comment.assign(reinterpret_cast<const char*>(p + kEndRecordSize),
                       std::min<std::uint32_t>(Get16(p + 20), commentRoom));

    // Zip64 is known by its locator in front of the end record, never by fields of all
    // 0xFF bytes: a package may hold exactly 65,535 entries.
    if (end.position >= kZip64LocatorSize) {
        std::uint8_t locator[4];
        if (*chosen >= kZip64LocatorSize) {
            std::memcpy(locator, p - kZip64LocatorSize, sizeof locator);
        } else if (!file.ReadAt(end.position - kZip64LocatorSize, locator, sizeof locator)) {
            return UNZ_ERRNO;
        }
        if (Get32(locator) == kZip64LocatorSignature) {
            end.unsupported = "zip64 archives are not supported";
            return UNZ_BADZIPFILE;
        }
    }
    if (disk != 0 || directoryDisk != 0) {
        end.unsupported = "archives split over several disks are not supported";
        return UNZ_BADZIPFILE;
    }
    if (entriesOnDisk != end.entryCount) {
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

} // namespace QOB::MiniZip
