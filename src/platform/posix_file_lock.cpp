// Advisory package locks with flock(2): released by the system when the holder dies.
#include "platform/platform.hpp"
#include "platform/posix_retry.hpp"
#include "platform/posix_stream.hpp"

#include <fcntl.h>
#include <new>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace QOB::Platform {

struct FileLock {
    int fd;
};

FileLock* FileLockAcquire(const std::filesystem::path& path, bool exclusive) noexcept {
    // Non-blocking open: a FIFO in place of a package must not hang the call here.
    const int fd = Retrying(
        [&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY); });
    if (fd < 0) {
        return nullptr;
    }
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode) ||
        Retrying([&] { return ::flock(fd, exclusive ? LOCK_EX : LOCK_SH); }) != 0) {
        ::close(fd);
        return nullptr;
    }
    FileLock* lock = new (std::nothrow) FileLock{fd};
    if (lock == nullptr) {
        ::close(fd);
    }
    return lock;
}

FileLock* FileLockOn(FileStream* stream, bool exclusive) noexcept {
    // A descriptor of its own: the lock belongs to it, and the stream's stays untouched.
    const int fd = Retrying([&] { return ::fcntl(StreamDescriptor(stream), F_DUPFD_CLOEXEC, 0); });
    if (fd < 0) {
        return nullptr;
    }
    if (Retrying([&] { return ::flock(fd, exclusive ? LOCK_EX : LOCK_SH); }) != 0) {
        ::close(fd);
        return nullptr;
    }
    FileLock* lock = new (std::nothrow) FileLock{fd};
    if (lock == nullptr) {
        ::close(fd);
    }
    return lock;
}

bool FileLockConvert(FileLock* lock, bool exclusive) noexcept {
    return lock == nullptr ||
           Retrying([&] { return ::flock(lock->fd, exclusive ? LOCK_EX : LOCK_SH); }) == 0;
}

void FileLockRelease(FileLock* lock) noexcept {
    if (lock != nullptr) {
        // Explicitly: a duplicate of the package's own descriptor shares its lock.
        Retrying([&] { return ::flock(lock->fd, LOCK_UN); });
        ::close(lock->fd);
        delete lock;
    }
}

} // namespace QOB::Platform
