// The read-ahead cache between the zip layer and the file. The zip layer reads many small
// structures (signatures, headers, manifests) and seeks before each one; serving them from
// two 64 KiB blocks saves a read and a seek each, and two let a change that reads an entry's
// header and the directory at the end of the file go back and forth without reading either
// again. The blocks stay valid across seeks and across the switches between reading and
// writing, as every write goes through this table and is copied into them; a truncation
// drops them, and so does a failed write. The handle's stream is written by nothing else
// while the handle lives: the call holds the package's locks and opens it once.
// The file position the zip layer sees is kept here, and the file itself is only moved when
// the next read past the blocks, write or truncation needs it there. The table it builds has
// the shape of the raw table and wraps it.
#pragma once

#include "archive/minizip/io.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

namespace QOB::MiniZip {

struct ReadCache {
    struct Block {
        std::uint32_t start = 0;            // file position of bytes[0]
        std::uint32_t valid = 0;            // cached bytes from start
        std::uint64_t lastUse = 0;          // the least recently used block is refilled
        std::unique_ptr<std::byte[]> bytes; // kReadCacheBlock bytes once first needed
    };

    void* stream = nullptr;  // the one open stream, owned by the handle
    zlib_filefunc_def raw{}; // the table the stream belongs to
    std::array<Block, 2> blocks;
    std::uint64_t uses = 0;
    // The position the zip layer sees; unknown until told or asked, and then the file's own.
    std::optional<std::uint32_t> position;
    // Where the file itself stands, when known; it lags behind position after a seek or a
    // read served from a block.
    std::optional<std::uint32_t> physical;
};

inline constexpr std::uint32_t kReadCacheBlock = 65536;
// Reads of this size or more go straight to the file (after what a block holds of them).
inline constexpr std::uint32_t kReadCacheBypass = 32768;

// The buffered table: its opaque pointer is cache, and its open returns cache->stream
// (for a null name only) instead of opening anything; its close does nothing.
zlib_filefunc_def BufferedFileFunctions(ReadCache* cache) noexcept;

} // namespace QOB::MiniZip
