// Files beside a package on POSIX systems: everything is reached relative to the folder's
// descriptor, with O_NOFOLLOW and O_NONBLOCK, so that a link, a FIFO or a renamed folder
// planted by someone else is never followed or waited on.
#include "platform/platform.hpp"
#include "platform/posix_retry.hpp"
#include "platform/posix_stream.hpp"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <grp.h>
#include <new>
#include <pwd.h>
#include <random>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace QOB::Platform {

struct Folder {
    int fd;
};

namespace {

// Tests of the named fallback set QOB_TEST_NO_TMPFILE in the environment of a process they
// cannot reach otherwise (the tool, a host in another language).
std::atomic<bool> g_unnamedFiles{std::getenv("QOB_TEST_NO_TMPFILE") == nullptr};
constexpr int kNoWait = O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

void Describe(const struct stat& status, FileFacts& facts) noexcept {
    facts.regular = S_ISREG(status.st_mode);
    facts.links = static_cast<std::uint64_t>(status.st_nlink);
    facts.size = static_cast<std::uint64_t>(status.st_size);
    facts.device = static_cast<std::uint64_t>(status.st_dev);
    facts.inode = static_cast<std::uint64_t>(status.st_ino);
    facts.owner = status.st_uid;
    facts.group = status.st_gid;
    facts.mode = status.st_mode & 07777;
}

// Clears O_NONBLOCK once the file is known to be regular: nothing else may wait.
FileStream* Finish(int fd, int& error) noexcept {
    struct stat status {};
    if (::fstat(fd, &status) != 0) {
        error = errno;
        ::close(fd);
        return nullptr;
    }
    if (S_ISREG(status.st_mode)) {
        const int flags = ::fcntl(fd, F_GETFL);
        if (flags >= 0) {
            ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
        }
    }
    FileStream* stream = StreamFromDescriptor(fd);
    if (stream == nullptr) {
        error = ENOMEM;
    }
    return stream;
}

std::string RandomSuffix() {
    std::random_device device;
    const std::uint64_t value = (std::uint64_t{device()} << 32) | device();
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
    return text;
}

} // namespace

