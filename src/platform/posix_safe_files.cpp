// Creating extracted files below a destination without ever following a link there: every
// directory is opened relative to its parent's descriptor with O_NOFOLLOW, so a link planted
// anywhere below the destination (even while we walk) cannot redirect a write.
#include "platform/platform.hpp"
#include "platform/posix_retry.hpp"

#include <cerrno>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

namespace QOB::Platform {

struct OutputFile {
    int fd;
};

namespace {

class Descriptor {
public:
    explicit Descriptor(int fd = -1) noexcept : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    void Reset(int fd) noexcept {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = fd;
    }
    int Get() const noexcept { return fd_; }
    int Release() noexcept {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

bool IsLink(int dirFd, const char* name) noexcept {
    struct stat status {};
    return ::fstatat(dirFd, name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode);
}

bool UsableName(const std::filesystem::path& name) noexcept {
    const std::string& text = name.native();
    return !text.empty() && text != "." && text != ".." && text.find('/') == std::string::npos;
}

} // namespace

CreateBelowResult CreateFileBelow(const std::filesystem::path& root,
                                  const std::vector<std::filesystem::path>& components) {
    CreateBelowResult result;
    const auto fail = [&](CreateBelowResult::Status status, int error) {
        result.status = status;
        result.error = error;
        return std::move(result);
    };
    if (components.empty()) {
        return fail(CreateBelowResult::Status::Failed, EINVAL);
    }
    // The destination itself is the host's choice and may be reached through links.
    Descriptor dir(
        Retrying([&] { return ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (dir.Get() < 0) {
        return fail(CreateBelowResult::Status::Failed, errno);
    }
    for (std::size_t i = 0; i < components.size(); ++i) {
        const std::filesystem::path& part = components[i];
        result.at /= part;
        if (!UsableName(part)) {
            return fail(CreateBelowResult::Status::Failed, EINVAL);
        }
        const char* name = part.c_str();
        if (i + 1 < components.size()) {
            if (::mkdirat(dir.Get(), name, 0777) == 0) {
                result.createdDirectory = true;
            } else if (errno != EEXIST) {
                return fail(CreateBelowResult::Status::Failed, errno);
            }
            const int next = Retrying([&] {
                return ::openat(dir.Get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            });
            if (next < 0) {
                const int error = errno;
                return fail(error == ELOOP || IsLink(dir.Get(), name)
                                ? CreateBelowResult::Status::ThroughLink
                                : CreateBelowResult::Status::Failed,
                            error);
            }
            dir.Reset(next);
            continue;
        }
        // The file: always a new inode. Writing into an existing one could reach, through a
        // hard link, a file outside the destination; an existing entry is removed first,
        // unless it is a link (refused) or a directory (fails).
        for (int attempt = 0; attempt < 4; ++attempt) {
            Descriptor file(Retrying([&] {
                return ::openat(dir.Get(), name,
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
            }));
            if (file.Get() >= 0) {
                result.file = new (std::nothrow) OutputFile{file.Get()};
                if (result.file == nullptr) {
                    return fail(CreateBelowResult::Status::Failed, ENOMEM);
                }
                file.Release();
                result.status = CreateBelowResult::Status::Created;
                return result;
            }
            if (errno != EEXIST) {
                return fail(CreateBelowResult::Status::Failed, errno);
            }
            struct stat status {};
            if (::fstatat(dir.Get(), name, &status, AT_SYMLINK_NOFOLLOW) != 0) {
                continue; // gone again: try once more
            }
            if (S_ISLNK(status.st_mode)) {
                return fail(CreateBelowResult::Status::ThroughLink, ELOOP);
            }
            if (S_ISDIR(status.st_mode)) {
                return fail(CreateBelowResult::Status::Failed, EISDIR);
            }
            if (::unlinkat(dir.Get(), name, 0) != 0 && errno != ENOENT) {
                return fail(CreateBelowResult::Status::Failed, errno);
            }
            result.replaced = true;
        }
        return fail(CreateBelowResult::Status::Failed, EEXIST);
    }
    return fail(CreateBelowResult::Status::Failed, EINVAL);
}

std::error_code OutputWrite(OutputFile* file, const void* data, std::size_t size) noexcept {
    if (file == nullptr) {
        return std::make_error_code(std::errc::bad_file_descriptor);
    }
    const auto* bytes = static_cast<const unsigned char*>(data);
    while (size > 0) {
        const ssize_t put = ::write(file->fd, bytes, size);
        if (put < 0 && errno == EINTR) {
            continue;
        }
        if (put < 0) {
            return {errno, std::system_category()};
        }
        if (put == 0) { // nothing written and no reason given: the device took no more
            return {ENOSPC, std::system_category()};
        }
        bytes += put;
        size -= static_cast<std::size_t>(put);
    }
    return {};
}

bool OutputClose(OutputFile* file) noexcept {
    if (file == nullptr) {
        return false;
    }
    const bool closed = ::close(file->fd) == 0;
    delete file;
    return closed;
}

std::string OutputNameKey(const std::string& utf8) {
    return utf8; // names differing in anything are different files here
}

} // namespace QOB::Platform
