// Positioned access to a stream through the I/O table. Every read names its absolute file
// position: the table may sit on a read-ahead cache that skips unread bytes whenever the
// position is changed, so nothing here relies on an implicit "current position".
#pragma once

#include "archive/minizip/io.hpp"

#include <cstdint>
#include <optional>

namespace QOB::MiniZip {

class StreamAccess {
public:
    StreamAccess(const zlib_filefunc_def& io, void* stream) noexcept : io_(io), stream_(stream) {}

    // Opens through the table; null when the table has no open or the open fails.
    static void* Open(const zlib_filefunc_def& io, const char* name, int mode) noexcept;

    void* Stream() const noexcept { return stream_; }
    bool SeekTo(std::uint64_t position) noexcept;
    // Signed 32-bit distance from the end, as the table's seek reads it for that origin.
    bool SeekFromEnd(std::int64_t distance) noexcept;
    std::optional<std::uint32_t> Tell() noexcept;
    // Moves to the end and reports the size; the position is left at the end.
    std::optional<std::uint32_t> Size() noexcept;
    // True only when all `size` bytes were read.
    bool ReadAt(std::uint64_t position, void* buffer, std::uint32_t size) noexcept;
    // True only when all `size` bytes were written at the current position.
    bool Write(const void* buffer, std::uint32_t size) noexcept;
    bool WriteAt(std::uint64_t position, const void* buffer, std::uint32_t size) noexcept;
    // The table's truncate result; -7 when the table has none.
    int Truncate(std::uint32_t newSize) noexcept;
    int Close() noexcept;

private:
    zlib_filefunc_def io_;
    void* stream_;
};

} // namespace QOB::MiniZip
