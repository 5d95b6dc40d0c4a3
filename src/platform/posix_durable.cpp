// POSIX durability: fdatasync of files, fsync of directories, and a rename that never
// replaces.
#include "platform/platform.hpp"
#include "platform/posix_retry.hpp"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace QOB::Platform {

namespace {
bool g_syncEnabled = true;
}

void SetSyncEnabled(bool enabled) noexcept {
    g_syncEnabled = enabled;
}

bool SyncEnabled() noexcept {
    return g_syncEnabled;
}
namespace {

bool SyncPath(const char* name, int flags) noexcept {
    const int fd = Retrying([&] { return ::open(name, flags | O_CLOEXEC); });
    if (fd < 0) {
        return false;
    }
    // A file's data and its length are what a reader needs back; its times are not.
    const bool directory = (flags & O_DIRECTORY) != 0;
    const int result = Retrying([&] { return directory ? ::fsync(fd) : ::fdatasync(fd); });
    ::close(fd);
    return result == 0;
}

} // namespace

bool SyncFile(const std::filesystem::path& path) noexcept {
    if (!g_syncEnabled) {
        return true;
    }
    return SyncPath(path.c_str(), O_RDONLY);
}

bool SyncDirectory(const std::filesystem::path& directory) noexcept {
    if (!g_syncEnabled) {
        return true;
    }
    const char* name = directory.empty() ? "." : directory.c_str();
    return SyncPath(name, O_RDONLY | O_DIRECTORY);
}

} // namespace QOB::Platform
