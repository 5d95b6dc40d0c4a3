// CRC-32 of the zip format, the one place the zip layer computes it. With libdeflate the
// carry-less-multiply version runs several times faster than zlib's; both give the same values.
#pragma once

#include <cstddef>
#include <cstdint>

namespace QOB::MiniZip {

// Continues crc (0 to start) over length bytes of data.
std::uint32_t Crc32(std::uint32_t crc, const void* data, std::size_t length) noexcept;

} // namespace QOB::MiniZip
