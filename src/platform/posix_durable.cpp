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

MoveResult MoveNoReplace(const std::filesystem::path& from,
                         const std::filesystem::path& to) noexcept {
#ifdef RENAME_NOREPLACE
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
        return MoveResult::Moved;
    }
    if (errno == EEXIST) {
        return MoveResult::TargetExists;
    }
    if (errno != EINVAL && errno != ENOSYS && errno != ENOTSUP) {
        return MoveResult::Failed;
    }
#endif
    // File systems without the flag: a hard link fails on an existing name as well.
    if (::link(from.c_str(), to.c_str()) != 0) {
        return errno == EEXIST ? MoveResult::TargetExists : MoveResult::Failed;
    }
    ::unlink(from.c_str());
    return MoveResult::Moved;
}

} // namespace QOB::Platform
