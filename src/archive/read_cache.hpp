// The read-ahead cache between the zip layer and the file. The zip layer reads many small
// structures (signatures, headers); serving them from one 4096-byte block saves a system
// call each. The table it builds has the shape of the raw table and wraps it.
#pragma once

#include "archive/minizip/io.hpp"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace QOB::MiniZip {

struct ReadCache {
    void* stream = nullptr;       // the one open stream, owned by the handle
    zlib_filefunc_def raw{};      // the table the stream belongs to
    std::uint32_t start = 0;      // file position of bytes[0]
    std::uint32_t used = 0;       // cached bytes already handed out
    std::vector<std::byte> bytes; // size = number of valid cached bytes
};

inline constexpr std::uint32_t kReadCacheBlock = 4096;
// Reads of this size or more go straight to the file.
inline constexpr std::uint32_t kReadCacheBypass = 1024;

// The buffered table: its opaque pointer is cache, and its open returns cache->stream
// (for a null name only) instead of opening anything; its close does nothing.
zlib_filefunc_def BufferedFileFunctions(ReadCache* cache) noexcept;

} // namespace QOB::MiniZip
