// Package locks on Windows: a byte-range lock (LockFileEx) on one byte past 4 GiB, where no
// package ever has data, so that it never blocks a read or write of the package itself.
// Windows releases it when the handle is closed or the holder dies.
#include "platform/platform.hpp"
#include "platform/win32_stream.hpp"

#include <new>
#include <windows.h>

namespace QOB::Platform {
namespace {

constexpr DWORD kLockOffsetHigh = 1; // byte 0x1'0000'0000

bool Lock(HANDLE file, bool exclusive) noexcept {
    OVERLAPPED where{};
    where.OffsetHigh = kLockOffsetHigh;
    // Without LOCKFILE_FAIL_IMMEDIATELY the call waits for a conflicting holder.
    return ::LockFileEx(file, exclusive ? LOCKFILE_EXCLUSIVE_LOCK : 0, 0, 1, 0, &where) != 0;
}

void Unlock(HANDLE file) noexcept {
    OVERLAPPED where{};
    where.OffsetHigh = kLockOffsetHigh;
    ::UnlockFileEx(file, 0, 1, 0, &where);
}

} // namespace

struct FileLock {
    HANDLE file;
    bool owns; // a handle of its own, closed with the lock
};

FileLock* FileLockOn(FileStream* stream, bool exclusive) noexcept {
    // The stream's own handle: each open of a package is a handle of its own, so the locks of
    // two opens exclude each other even within one process.
    const HANDLE file = StreamHandle(stream);
    if (!Lock(file, exclusive)) {
        return nullptr;
    }
    FileLock* lock = new (std::nothrow) FileLock{file, false};
    if (lock == nullptr) {
        Unlock(file);
    }
    return lock;
}

FileLock* FileLockAcquire(const std::filesystem::path& path, bool exclusive) noexcept {
    // Every sharing mode is granted, so the lock's handle never stands in the way of another
    // open, a deletion or a rename.
    const HANDLE file = ::CreateFileW(path.c_str(), GENERIC_READ,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) {
        return nullptr;
    }
    if (::GetFileType(file) != FILE_TYPE_DISK || !Lock(file, exclusive)) {
        ::CloseHandle(file);
        return nullptr;
    }
    FileLock* lock = new (std::nothrow) FileLock{file, true};
    if (lock == nullptr) {
        ::CloseHandle(file);
    }
    return lock;
}

bool FileLockConvert(FileLock* lock, bool exclusive) noexcept {
    if (lock == nullptr) {
        return true;
    }
    // As with flock, the conversion is not atomic: the lock is dropped, then taken again.
    Unlock(lock->file);
    return Lock(lock->file, exclusive);
}

void FileLockRelease(FileLock* lock) noexcept {
    if (lock != nullptr) {
        Unlock(lock->file);
        if (lock->owns) {
            ::CloseHandle(lock->file);
        }
        delete lock;
    }
}

} // namespace QOB::Platform
