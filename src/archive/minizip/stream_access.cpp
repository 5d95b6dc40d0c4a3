#include "archive/minizip/stream_access.hpp"

namespace QOB::MiniZip {

void* StreamAccess::Open(const zlib_filefunc_def& io, const char* name, int mode) noexcept {
    if (io.zopen_file == nullptr) {
        return nullptr;
    }
    return io.zopen_file(io.opaque, name, mode);
}

bool StreamAccess::SeekTo(std::uint64_t position) noexcept {
    if (position > 0xFFFFFFFFu || io_.zseek_file == nullptr) {
        return false;
    }
    return io_.zseek_file(io_.opaque, stream_, static_cast<std::uint32_t>(position), kSeekSet) == 0;
}

bool StreamAccess::SeekFromEnd(std::int64_t distance) noexcept {
    if (distance < INT32_MIN || distance > INT32_MAX || io_.zseek_file == nullptr) {
        return false;
    }
    // The offset slot is 32 bits wide; a backward distance travels in two's complement.
    const auto offset = static_cast<std::uint32_t>(static_cast<std::int32_t>(distance));
    return io_.zseek_file(io_.opaque, stream_, offset, kSeekEnd) == 0;
}

std::optional<std::uint32_t> StreamAccess::Tell() noexcept {
    if (io_.ztell_file == nullptr) {
        return std::nullopt;
    }
    return PositionFromTell(io_.ztell_file(io_.opaque, stream_));
}

std::optional<std::uint32_t> StreamAccess::Size() noexcept {
    if (io_.zseek_file == nullptr || io_.zseek_file(io_.opaque, stream_, 0, kSeekEnd) != 0) {
        return std::nullopt;
    }
    return Tell();
}

bool StreamAccess::ReadAt(std::uint64_t position, void* buffer, std::uint32_t size) noexcept {
    if (!SeekTo(position)) {
        return false;
    }
    if (size == 0) {
        return true;
    }
    if (io_.zread_file == nullptr) {
        return false;
    }
    return io_.zread_file(io_.opaque, stream_, buffer, size) == size;
}

bool StreamAccess::Write(const void* buffer, std::uint32_t size) noexcept {
    if (size == 0) {
        return true;
    }
    if (io_.zwrite_file == nullptr) {
        return false;
    }
    return io_.zwrite_file(io_.opaque, stream_, buffer, size) == size;
}

bool StreamAccess::WriteAt(std::uint64_t position, const void* buffer,
                           std::uint32_t size) noexcept {
    return SeekTo(position) && Write(buffer, size);
}

int StreamAccess::Truncate(std::uint32_t newSize) noexcept {
    if (io_.ztruncate_file == nullptr) {
        return -7;
    }
    return io_.ztruncate_file(io_.opaque, stream_, newSize);
}

int StreamAccess::Close() noexcept {
    if (io_.zclose_file == nullptr) {
        return 0;
    }
    return io_.zclose_file(io_.opaque, stream_);
}

} // namespace QOB::MiniZip
