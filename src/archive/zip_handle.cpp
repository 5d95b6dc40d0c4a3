#include "archive/zip_handle.hpp"

#include "archive/defer.hpp"
#include "archive/minizip/unzip.hpp"
#include "archive/minizip/zip.hpp"
#include "archive/package_file.hpp"
#include "archive/transaction.hpp"
#include "archive/zip_results.hpp"
#include "platform/platform.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/log.hpp"
#include "support/utf8_path.hpp"

#include <system_error>

namespace QOB::MiniZip {
namespace {

bool IsEmpty(void* unzip) {
    unz_global_info info{};
    return unzGetGlobalInfo(unzip, &info) == UNZ_OK && info.number_entry == 0;
}

} // namespace

Handle::Handle(const std::filesystem::path& path, bool should_exist) : path_(PathToUtf8(path)) {
    const std::string trail =
        Format("in Handle path=\"%s\" should_exist=%s", path_.c_str(), should_exist ? "yes" : "no");
    QOB_FAILURE_TRAIL(trail);

    // Inside a changing call the file goes through that call's transaction; any other open
    // opens the package once for reading, dealing first with what a dead process left.
    void* stream = nullptr;
    bool exists = true;
    if (Transaction* transaction = Transaction::Find(path)) {
        exists = !transaction->Creates();
        raw_ = transaction->FileFunctions();
        stream = transaction->NewStream();
    } else {
        // Packages are made inside a transaction, which stages them; an archive built outside
        // one is written in place.
        exists = should_exist;
        package_ = std::make_unique<PackageFile>(path, should_exist ? PackageFile::Purpose::Read
                                                                    : PackageFile::Purpose::New);
        if (package_->Facts().size > 0xFFFFFFFFu) {
            LogWarn(Format("archive requires 64-bit ZIP support: \"%s\"", path_.c_str()));
        }
        raw_ = package_->Functions();
        stream = package_->NewStream();
    }
    if (should_exist != exists) {
        throw Exception(INTERNAL_INCONSISTENCY, "archive opened for the wrong purpose");
    }
    try {
        Construct(stream, raw_, exists);
    } catch (...) {
        raw_.zclose_file(raw_.opaque, stream);
        stream_ = nullptr;
        throw;
    }
}

Handle::~Handle() {
    try {
        Flush();
    } catch (...) {
    }
    if (std::holds_alternative<UnzipOpenState>(state_)) {
        try {
            UnzipClose();
        } catch (...) {
        }
    }
    if (stream_ != nullptr) {
        raw_.zclose_file(raw_.opaque, stream_);
    }
}

void Handle::Construct(void* stream, zlib_filefunc_def raw, bool exists) {
    QOB_FAILURE_TRAIL("in Handle::Construct");
    stream_ = stream;
    raw_ = raw;
    cache_ = std::make_unique<ReadCache>();
    cache_->stream = stream;
    cache_->raw = raw;
    buffered_ = BufferedFileFunctions(cache_.get());
    exists_ = exists;
    if (exists_) {
        UnzipOpen();
    }
}

void* Handle::Zip() {
    QOB_FAILURE_TRAIL("in Handle::Zip");
    if (std::holds_alternative<UnzipOpenState>(state_)) {
        UnzipClose();
    }
    if (std::holds_alternative<std::monostate>(state_)) {
        ZipOpen();
    }
    return std::get<ZipOpenState>(state_).file;
}

void* Handle::Unzip() {
    QOB_FAILURE_TRAIL("in Handle::Unzip");
    if (std::holds_alternative<ZipOpenState>(state_)) {
        ZipClose();
    }
    if (std::holds_alternative<std::monostate>(state_) && !exists_) {
        // A new archive that nothing was written to yet reads as an empty zip: writing its
        // (empty) directory makes it one, so a lookup answers "not there".
        ZipOpen();
        ZipClose();
    }
    if (std::holds_alternative<std::monostate>(state_)) {
        UnzipOpen();
    }
    return std::get<UnzipOpenState>(state_).file;
}

void Handle::Flush() {
    QOB_FAILURE_TRAIL("in Handle::Flush");
    if (std::holds_alternative<ZipOpenState>(state_)) {
        ZipClose();
        // Reading the result back at once makes a broken archive fail the change that
        // broke it, not some later call. The reader stays open for the reads that follow.
        UnzipOpen();
    }
}

void Handle::ZipOpen() {
    QOB_FAILURE_TRAIL("in Handle::ZipOpen");
    ResetSeek();
    void* zip = zipOpen2(nullptr, exists_ ? APPEND_STATUS_ADDINZIP : APPEND_STATUS_CREATE, nullptr,
                         &buffered_);
    if (zip == nullptr) {
        throw Exception(CANNOT_OPEN_FILE_PCK, "failed to open zip handle");
    }
    state_ = ZipOpenState{zip};
}

void Handle::ZipClose() {
    QOB_FAILURE_TRAIL("in Handle::ZipClose");
    void* zip = std::get<ZipOpenState>(state_).file;
    const int result = zipClose(zip, nullptr);
    state_ = std::monostate{};
    if (result != ZIP_OK) {
        CheckZipResult(result);
        throw Exception(INTERNAL_INCONSISTENCY, "failed to close zip handle");
    }
    exists_ = true;
}

void Handle::UnzipOpen() {
    QOB_FAILURE_TRAIL("in Handle::UnzipOpen");
    ResetSeek();
    void* unzip = unzOpen2(nullptr, &buffered_);
    if (unzip == nullptr) {
        throw Exception(CANNOT_OPEN_FILE_PCK, "failed to open unzip handle");
    }
    // An archive without entries is a valid, empty zip (all that is left after removing the
    // last entry): there is just no first entry to stand on.
    const int result = unzGoToFirstFile(unzip);
    if (result != UNZ_OK && !(result == UNZ_END_OF_LIST_OF_FILE && IsEmpty(unzip))) {
        unzClose(unzip);
        CheckUnzipResult(result);
        throw Exception(INTERNAL_INCONSISTENCY, "failed to open unzip handle");
    }
    state_ = UnzipOpenState{unzip};
}

void Handle::UnzipClose() {
    QOB_FAILURE_TRAIL("in Handle::UnzipClose");
    void* unzip = std::get<UnzipOpenState>(state_).file;
    state_ = std::monostate{};
    const int result = unzip != nullptr ? unzClose(unzip) : UNZ_PARAMERROR;
    if (result != UNZ_OK) {
        CheckUnzipResult(result);
        throw Exception(INTERNAL_INCONSISTENCY, "failed to close unzip handle");
    }
}

void Handle::ResetSeek() {
    QOB_FAILURE_TRAIL("in Handle::ResetSeek");
    if (raw_.zseek_file(raw_.opaque, stream_, 0, kSeekSet) != 0) {
        throw Exception(CANNOT_READ_FILE_PCK, "failed to seek");
    }
}

} // namespace QOB::MiniZip
