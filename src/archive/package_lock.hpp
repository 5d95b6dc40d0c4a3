// The advisory lock on one package, held for as long as an archive or a change uses it.
#pragma once

#include "platform/platform.hpp"

#include <filesystem>

namespace QOB {

class PackageLock {
public:
    PackageLock() noexcept = default;
    PackageLock(const std::filesystem::path& package, bool exclusive) noexcept
        : lock_(Platform::FileLockAcquire(package, exclusive)) {}
    ~PackageLock() { Platform::FileLockRelease(lock_); }
    PackageLock(const PackageLock&) = delete;
    PackageLock& operator=(const PackageLock&) = delete;
    PackageLock(PackageLock&& other) noexcept : lock_(other.lock_) { other.lock_ = nullptr; }
    PackageLock& operator=(PackageLock&& other) noexcept {
        if (this != &other) {
            Platform::FileLockRelease(lock_);
            lock_ = other.lock_;
            other.lock_ = nullptr;
        }
        return *this;
    }

    // False when the system refused: nothing is held then.
    [[nodiscard]] bool MakeExclusive(bool exclusive) noexcept {
        return Platform::FileLockConvert(lock_, exclusive);
    }

private:
    Platform::FileLock* lock_ = nullptr;
};

} // namespace QOB
