// Advisory package locks with open file description locks (fcntl F_OFD_SETLK): released by the
// system when the holder dies, and, unlike flock, a write lock needs a descriptor open for
// writing, so a user who may only read a package can never take it exclusively. They are only
// ever tried: the caller decides how long to come back, never the holder of a lock.
#include "platform/platform.hpp"
#include "platform/posix_retry.hpp"
#include "platform/posix_stream.hpp"

#include <cerrno>
#include <fcntl.h>
#include <new>
#include <unistd.h>

namespace QOB::Platform {
namespace {

// The whole file, including what it may grow by.
bool TryLock(int fd, short type, int& error) noexcept {
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = 0;
    range.l_len = 0;
    if (Retrying([&] { return ::fcntl(fd, F_OFD_SETLK, &range); }) == 0) {
        return true;
    }
    error = errno;
    return false;
}

} // namespace

struct FileLock {
    int fd;
};

FileLock* FileLockOn(FileStream* stream, bool exclusive, int& error) noexcept {
    // A descriptor of its own, on the same open file description (whose lock it is), so that
    // release can unlock and close it without touching the stream's descriptor.
    const int fd = Retrying([&] { return ::fcntl(StreamDescriptor(stream), F_DUPFD_CLOEXEC, 0); });
    if (fd < 0) {
        error = errno;
        return nullptr;
    }
    if (!TryLock(fd, exclusive ? F_WRLCK : F_RDLCK, error)) {
        ::close(fd);
        return nullptr;
    }
    FileLock* lock = new (std::nothrow) FileLock{fd};
    if (lock == nullptr) {
        int ignored = 0;
        TryLock(fd, F_UNLCK, ignored);
        ::close(fd);
        error = ENOMEM;
    }
    return lock;
}

bool FileLockConvert(FileLock* lock, bool exclusive, int& error) noexcept {
    // Atomic here: on refusal the lock held before stays held.
    return lock == nullptr || TryLock(lock->fd, exclusive ? F_WRLCK : F_RDLCK, error);
}

bool FileLockBusy(int error) noexcept {
    return error == EAGAIN || error == EACCES || error == EWOULDBLOCK;
}

void FileLockRelease(FileLock* lock) noexcept {
    if (lock != nullptr) {
        // Explicitly: the package's own descriptor shares this description and stays open.
        int ignored = 0;
        TryLock(lock->fd, F_UNLCK, ignored);
        ::close(lock->fd);
        delete lock;
    }
}

} // namespace QOB::Platform
