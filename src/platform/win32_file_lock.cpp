// Package locks on Windows: a byte-range lock (LockFileEx) on one byte past 4 GiB, where no
// package ever has data, so that it never blocks a read or write of the package itself.
// Windows releases it when the handle is closed or the holder dies. Locks are only ever tried
// (LOCKFILE_FAIL_IMMEDIATELY): the caller decides how long to come back, never the holder.
#include "platform/platform.hpp"
#include "platform/win32_stream.hpp"

#include <new>
#include <windows.h>

namespace QOB::Platform {
namespace {

constexpr DWORD kLockOffsetHigh = 1; // byte 0x1'0000'0000

bool Lock(HANDLE file, bool exclusive, int& error) noexcept {
    OVERLAPPED where{};
    where.OffsetHigh = kLockOffsetHigh;
    const DWORD flags = LOCKFILE_FAIL_IMMEDIATELY | (exclusive ? LOCKFILE_EXCLUSIVE_LOCK : 0);
    if (::LockFileEx(file, flags, 0, 1, 0, &where) != 0) {
        return true;
    }
    error = static_cast<int>(::GetLastError());
    return false;
}

void Unlock(HANDLE file) noexcept {
    OVERLAPPED where{};
    where.OffsetHigh = kLockOffsetHigh;
    ::UnlockFileEx(file, 0, 1, 0, &where);
}

} // namespace

struct FileLock {
    HANDLE file;
};

FileLock* FileLockOn(FileStream* stream, bool exclusive, int& error) noexcept {
    // The stream's own handle: each open of a package is a handle of its own, so the locks of
    // two opens exclude each other even within one process.
    const HANDLE file = StreamHandle(stream);
    if (!Lock(file, exclusive, error)) {
        return nullptr;
    }
    FileLock* lock = new (std::nothrow) FileLock{file};
    if (lock == nullptr) {
        Unlock(file);
        error = ERROR_NOT_ENOUGH_MEMORY;
    }
    return lock;
}

bool FileLockConvert(FileLock* lock, bool exclusive, int& error) noexcept {
    if (lock == nullptr) {
        return true;
    }
    // Not atomic: the lock is dropped, then tried again; on refusal nothing is held.
    Unlock(lock->file);
    return Lock(lock->file, exclusive, error);
}

bool FileLockBusy(int error) noexcept {
    return error == ERROR_LOCK_VIOLATION || error == ERROR_IO_PENDING;
}

void FileLockRelease(FileLock* lock) noexcept {
    if (lock != nullptr) {
        Unlock(lock->file);
        delete lock;
    }
}

} // namespace QOB::Platform
