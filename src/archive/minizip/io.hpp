// The I/O function table under the zip layer: open, read, write, tell, seek, close,
// testerror and truncate over an opaque stream, with 32-bit positions as in the zip format.
#pragma once

#include <cstdint>
#include <optional>

namespace QOB::MiniZip {

// Open mode bits.
inline constexpr int kOpenRead = 1;
inline constexpr int kOpenWrite = 2;
inline constexpr int kOpenReadWriteFilter = 3;
inline constexpr int kOpenExisting = 4;
inline constexpr int kOpenCreate = 8;

// Seek origins.
inline constexpr int kSeekSet = 0;
inline constexpr int kSeekCur = 1;
inline constexpr int kSeekEnd = 2;

using OpenFn = void* (*)(void* opaque, const char* utf8Name, int mode);
using ReadFn = std::uint32_t (*)(void* opaque, void* stream, void* buffer, std::uint32_t size);
using WriteFn = std::uint32_t (*)(void* opaque, void* stream, const void* buffer,
                                  std::uint32_t size);
using TellFn = long (*)(void* opaque, void* stream);
using SeekFn = long (*)(void* opaque, void* stream, std::uint32_t offset, int origin);
using CloseFn = int (*)(void* opaque, void* stream);
using TestErrorFn = int (*)(void* opaque, void* stream);
using TruncateFn = int (*)(void* opaque, void* stream, std::uint32_t newSize);

// Slot order is fixed: open, read, write, tell, seek, close, testerror, truncate, opaque.
struct zlib_filefunc_def {
    OpenFn zopen_file = nullptr;
    ReadFn zread_file = nullptr;
    WriteFn zwrite_file = nullptr;
    TellFn ztell_file = nullptr;
    SeekFn zseek_file = nullptr;
    CloseFn zclose_file = nullptr;
    TestErrorFn zerror_file = nullptr;
    TruncateFn ztruncate_file = nullptr;
    void* opaque = nullptr;
};

// A tell result as a file position. Where long is 32 bits wide (Windows), positions from
// 2 GiB up arrive negative and are read back as unsigned; -1 always means failure.
inline std::optional<std::uint32_t> PositionFromTell(long value) noexcept {
    if (value == -1) {
        return std::nullopt;
    }
    std::int64_t position = value;
    if (position < 0) {
        position += std::int64_t{1} << 32;
    }
    if (position < 0 || position > 0xFFFFFFFF) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(position);
}

// The table over the operating system's files (the platform layer).
zlib_filefunc_def PlatformFileFunctions() noexcept;

// The table every archive and journal opens files with: the platform's, unless a
// substitute was installed. A substitute (fault injection in tests) must hand out the
// platform's streams, wrapping its calls, and stays in place until it is removed with null.
zlib_filefunc_def FileFunctions() noexcept;
void SetFileFunctions(const zlib_filefunc_def* substitute) noexcept;

} // namespace QOB::MiniZip