Folder* FolderOpen(const std::filesystem::path& folder, int& error) noexcept {
    const char* name = folder.empty() ? "." : folder.c_str();
    const int fd = Retrying([&] { return ::open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
    if (fd < 0) {
        error = errno;
        return nullptr;
    }
    auto* opened = new (std::nothrow) Folder{fd};
    if (opened == nullptr) {
        ::close(fd);
        error = ENOMEM;
    }
    return opened;
}

void FolderClose(Folder* folder) noexcept {
    if (folder != nullptr) {
        ::close(folder->fd);
        delete folder;
    }
}

bool FolderSync(Folder* folder, int& error) noexcept {
    if (!SyncEnabled()) {
        return true;
    }
    if (Retrying([&] { return ::fsync(folder->fd); }) != 0) {
        error = errno;
        return false;
    }
    return true;
}

FileStream* FileOpenIn(Folder* folder, const std::string& name, OpenAs how, int& error) noexcept {
    int flags = kNoWait;
    switch (how) {
    case OpenAs::Read:
        flags |= O_RDONLY;
        break;
    case OpenAs::ReadWrite:
        flags |= O_RDWR;
        break;
    case OpenAs::CreateNew:
        flags |= O_RDWR | O_CREAT | O_EXCL;
        break;
    }
    const int fd = Retrying([&] { return ::openat(folder->fd, name.c_str(), flags, 0600); });
    if (fd < 0) {
        error = errno;
        return nullptr;
    }
    return Finish(fd, error);
}

bool FileFactsOf(FileStream* stream, FileFacts& facts, int& error) noexcept {
    struct stat status {};
    if (::fstat(StreamDescriptor(stream), &status) != 0) {
        error = errno;
        return false;
    }
    Describe(status, facts);
    return true;
}

bool FileFactsIn(Folder* folder, const std::string& name, FileFacts& facts, int& error) noexcept {
    struct stat status {};
    if (::fstatat(folder->fd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        error = errno;
        return false;
    }
    Describe(status, facts);
    return true;
}

bool FileSetPermissions(FileStream* stream, const FileFacts& like, int& error) noexcept {
    const int fd = StreamDescriptor(stream);
    // Owner and group first: a change of owner may clear set-id bits, never widen access.
    if (::fchown(fd, like.owner, like.group) != 0) {
        // Only root gives files away; a member of the group may still hand it the file.
        if (::fchown(fd, static_cast<uid_t>(-1), like.group) != 0) {
            // The file stays the caller's and its group, with the permission bits below.
        }
    }
    if (::fchmod(fd, like.mode & 0777) != 0) {
        error = errno;
        return false;
    }
    return true;
}

bool FileRemoveIn(Folder* folder, const std::string& name, const FileFacts& expected,
                  int& error) noexcept {
    FileFacts now;
    if (!FileFactsIn(folder, name, now, error)) {
        return false;
    }
    if (now.device != expected.device || now.inode != expected.inode) {
        error = ESTALE; // someone put another file under the name
        return false;
    }
    if (::unlinkat(folder->fd, name.c_str(), 0) != 0) {
        error = errno;
        return false;
    }
    return true;
}

bool FileSyncData(FileStream* stream, int& error) noexcept {
    if (!SyncEnabled()) {
        return true;
    }
    const int fd = StreamDescriptor(stream);
    // A file's data and its length are what a reader needs back; its times are not.
    if (Retrying([&] { return ::fdatasync(fd); }) != 0) {
        error = errno;
        return false;
    }
    return true;
}

void SetUnnamedFilesEnabled(bool enabled) noexcept {
    g_unnamedFiles = enabled;
}

FileStream* FileCreateStaged(Folder* folder, const std::string& name, std::string& staging,
                             int& error) noexcept {
    staging.clear();
#ifdef O_TMPFILE
    if (g_unnamedFiles) {
        const int fd = Retrying(
            [&] { return ::openat(folder->fd, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0666); });
        if (fd >= 0) {
            return Finish(fd, error);
        }
        // File systems without unnamed files say so in several ways; take the named way.
        if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL && errno != ENOENT) {
            error = errno;
            return nullptr;
        }
    }
#endif
    try {
        for (int attempt = 0; attempt < 8; ++attempt) {
            staging = "." + name + "." + RandomSuffix() + ".partial";
            const int fd = Retrying([&] {
                return ::openat(folder->fd, staging.c_str(), kNoWait | O_RDWR | O_CREAT | O_EXCL,
                                0666);
            });
            if (fd >= 0) {
                return Finish(fd, error);
            }
            if (errno != EEXIST) {
                break;
            }
        }
        error = errno;
    } catch (...) {
        error = ENOMEM;
    }
    staging.clear();
    return nullptr;
}

namespace {

// A staging name is only a name: in a folder that others may write, they can rename the file
// away and put theirs under it before it is moved. Whatever got the name must be the file
// behind the descriptor; a stranger's is taken off the name again and the move fails.
MoveResult Ours(FileStream* stream, Folder* folder, const std::string& name, int& error) noexcept {
    FileFacts ours;
    FileFacts named;
    if (!FileFactsOf(stream, ours, error) || !FileFactsIn(folder, name, named, error)) {
        return MoveResult::Failed;
    }
    if (named.device == ours.device && named.inode == ours.inode) {
        return MoveResult::Moved;
    }
    FileRemoveIn(folder, name, named, error);
    error = ESTALE;
    return MoveResult::Failed;
}

} // namespace

MoveResult FileGiveName(FileStream* stream, Folder* folder, const std::string& staging,
                        const std::string& name, int& error) noexcept {
    if (staging.empty()) {
        // linkat with AT_EMPTY_PATH needs a capability; the descriptor's /proc name does not.
        char self[64];
        std::snprintf(self, sizeof self, "/proc/self/fd/%d", StreamDescriptor(stream));
        if (::linkat(AT_FDCWD, self, folder->fd, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
            return MoveResult::Moved;
        }
        error = errno;
        return error == EEXIST ? MoveResult::TargetExists : MoveResult::Failed;
    }
#ifdef RENAME_NOREPLACE
    if (::renameat2(folder->fd, staging.c_str(), folder->fd, name.c_str(), RENAME_NOREPLACE) == 0) {
        return Ours(stream, folder, name, error);
    }
    error = errno;
    if (error == EEXIST) {
        return MoveResult::TargetExists;
    }
    if (error != EINVAL && error != ENOSYS && error != ENOTSUP) {
        return MoveResult::Failed;
    }
#endif
    // File systems without the flag: a hard link fails on an existing name as well.
    if (::linkat(folder->fd, staging.c_str(), folder->fd, name.c_str(), 0) != 0) {
        error = errno;
        return error == EEXIST ? MoveResult::TargetExists : MoveResult::Failed;
    }
    ::unlinkat(folder->fd, staging.c_str(), 0);
    return Ours(stream, folder, name, error);
}

std::uint32_t CallerUser() noexcept {
    return ::geteuid();
}

bool CallerInGroup(std::uint32_t group) noexcept {
    if (::getegid() == group) {
        return true;
    }
    const int count = ::getgroups(0, nullptr);
    if (count <= 0) {
        return false;
    }
    try {
        std::vector<gid_t> groups(static_cast<std::size_t>(count));
        const int got = ::getgroups(count, groups.data());
        for (int i = 0; i < got; ++i) {
            if (groups[static_cast<std::size_t>(i)] == group) {
                return true;
            }
        }
    } catch (...) {
    }
    return false;
}

bool UserInGroup(std::uint32_t user, std::uint32_t group) noexcept {
    try {
        std::vector<char> buffer(16384);
        struct passwd entry {};
        struct passwd* found = nullptr;
        if (::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) != 0 ||
            found == nullptr) {
            return false;
        }
        if (entry.pw_gid == group) {
            return true;
        }
        int count = 64;
        std::vector<gid_t> groups(static_cast<std::size_t>(count));
        if (::getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) {
            groups.resize(static_cast<std::size_t>(count));
            if (::getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0) {
                return false;
            }
        }
        for (int i = 0; i < count; ++i) {
            if (groups[static_cast<std::size_t>(i)] == group) {
                return true;
            }
        }
    } catch (...) {
    }
    return false;
}

} // namespace QOB::Platform
