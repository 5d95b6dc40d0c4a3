// POSIX implementation of the platform interface.
#include "platform/platform.hpp"
#include "platform/posix_retry.hpp"
#include "platform/posix_stream.hpp"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace QOB::Platform {
// The file stream record: the descriptor, whether closing the stream closes it (streams
// shared from another hold it only), the stream's own position, and the last error (errno;
// 0 when none). Reads and writes are positioned, so that streams sharing a descriptor never
// move each other.
struct FileStream {
    int fd;
    bool owns;
    off_t position;
    std::int32_t error;
};

namespace {

constexpr off_t kMaxPosition = 0xFFFFFFFF;

FileStream* Wrap(int fd) noexcept {
    if (fd < 0) {
        return nullptr;
    }
    auto* stream = new (std::nothrow) FileStream{fd, true, 0, 0};
    if (stream == nullptr) {
        ::close(fd);
    }
    return stream;
}

int OpenRetrying(const char* name, int flags) noexcept {
    return Retrying([&] { return ::open(name, flags | O_CLOEXEC, 0666); });
}

void Fail(FileStream* stream) noexcept {
    stream->error = errno;
}

} // namespace

FileStream* FileOpen(const char* utf8Name, int mode) noexcept {
    if (utf8Name == nullptr) {
        return nullptr;
    }
    int flags;
    if ((mode & 3) == 1) {
        flags = O_RDONLY;
    } else if ((mode & 4) != 0) {
        flags = O_RDWR;
    } else if ((mode & 8) != 0) {
        flags = O_RDWR | O_CREAT | O_TRUNC;
    } else {
        return nullptr;
    }
    return Wrap(OpenRetrying(utf8Name, flags));
}

FileStream* FileOpenReadOnly(const char* utf8Name) noexcept {
    return utf8Name != nullptr ? Wrap(OpenRetrying(utf8Name, O_RDONLY)) : nullptr;
}

std::uint32_t FileRead(FileStream* stream, void* buffer, std::uint32_t size) noexcept {
    if (stream == nullptr) {
        return 0;
    }
    auto* bytes = static_cast<unsigned char*>(buffer);
    std::uint32_t done = 0;
    while (done < size) {
        const ssize_t got = ::pread(stream->fd, bytes + done, size - done, stream->position);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            Fail(stream);
            break;
        }
        if (got == 0) {
            break; // end of file is not an error
        }
        done += static_cast<std::uint32_t>(got);
        stream->position += got;
    }
    return done;
}

std::uint32_t FileWrite(FileStream* stream, const void* buffer, std::uint32_t size) noexcept {
    if (stream == nullptr) {
        return 0;
    }
    const auto* bytes = static_cast<const unsigned char*>(buffer);
    std::uint32_t done = 0;
    while (done < size) {
        const ssize_t put = ::pwrite(stream->fd, bytes + done, size - done, stream->position);
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put <= 0) {
            Fail(stream);
            break;
        }
        done += static_cast<std::uint32_t>(put);
        stream->position += put;
    }
    return done;
}

long FileTell(FileStream* stream) noexcept {
    if (stream == nullptr) {
        return -1;
    }
    const off_t position = stream->position;
    if (position > kMaxPosition) {
        stream->error = EOVERFLOW;
        return -1;
    }
    return static_cast<long>(position);
}

// The offset is a 32-bit value: unsigned from the start, signed from the current position
// or the end, and the resulting position must fit in 32 bits.
long FileSeek(FileStream* stream, std::uint32_t offset, int origin) noexcept {
    if (stream == nullptr) {
        return -1;
    }
    off_t base = 0;
    off_t distance = static_cast<std::int32_t>(offset);
    if (origin == 0) {
        distance = static_cast<off_t>(offset);
    } else if (origin == 1) {
        base = stream->position;
    } else if (origin == 2) {
        struct stat status {};
        base = ::fstat(stream->fd, &status) == 0 ? status.st_size : -1;
    } else {
        return -1;
    }
    if (base < 0) {
        Fail(stream);
        return -1;
    }
    const off_t target = base + distance;
    if (target < 0 || target > kMaxPosition) {
        stream->error = EINVAL;
        return -1;
    }
    stream->position = target;
    return 0;
}

int FileClose(FileStream* stream) noexcept {
    if (stream == nullptr) {
        return -1;
    }
    const int result = stream->fd >= 0 ? 0 : -1;
    if (stream->fd >= 0 && stream->owns) {
        ::close(stream->fd); // even on EINTR the descriptor is gone on Linux
    }
    delete stream;
    return result;
}

int FileError(FileStream* stream) noexcept {
    return stream != nullptr ? stream->error : -1;
}

int FileTruncate(FileStream* stream, std::uint32_t newSize) noexcept {
    if (stream == nullptr) {
        return -7;
    }
    if (stream->fd < 0) {
        return -2;
    }
    if (Retrying([&] { return ::ftruncate(stream->fd, static_cast<off_t>(newSize)); }) != 0) {
        Fail(stream);
        return -5;
    }
    return 0;
}

FileStream* FileShare(FileStream* stream) noexcept {
    if (stream == nullptr || stream->fd < 0) {
        return nullptr;
    }
    return new (std::nothrow) FileStream{stream->fd, false, 0, 0};
}

int StreamDescriptor(FileStream* stream) noexcept {
    return stream != nullptr ? stream->fd : -1;
}

FileStream* StreamFromDescriptor(int fd) noexcept {
    return Wrap(fd);
}

std::string SystemErrorText(int error) {
    char buffer[256] = {};
    // The GNU variant returns the text, which need not be in buffer.
    return ::strerror_r(error, buffer, sizeof buffer);
}

bool FileModificationTime(const std::filesystem::path& path, std::int64_t& seconds) noexcept {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return false;
    }
    seconds = static_cast<std::int64_t>(status.st_mtime);
    return true;
}

std::int64_t CurrentTime() noexcept {
    return static_cast<std::int64_t>(std::time(nullptr));
}

std::tm LocalTime(std::int64_t seconds) noexcept {
    std::tm result{};
    const auto value = static_cast<std::time_t>(seconds);
    if (::localtime_r(&value, &result) == nullptr) {
        std::memset(&result, 0, sizeof result);
    }
    return result;
}

} // namespace QOB::Platform
