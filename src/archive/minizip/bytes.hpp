// Little-endian field access for the zip structures: every multi-byte field on disk is
// little-endian, whatever the host's byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace QOB::MiniZip::Bytes {

// True when every byte is zero: memcmp of the block against itself shifted by one byte (all
// bytes equal the first, which is zero). The library's memcmp is vectorised; a byte loop is
// several times slower, and padding is checked on every read.
inline bool AllZero(const std::byte* bytes, std::size_t size) noexcept {
    return size == 0 || (bytes[0] == std::byte{0} && std::memcmp(bytes, bytes + 1, size - 1) == 0);
}

inline std::uint16_t Get16(const std::uint8_t* p) noexcept {
    return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}

inline std::uint32_t Get32(const std::uint8_t* p) noexcept {
    return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
           (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

inline void Put16(std::uint8_t* p, std::uint16_t value) noexcept {
    p[0] = static_cast<std::uint8_t>(value & 0xFF);
    p[1] = static_cast<std::uint8_t>(value >> 8);
}

inline void Put32(std::uint8_t* p, std::uint32_t value) noexcept {
    for (int i = 0; i < 4; ++i) {
        p[i] = static_cast<std::uint8_t>((value >> (8 * i)) & 0xFF);
    }
}

// Appends a field of `width` bytes (2 or 4). A value that does not fit is written as all
// 0xFF bytes, the customary "look elsewhere" marker of the format.
inline void Append(std::vector<std::uint8_t>& out, std::uint64_t value, int width) {
    const std::uint64_t limit = width == 2 ? 0xFFFFu : 0xFFFFFFFFu;
    if (value > limit) {
        value = limit;
    }
    for (int i = 0; i < width; ++i) {
        out.push_back(static_cast<std::uint8_t>((value >> (8 * i)) & 0xFF));
    }
}

inline void AppendBytes(std::vector<std::uint8_t>& out, const void* data, std::size_t size) {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    out.insert(out.end(), bytes, bytes + size);
}

} // namespace QOB::MiniZip::Bytes
