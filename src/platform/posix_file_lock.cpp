// Advisory package locks with flock(2): released by the system when the holder dies.
#include "platform/platform.hpp"
#include "platform/posix_retry.hpp"

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

bool FileLockConvert(FileLock* lock, bool exclusive) noexcept {
    return lock == nullptr ||
           Retrying([&] { return ::flock(lock->fd, exclusive ? LOCK_EX : LOCK_SH); }) == 0;
}

void FileLockRelease(FileLock* lock) noexcept {
    if (lock != nullptr) {
        ::close(lock->fd); // closing drops the lock
        delete lock;
    }
}

} // namespace QOB::Platform
