#include "archive/package_file.hpp"

#include "archive/recovery.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/log.hpp"
#include "support/utf8_path.hpp"

#include <cerrno>
#include <system_error>

namespace QOB {
namespace {

// A package path that is a link is resolved once, here; everything after works in the
// folder of its target.
std::filesystem::path Resolve(const std::filesystem::path& path) {
    std::error_code error;
    if (!std::filesystem::is_symlink(std::filesystem::symlink_status(path, error))) {
        return path;
    }
    std::filesystem::path target = std::filesystem::canonical(path, error);
    if (error) {
        throw Exception(PACKAGE_NOT_FOUND, "no such archive");
    }
    return target;
}

[[noreturn]] void CannotOpen(const std::string& shown, int error) {
    throw Exception(CANNOT_OPEN_FILE_PCK, Format("failed to open archive \"%s\": %s", shown.c_str(),
                                                 Platform::SystemErrorText(error).c_str()));
}

} // namespace

PackageFile::PackageFile(const std::filesystem::path& path, Purpose purpose)
    : shown_(PathToUtf8(path)) {
    const bool creates = purpose == Purpose::Create || purpose == Purpose::New;
    const std::filesystem::path real = creates ? path : Resolve(path);
    const std::filesystem::path folder = real.parent_path();
    shownFolder_ = PathToUtf8(folder);
    name_ = PathToUtf8(real.filename());
    int error = 0;
    if (name_.empty() || name_ == "." || name_ == "..") {
        throw Exception(creates ? CANNOT_REMOVE_FILE : PACKAGE_NOT_FOUND,
                        creates ? "archive already exists" : "no such archive");
    }
    folder_.reset(Platform::FolderOpen(folder, error));
    if (!folder_) {
        if (!creates && (error == ENOENT || error == ENOTDIR)) {
            throw Exception(PACKAGE_NOT_FOUND, "no such archive");
        }
        throw Exception(CANNOT_OPEN_FILE_PCK,
                        Format("failed to open folder \"%s\": %s", shownFolder_.c_str(),
                               Platform::SystemErrorText(error).c_str()));
    }
    Open(purpose);
}

PackageFile::~PackageFile() {
    overlay_.reset();
    Platform::FileLockRelease(lock_);
}

void PackageFile::Open(Purpose purpose) {
    int error = 0;
    if (purpose == Purpose::Create) {
        Platform::FileFacts taken;
        if (Platform::FileFactsIn(folder_.get(), name_, taken, error)) {
            throw Exception(CANNOT_REMOVE_FILE, "archive already exists");
        }
        return;
    }
    if (purpose == Purpose::New) {
        stream_.reset(
            Platform::FileOpenIn(folder_.get(), name_, Platform::OpenAs::CreateNew, error));
        if (!stream_ && error == EEXIST) {
            throw Exception(CANNOT_REMOVE_FILE, "archive already exists");
        }
        if (!stream_ || !Platform::FileFactsOf(stream_.get(), facts_, error)) {
            CannotOpen(shown_, error);
        }
        writable_ = true;
        Lock(true);
        return;
    }
    stream_.reset(Platform::FileOpenIn(folder_.get(), name_, Platform::OpenAs::ReadWrite, error));
    writable_ = stream_ != nullptr;
    if (!stream_ && error == ENOENT) {
        throw Exception(PACKAGE_NOT_FOUND, "no such archive");
    }
    if (!stream_ && purpose == Purpose::Change) {
        CannotOpen(shown_, error);
    }
    if (!stream_ && (error == EACCES || error == EPERM || error == EROFS || error == ETXTBSY)) {
        LogWarn(Format("failed to open archive for read-write, retrying with read-only mode: "
                       "\"%s\"",
                       shown_.c_str()));
        stream_.reset(Platform::FileOpenIn(folder_.get(), name_, Platform::OpenAs::Read, error));
    }
    if (!stream_) {
        CannotOpen(shown_, error);
    }
    if (!Platform::FileFactsOf(stream_.get(), facts_, error)) {
        CannotOpen(shown_, error);
    }
    if (!facts_.regular) {
        throw Exception(
            CANNOT_OPEN_FILE_PCK,
            Format("failed to open archive \"%s\": not a regular file", shown_.c_str()));
    }
    Lock(purpose == Purpose::Change);
    DealWithJournal(purpose);
}

void PackageFile::Lock(bool exclusive) {
    if (lock_ == nullptr) {
        lock_ = Platform::FileLockOn(stream_.get(), exclusive);
        if (lock_ == nullptr) {
            throw Exception(CANNOT_OPEN_FILE_PCK,
                            Format("cannot lock package \"%s\"", shown_.c_str()));
        }
    } else if (exclusive != exclusive_ && !Platform::FileLockConvert(lock_, exclusive)) {
        Platform::FileLockRelease(lock_);
        lock_ = nullptr;
        throw Exception(CANNOT_OPEN_FILE_PCK, Format("cannot lock package \"%s\"", shown_.c_str()));
    }
    exclusive_ = exclusive;
}

void PackageFile::DealWithJournal(Purpose purpose) {
    // A change holds the package exclusively: a journal it finds was left by a dead process.
    // A reader that may repair takes the lock exclusively first and looks again: another
    // reader may have repaired it meanwhile.
    const bool mayRepair =
        purpose == Purpose::Change || (writable_ && Platform::CallerUser() == facts_.owner);
    JournalLookup lookup = FindJournal(folder_.get(), name_, shownFolder_, stream_.get(), facts_);
    if (lookup.state == JournalState::None) {
        return;
    }
    if (!mayRepair) {
        overlay_ = std::move(lookup.journal); // a stale one is simply not read
        return;
    }
    if (purpose == Purpose::Read) {
        lookup = {};
        Lock(true);
        int error = 0;
        Platform::FileFactsOf(stream_.get(), facts_, error);
        lookup = FindJournal(folder_.get(), name_, shownFolder_, stream_.get(), facts_);
    }
    if (lookup.state == JournalState::Found) {
        Repair(*this, *lookup.journal);
    } else if (lookup.state == JournalState::Stale) {
        int error = 0;
        Platform::FileRemoveIn(folder_.get(), JournalName(name_), lookup.facts, error);
    }
    int error = 0;
    if (!Platform::FileFactsOf(stream_.get(), facts_, error)) {
        CannotOpen(shown_, error);
    }
    if (purpose == Purpose::Read) {
        Lock(false);
    }
}

MiniZip::zlib_filefunc_def PackageFile::Functions() noexcept {
    return overlay_ ? OverlayFunctions(*overlay_) : MiniZip::FileFunctions();
}

void* PackageFile::NewStream() {
    Platform::FileStream* shared = Platform::FileShare(stream_.get());
    if (shared == nullptr) {
        throw std::bad_alloc();
    }
    return overlay_ ? OverlayStream(shared) : shared;
}

} // namespace QOB
