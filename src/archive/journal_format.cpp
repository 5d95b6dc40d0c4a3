#include "archive/journal_format.hpp"

#include "archive/minizip/bytes.hpp"
#include "archive/minizip/crc32.hpp"

#include <cstring>

namespace QOB::JournalFormat {
namespace {

namespace Bytes = MiniZip::Bytes;

constexpr std::array<std::uint8_t, 8> kMagic = {'Q', 'O', 'B', 'J', 'R', 'N', 'L', 0};
constexpr std::uint32_t kHeaderCrcAt = kHeaderSize - 4;

void Put64(std::uint8_t* p, std::uint64_t value) noexcept {
    Bytes::Put32(p, static_cast<std::uint32_t>(value));
    Bytes::Put32(p + 4, static_cast<std::uint32_t>(value >> 32));
}

std::uint64_t Get64(const std::uint8_t* p) noexcept {
    return Bytes::Get32(p) | (std::uint64_t{Bytes::Get32(p + 4)} << 32);
}

std::uint32_t NonceCrc(std::uint64_t nonce) noexcept {
    std::uint8_t bytes[8];
    Put64(bytes, nonce);
    return MiniZip::Crc32(0, bytes, sizeof bytes);
}

} // namespace

std::uint32_t Crc(const void* bytes, std::uint32_t size) noexcept {
    return MiniZip::Crc32(0, bytes, size);
}

std::uint32_t Continue(std::uint32_t crc, const void* bytes, std::uint32_t size) noexcept {
    return MiniZip::Crc32(crc, bytes, size);
}

std::uint32_t NameCrc(std::string_view name) noexcept {
    return Crc(name.data(), static_cast<std::uint32_t>(name.size()));
}

std::array<std::uint8_t, kHeaderSize> EncodeHeader(const Header& header) noexcept {
    std::array<std::uint8_t, kHeaderSize> bytes{};
    std::memcpy(bytes.data(), kMagic.data(), kMagic.size());
    Bytes::Put32(bytes.data() + 8, kVersion);
    Bytes::Put32(bytes.data() + 12, kHeaderSize);
    Put64(bytes.data() + 16, header.original);
    Put64(bytes.data() + 24, header.nonce);
    Bytes::Put32(bytes.data() + 32, header.endCrc);
    Bytes::Put32(bytes.data() + 36, header.nameCrc);
    Bytes::Put32(bytes.data() + 40, header.startCrc);
    Bytes::Put32(bytes.data() + kHeaderCrcAt, Crc(bytes.data(), kHeaderCrcAt));
    return bytes;
}

HeaderState DecodeHeader(const std::uint8_t* bytes, std::uint64_t available,
                         Header& header) noexcept {
    if (available < 16 || std::memcmp(bytes, kMagic.data(), kMagic.size()) != 0) {
        return HeaderState::Invalid;
    }
    if (Bytes::Get32(bytes + 8) == 1) {
        return HeaderState::OlderVersion;
    }
    if (available < kHeaderSize || Bytes::Get32(bytes + 8) != kVersion ||
        Bytes::Get32(bytes + 12) != kHeaderSize ||
        Bytes::Get32(bytes + kHeaderCrcAt) != Crc(bytes, kHeaderCrcAt)) {
        return HeaderState::Damaged;
    }
    header.original = Get64(bytes + 16);
    header.nonce = Get64(bytes + 24);
    header.endCrc = Bytes::Get32(bytes + 32);
    header.nameCrc = Bytes::Get32(bytes + 36);
    header.startCrc = Bytes::Get32(bytes + 40);
    return HeaderState::Valid;
}

std::array<std::uint8_t, kRecordHeaderSize> EncodeRecordHead(const RecordHead& head) noexcept {
    std::array<std::uint8_t, kRecordHeaderSize> bytes{};
    Bytes::Put32(bytes.data(), kRecordMagic);
    Put64(bytes.data() + 4, head.offset);
    Put64(bytes.data() + 12, head.length);
    Bytes::Put32(bytes.data() + 20, head.batch);
    return bytes;
}

bool DecodeRecordHead(const std::uint8_t* bytes, RecordHead& head) noexcept {
    if (Bytes::Get32(bytes) != kRecordMagic) {
        return false;
    }
    head.offset = Get64(bytes + 4);
    head.length = Get64(bytes + 12);
    head.batch = Bytes::Get32(bytes + 20);
    return true;
}

std::uint32_t RecordCrcBegin(std::uint64_t nonce, const std::uint8_t* head) noexcept {
    return Continue(NonceCrc(nonce), head, kRecordHeaderSize);
}

std::array<std::uint8_t, kClosingSize> EncodeClosing(std::uint64_t nonce, std::uint64_t length,
                                                     std::uint32_t batch) noexcept {
    std::array<std::uint8_t, kClosingSize> bytes{};
    Bytes::Put32(bytes.data(), kClosingMagic);
    Put64(bytes.data() + 4, length);
    Bytes::Put32(bytes.data() + 12, batch);
    Bytes::Put32(bytes.data() + 16, Continue(NonceCrc(nonce), bytes.data(), 16));
    return bytes;
}

std::optional<std::uint64_t> DecodeClosing(std::uint64_t nonce, const std::uint8_t* bytes,
                                           std::uint32_t* batch) noexcept {
    if (Bytes::Get32(bytes) != kClosingMagic ||
        Bytes::Get32(bytes + 16) != Continue(NonceCrc(nonce), bytes, 16)) {
        return std::nullopt;
    }
    if (batch != nullptr) {
        *batch = Bytes::Get32(bytes + 12);
    }
    return Get64(bytes + 4);
}

} // namespace QOB::JournalFormat
