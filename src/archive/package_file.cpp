#include "archive/package_file.hpp"

#include "archive/package_busy.hpp"
#include "archive/recovery.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/log.hpp"
#include "support/utf8_path.hpp"

#include <cerrno>
#include <system_error>

namespace QOB {
namespace {

std::error_code Cause(int error) {
    return Platform::SystemError(error);
}

// A package path that is a link is resolved once, here; everything after works in the
// folder of its target.
std::filesystem::path Resolve(const std::filesystem::path& path, const std::string& shown) {
    std::error_code error;
    if (!std::filesystem::is_symlink(std::filesystem::symlink_status(path, error))) {
        return path;
    }
    std::filesystem::path target = std::filesystem::canonical(path, error);
    if (error) {
        throw Exception(PACKAGE_NOT_FOUND, "no such archive", error, shown);
    }
    return target;
}

bool Is(int error, Platform::ErrorKind kind) {
    return Platform::KindOf(error) == kind;
}

} // namespace

PackageFile::PackageFile(const std::filesystem::path& path, Purpose purpose)
    : shown_(PathToUtf8(path)) {
    const bool creates = purpose == Purpose::Create || purpose == Purpose::New;
    const std::filesystem::path real = creates ? path : Resolve(path, shown_);
    std::filesystem::path folder = real.parent_path();
    name_ = PathToUtf8(real.filename());
    if (name_.empty() || name_ == "." || name_ == "..") {
        // A folder named by itself: take it by its name in its parent, where it is found to
        // be a folder like any other.
        std::error_code error;
        const std::filesystem::path whole =
            std::filesystem::absolute(real, error).lexically_normal();
        const std::filesystem::path named = whole.has_filename() ? whole : whole.parent_path();
        folder = named.parent_path();
        name_ = PathToUtf8(named.filename());
    }
    shownFolder_ = PathToUtf8(folder);
    int error = 0;
    folder_.reset(Platform::FolderOpen(folder, error));
    if (!folder_) {
        if (!creates && Is(error, Platform::ErrorKind::NotFound)) {
            throw Exception(PACKAGE_NOT_FOUND, "no such archive", Cause(error), shown_);
        }
        throw Exception(INTERNAL_INCONSISTENCY, "failed to open archive", Cause(error), shown_);
    }
    Open(purpose);
}

PackageFile::~PackageFile() = default;

void PackageFile::Open(Purpose purpose) {
    int error = 0;
    if (purpose == Purpose::Create || purpose == Purpose::New) {
        Platform::FileFacts taken;
        if (Platform::FileFactsIn(folder_.get(), name_, taken, error)) {
            throw Exception(CANNOT_REMOVE_FILE, "archive already exists", {}, shown_);
        }
        if (purpose == Purpose::Create) {
            return;
        }
        stream_.reset(
            Platform::FileOpenIn(folder_.get(), name_, Platform::OpenAs::CreateNew, error));
        if (!stream_ && Is(error, Platform::ErrorKind::Exists)) {
            throw Exception(CANNOT_REMOVE_FILE, "archive already exists", {}, shown_);
        }
        if (!stream_ || !Platform::FileFactsOf(stream_.get(), facts_, error)) {
            throw Exception(INTERNAL_INCONSISTENCY, "failed to open archive", Cause(error), shown_);
        }
        writable_ = true;
        Lock(true);
        return;
    }
    stream_.reset(Platform::FileOpenIn(folder_.get(), name_, Platform::OpenAs::ReadWrite, error));
    writable_ = stream_ != nullptr;
    if (!stream_ && Is(error, Platform::ErrorKind::NotFound)) {
        throw Exception(PACKAGE_NOT_FOUND, "no such archive", Cause(error), shown_);
    }
    const int writeError = error;
    if (!stream_ && Is(error, Platform::ErrorKind::Denied)) {
        LogWarn(Format("failed to open archive for read-write, retrying with read-only mode: "
                       "\"%s\"",
                       shown_.c_str()));
        stream_.reset(Platform::FileOpenIn(folder_.get(), name_, Platform::OpenAs::Read, error));
    }
    if (!stream_) {
        // Where a folder stands in the package's place (Windows opens none), say so.
        Platform::FileFacts there;
        int ignored = 0;
        const bool folder = Platform::FileFactsIn(folder_.get(), name_, there, ignored) &&
                            !there.regular && writeError == error;
        throw Exception(INTERNAL_INCONSISTENCY, "failed to open archive",
                        folder ? std::make_error_code(std::errc::is_a_directory) : Cause(error),
                        shown_);
    }
    if (!Platform::FileFactsOf(stream_.get(), facts_, error)) {
        throw Exception(INTERNAL_INCONSISTENCY, "failed to open archive", Cause(error), shown_);
    }
    if (!facts_.regular) {
        // Nothing that is not a regular file reads as a zip, and nothing may wait on one.
        throw Exception(CANNOT_OPEN_FILE_PCK, "failed to open unzip handle", Cause(writeError),
                        shown_);
    }
    if (purpose == Purpose::Change && !writable_) {
        // A read-only package fails where its first write would, before any journal exists.
        throw Exception(INTERNAL_INCONSISTENCY, "minizip returned ZIP_ERRNO", Cause(writeError),
                        shown_);
    }
    Lock(purpose == Purpose::Change);
    DealWithJournal(purpose);
}

void PackageFile::Lock(bool exclusive) {
    int error = 0;
    if (lock_ == nullptr) {
        lock_.reset(Platform::FileLockOn(stream_.get(), exclusive, error));
    } else if (exclusive != exclusive_ &&
               !Platform::FileLockConvert(lock_.get(), exclusive, error)) {
        lock_.reset();
    }
    if (lock_ == nullptr) {
        if (Platform::FileLockBusy(error)) {
            throw PackageBusy(shown_, Cause(error));
        }
        throw Exception(CANNOT_OPEN_FILE_PCK, Format("cannot lock package \"%s\"", shown_.c_str()),
                        Cause(error), shown_);
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
        throw Exception(INTERNAL_INCONSISTENCY, "failed to open archive", Cause(error), shown_);
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
