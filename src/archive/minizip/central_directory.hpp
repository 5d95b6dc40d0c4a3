// The zip structures shared by the reader and the writer: central directory records, the
// end-of-central-directory record and how to find and validate the latter.
#pragma once

#include "archive/minizip/stream_access.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace QOB::MiniZip {

inline constexpr std::uint32_t kLocalHeaderSignature = 0x04034b50;
inline constexpr std::uint32_t kCentralHeaderSignature = 0x02014b50;
inline constexpr std::uint32_t kEndRecordSignature = 0x06054b50;
inline constexpr std::uint32_t kZip64LocatorSignature = 0x07064b50;
inline constexpr std::uint32_t kZip64LocatorSize = 20;
inline constexpr std::uint32_t kLocalHeaderSize = 30;
inline constexpr std::uint32_t kCentralHeaderSize = 46;
inline constexpr std::uint32_t kEndRecordSize = 22;
inline constexpr std::uint32_t kMaxCommentSize = 0xFFFF;

// General purpose flag bits.
inline constexpr std::uint16_t kFlagEncrypted = 0x0001;
inline constexpr std::uint16_t kFlagDataDescriptor = 0x0008;

// One central directory record, all fields as stored.
struct CentralRecord {
    std::uint16_t versionMadeBy = 0;
    std::uint16_t versionNeeded = 20;
    std::uint16_t flags = 0;
    std::uint16_t method = 0;
    std::uint32_t dosDate = 0;
    std::uint32_t crc = 0;
    std::uint32_t compressedSize = 0;
    std::uint32_t uncompressedSize = 0;
    std::uint16_t diskStart = 0;
    std::uint16_t internalAttributes = 0;
    std::uint32_t externalAttributes = 0;
    std::uint32_t localHeaderOffset = 0;
    std::string name;
    std::vector<std::uint8_t> extra;
    std::string comment;

    std::uint64_t StoredSize() const noexcept {
        return kCentralHeaderSize + name.size() + extra.size() + comment.size();
    }
};

struct VariableLengths {
    std::uint16_t name = 0;
    std::uint16_t extra = 0;
    std::uint16_t comment = 0;
    std::uint32_t Total() const noexcept { return std::uint32_t{name} + extra + comment; }
};

// Fixed part of a record (46 bytes). False when the signature is wrong.
bool ParseCentralHeader(const std::uint8_t* header, CentralRecord& record,
                        VariableLengths& lengths);
// The name, extra field and comment that follow the fixed part (lengths.Total() bytes).
void AssignVariableFields(const std::uint8_t* bytes, const VariableLengths& lengths,
                          CentralRecord& record);
// Serialises a record. Fields longer than 65535 bytes are refused by the writer before
// they get here.
void AppendCentralRecord(std::vector<std::uint8_t>& out, const CentralRecord& record);

// A local header with the given fields, followed by the name and the local extra field.
void AppendLocalHeader(std::vector<std::uint8_t>& out, const CentralRecord& record,
                       const void* extra, std::size_t extraSize);

// The end-of-central-directory record, validated against the file.
struct EndRecord {
    std::uint32_t fileSize = 0;
    std::uint32_t position = 0; // file position of the record
    std::uint16_t entryCount = 0;
    std::uint32_t directorySize = 0;
    std::uint32_t directoryOffset = 0; // as stored, relative to the archive's start
    // Bytes in front of the archive (e.g. a self-extractor stub): stored offsets plus this
    // are file positions.
    std::uint32_t bytesBefore = 0;
    std::string comment; // cut short when the file ends before the length it declares
    // Set when the archive is readable zip but of a kind this reader refuses (zip64, split
    // over disks): the reason in users' words.
    const char* unsupported = nullptr;

    std::uint32_t DirectoryStart() const noexcept { return directoryOffset + bytesBefore; }
    std::uint32_t DirectoryEnd() const noexcept { return position; }
};

// Finds the record the standard readers take: the last signature in the last 65535 + 22
// bytes, even when the comment it declares runs past the end of the file. Only when that
// signature cannot be an end record at all (no central directory where it says) is it taken
// for text inside the comment of an earlier record whose comment ends exactly at the end of
// the file. Then checks it: no zip64 locator in front of it, single disk, the directory lies
// inside the file in front of the record, and the entry count fits the directory's size.
// Returns 0, or -1 on I/O failure, -103 on a bad archive (with end.unsupported set when the
// archive is of a kind that is refused rather than damaged).
int FindEndRecord(StreamAccess& file, EndRecord& end);

} // namespace QOB::MiniZip
