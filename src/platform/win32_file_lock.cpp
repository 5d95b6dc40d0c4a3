// Package locks on Windows: not taken. The session mutex serialises a user's calls; calls
// from several sessions on one package are not kept apart (see the README).
#include "platform/platform.hpp"

namespace QOB::Platform {

struct FileLock {};

FileLock* FileLockAcquire(const std::filesystem::path&, bool) noexcept {
    return nullptr;
}

void FileLockConvert(FileLock*, bool) noexcept {}

void FileLockRelease(FileLock*) noexcept {}

} // namespace QOB::Platform
