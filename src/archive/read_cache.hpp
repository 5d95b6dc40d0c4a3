// The read-ahead cache between the zip layer and the file. The zip layer reads many small
// structures (signatures, headers, manifests) and seeks before each one; serving them from
// one 64 KiB block saves a read and a seek each. The block stays valid across seeks, takes
// in what is written over it, and is dropped on truncation and on every (re)open, so it never
// disagrees with the file.
// The file position the zip layer sees is kept here, and the file itself is only moved when
// the next read past the block, write or truncation needs it there. The table it builds has
// the shape of the raw table and wraps it.
#pragma once

#include "archive/minizip/io.hpp"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

namespace QOB::MiniZip {

struct ReadCache {
    void* stream = nullptr;             // the one open stream, owned by the handle
    zlib_filefunc_def raw{};            // the table the stream belongs to
    std::uint32_t start = 0;            // file position of block[0]
    std::uint32_t valid = 0;            // cached bytes from start
    std::unique_ptr<std::byte[]> block; // kReadCacheBlock bytes once first needed
    // The position the zip layer sees; unknown until told or asked, and then the file's own.
    std::optional<std::uint32_t> position;
    // Where the file itself stands, when known; it lags behind position after a seek or a
    // read served from the block.
    std::optional<std::uint32_t> physical;
};

inline constexpr std::uint32_t kReadCacheBlock = 65536;
// Reads of this size or more go straight to the file (after what the block holds of them).
inline constexpr std::uint32_t kReadCacheBypass = 32768;

// The buffered table: its opaque pointer is cache, and its open returns cache->stream
// (for a null name only) instead of opening anything; its close does nothing.
zlib_filefunc_def BufferedFileFunctions(ReadCache* cache) noexcept;

} // namespace QOB::MiniZip
