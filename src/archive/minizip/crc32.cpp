#include "archive/minizip/crc32.hpp"

#if defined(QOB_HAVE_LIBDEFLATE)
#include <libdeflate.h>
#else
#include <zlib.h>

#include <algorithm>
#include <climits>
#endif

namespace QOB::MiniZip {

std::uint32_t Crc32(std::uint32_t crc, const void* data, std::size_t length) noexcept {
#if defined(QOB_HAVE_LIBDEFLATE)
    return libdeflate_crc32(crc, data, length);
#else
    // zlib counts in uInt: long buffers go in rounds.
    const auto* bytes = static_cast<const Bytef*>(data);
    uLong value = crc;
    while (length > 0) {
        const auto round = static_cast<uInt>(std::min<std::size_t>(length, UINT_MAX));
        value = crc32(value, bytes, round);
        bytes += round;
        length -= round;
    }
    return static_cast<std::uint32_t>(value);
#endif
}

} // namespace QOB::MiniZip
