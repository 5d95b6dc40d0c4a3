// A package file opened once, through its folder, for one call: every read, write, flush,
// lock and recovery goes through the descriptors opened here, never by opening a name
// again. A package path that is a symbolic link is resolved once; the journal is the one
// beside the link's target, never beside the link.
#pragma once

#include "archive/journal.hpp"
#include "archive/minizip/io.hpp"
#include "platform/platform.hpp"

#include <filesystem>
#include <memory>
#include <string>

namespace QOB {

struct FolderCloser {
    void operator()(Platform::Folder* folder) const noexcept { Platform::FolderClose(folder); }
};
using FolderPtr = std::unique_ptr<Platform::Folder, FolderCloser>;

struct LockReleaser {
    void operator()(Platform::FileLock* lock) const noexcept { Platform::FileLockRelease(lock); }
};
using LockPtr = std::unique_ptr<Platform::FileLock, LockReleaser>;

class PackageLock;

class PackageFile {
public:
    enum class Purpose {
        Read,   // read-write when the caller may, else read-only; a shared lock
        Change, // read-write or fail; an exclusive lock
        Create, // the folder only: the package's name must be free
        New,    // a new empty file under the free name, for archives built outside a change
    };

    // PACKAGE_NOT_FOUND when there is no such package (Read, Change); CANNOT_REMOVE_FILE when
    // the name is taken (Create). Read and Change first deal with a journal left beside the
    // package (transaction.hpp says how).
    PackageFile(const std::filesystem::path& path, Purpose purpose);
    ~PackageFile();
    PackageFile(const PackageFile&) = delete;
    PackageFile& operator=(const PackageFile&) = delete;

    Platform::Folder* Folder() const noexcept { return folder_.get(); }
    // The package's file name in its folder, and the folder as given (for messages).
    const std::string& Name() const noexcept { return name_; }
    const std::string& ShownFolder() const noexcept { return shownFolder_; }
    // The path as the caller gave it, UTF-8.
    const std::string& Shown() const noexcept { return shown_; }
    Platform::FileStream* Stream() const noexcept { return stream_.get(); }
    const Platform::FileFacts& Facts() const noexcept { return facts_; }
    bool Writable() const noexcept { return writable_; }

    // The table and a new stream for one archive handle on the package: the package's own
    // bytes, or, when a journal could only be laid over them, the package as the journal
    // says it was. Close the stream with the table's close.
    MiniZip::zlib_filefunc_def Functions() noexcept;
    void* NewStream();

    // Takes the package's lock, or changes it, trying once: throws PackageBusy when another
    // holder refuses it (package_busy.hpp), Exception on any other refusal.
    void Lock(bool exclusive);

private:
    void Open(Purpose purpose);
    // Repairs or overlays a journal found beside the package.
    void DealWithJournal(Purpose purpose);

    std::string shown_;
    std::string shownFolder_;
    std::string name_;
    FolderPtr folder_;
    StreamPtr stream_;
    Platform::FileFacts facts_;
    bool writable_ = false;
    LockPtr lock_; // declared after the stream: released before it closes
    bool exclusive_ = false;
    // A journal that this caller may not apply, laid over the package for reading.
    std::unique_ptr<Journal> overlay_;
};

} // namespace QOB
