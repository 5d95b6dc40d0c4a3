// The rollback journal's bytes: header, records and closing record, little-endian, as
// docs/format.md tabulates them. Only this file knows the layout.
//
//   header (48 bytes)   magic "QOBJRNL\0" | u32 version = 2 | u32 header size = 48
//                       | u64 original length | u64 nonce | u32 CRC-32 of the original
//                       package's last min(22, length) bytes | u32 CRC-32 of the package's
//                       file name | u32 CRC-32 of the original package's first
//                       min(4096, length) bytes | u32 CRC-32 of bytes 0..43
//   record (28 + n)     u32 "RCRD" | u64 offset | u64 length n | u32 batch | n bytes
//                       | u32 CRC-32 over nonce, the 24 header bytes and the n bytes
//   closing (20 bytes)  u32 "DONE" | u64 new length | u32 batch | u32 CRC-32 over nonce and
//                       the 16 bytes before it
//
// The nonce is random per journal: a record of any other journal, left in blocks this one
// now occupies, never passes its CRC. The batch counts the journal's flushes: records of one
// batch reached the device together, so a torn record can only be followed by valid records
// of its own batch.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace QOB::JournalFormat {

inline constexpr std::uint32_t kVersion = 2;
inline constexpr std::uint32_t kHeaderSize = 48;
inline constexpr std::uint32_t kRecordHeaderSize = 24;
inline constexpr std::uint32_t kRecordTrailerSize = 4;
inline constexpr std::uint32_t kClosingSize = 20;
inline constexpr std::uint32_t kRecordMagic = 0x44524352;  // "RCRD"
inline constexpr std::uint32_t kClosingMagic = 0x454E4F44; // "DONE"
// A journal holds at most this many records; the writer refuses more, the reader too.
inline constexpr std::uint32_t kMaxRecords = 65536;
// How much of the package's end is bound into the header: an end record without comment.
inline constexpr std::uint32_t kEndBytes = 22;
// And of its start: a journal of another package saves the other's end, rarely its start.
inline constexpr std::uint32_t kStartBytes = 4096;

struct Header {
    std::uint64_t original = 0;
    std::uint64_t nonce = 0;
    std::uint32_t endCrc = 0;
    std::uint32_t nameCrc = 0;
    std::uint32_t startCrc = 0;
};

// Invalid: not a journal's header at all (empty, another magic); Damaged: a header of this
// format whose bytes no longer hold.
enum class HeaderState { Valid, OlderVersion, Invalid, Damaged };

std::array<std::uint8_t, kHeaderSize> EncodeHeader(const Header& header) noexcept;
HeaderState DecodeHeader(const std::uint8_t* bytes, std::uint64_t available,
                         Header& header) noexcept;

struct RecordHead {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    std::uint32_t batch = 0;
};

std::array<std::uint8_t, kRecordHeaderSize> EncodeRecordHead(const RecordHead& head) noexcept;
// False when the bytes do not start with the record magic.
bool DecodeRecordHead(const std::uint8_t* bytes, RecordHead& head) noexcept;
// The CRC of a record: begun with the head, continued over the data with Continue.
std::uint32_t RecordCrcBegin(std::uint64_t nonce, const std::uint8_t* head) noexcept;
std::uint32_t Continue(std::uint32_t crc, const void* bytes, std::uint32_t size) noexcept;

std::array<std::uint8_t, kClosingSize> EncodeClosing(std::uint64_t nonce, std::uint64_t length,
                                                     std::uint32_t batch) noexcept;
// The new length, when the bytes are a closing record of this journal.
std::optional<std::uint64_t> DecodeClosing(std::uint64_t nonce, const std::uint8_t* bytes,
                                           std::uint32_t* batch = nullptr) noexcept;

std::uint32_t NameCrc(std::string_view name) noexcept;
std::uint32_t Crc(const void* bytes, std::uint32_t size) noexcept;

} // namespace QOB::JournalFormat
