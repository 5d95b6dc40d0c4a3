#include "archive/transaction.hpp"

#include "archive/minizip/bytes.hpp"
#include "archive/minizip/stream_access.hpp"
#include "archive/recovery.hpp"
#include "platform/platform.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/log.hpp"
#include "support/utf8_path.hpp"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <map>
#include <random>

namespace QOB {
namespace {

namespace JF = JournalFormat;

// The transactions of the calling thread, by package path: calls on other threads and in
// other processes coordinate through the package's lock, never through this.
std::map<std::filesystem::path, Transaction*>& Registry() {
    thread_local std::map<std::filesystem::path, Transaction*> registry;
    return registry;
}

std::filesystem::path Key(const std::filesystem::path& package) {
    std::error_code error;
    std::filesystem::path absolute = std::filesystem::absolute(package, error);
    return (error ? package : absolute).lexically_normal();
}

std::uint64_t NewNonce() {
    std::random_device device;
    return (std::uint64_t{device()} << 32) | device();
}

[[noreturn]] void FlushFailed(const char* what, int error, const std::string& subject) {
    throw Exception(INTERNAL_INCONSISTENCY, Format("failed to flush %s to disk", what),
                    Platform::SystemError(error), subject);
}

} // namespace

Transaction::Transaction(const std::filesystem::path& package, Kind kind)
    : key_(Key(package)), kind_(kind), base_(MiniZip::FileFunctions()) {
    if (Registry().count(key_) > 0) {
        return; // nested: the outer transaction owns the change
    }
    if (kind_ == Kind::Change) {
        file_ = std::make_unique<PackageFile>(package, PackageFile::Purpose::Change);
    } else {
        file_ = std::make_unique<PackageFile>(package, PackageFile::Purpose::Create);
        int error = 0;
        staged_.reset(Platform::FileCreateStaged(file_->Folder(), file_->Name(), staging_, error));
        if (!staged_) {
            throw Exception(INTERNAL_INCONSISTENCY, "failed to open archive",
                            Platform::SystemError(error), file_->Shown());
        }
        // Locked before it has a name: nobody can open it as a package before it is whole.
        int ignored = 0; // a file nobody else can reach yet cannot be busy
        stagedLock_.reset(Platform::FileLockOn(staged_.get(), true, ignored));
    }
    Registry()[key_] = this;
    owner_ = true;
}

Transaction::~Transaction() {
    if (!owner_) {
        return;
    }
    if (!committed_) {
        RollBack();
    }
    Registry().erase(key_);
}

Transaction* Transaction::Find(const std::filesystem::path& package) {
    const auto found = Registry().find(Key(package));
    return found != Registry().end() ? found->second : nullptr;
}

void* Transaction::NewStream() {
    Platform::FileStream* stream =
        Platform::FileShare(kind_ == Kind::Create ? staged_.get() : file_->Stream());
    if (stream == nullptr) {
        throw std::bad_alloc();
    }
    return stream;
}

MiniZip::zlib_filefunc_def Transaction::FileFunctions() noexcept {
    if (kind_ == Kind::Create) {
        return base_; // a new file is thrown away whole on failure
    }
    MiniZip::zlib_filefunc_def table = base_;
    table.zopen_file = [](void*, const char*, int) -> void* { return nullptr; };
    table.zread_file = &Transaction::Read;
    table.zwrite_file = &Transaction::Write;
    table.ztell_file = [](void* opaque, void* stream) {
        const auto* self = static_cast<Transaction*>(opaque);
        return self->base_.ztell_file(self->base_.opaque, stream);
    };
    table.zseek_file = &Transaction::Seek;
    table.zclose_file = [](void* opaque, void* stream) {
        const auto* self = static_cast<Transaction*>(opaque);
        return self->base_.zclose_file(self->base_.opaque, stream);
    };
    table.zerror_file = [](void* opaque, void* stream) {
        const auto* self = static_cast<Transaction*>(opaque);
        return self->base_.zerror_file(self->base_.opaque, stream);
    };
    table.ztruncate_file = &Transaction::Truncate;
    table.opaque = this;
    return table;
}

std::uint32_t Transaction::Read(void* opaque, void* stream, void* buffer, std::uint32_t size) {
    const auto* self = static_cast<Transaction*>(opaque);
    if (self->cut_) {
        const auto position =
            MiniZip::PositionFromTell(self->base_.ztell_file(self->base_.opaque, stream));
        if (!position || *position >= *self->cut_) {
            return 0;
        }
        size = static_cast<std::uint32_t>(std::min<std::uint64_t>(size, *self->cut_ - *position));
    }
    return self->base_.zread_file(self->base_.opaque, stream, buffer, size);
}

long Transaction::Seek(void* opaque, void* stream, std::uint32_t offset, int origin) {
    const auto* self = static_cast<Transaction*>(opaque);
    if (self->cut_ && origin == MiniZip::kSeekEnd) {
        // Distances from the end are negative, as 32-bit two's complement.
        const std::int64_t target =
            static_cast<std::int64_t>(*self->cut_) + static_cast<std::int32_t>(offset);
        if (target < 0 || target > 0xFFFFFFFF) {
            return -1;
        }
        return self->base_.zseek_file(self->base_.opaque, stream,
                                      static_cast<std::uint32_t>(target), MiniZip::kSeekSet);
    }
    return self->base_.zseek_file(self->base_.opaque, stream, offset, origin);
}

std::uint32_t Transaction::Write(void* opaque, void* stream, const void* buffer,
                                 std::uint32_t size) {
    auto* self = static_cast<Transaction*>(opaque);
    const auto position =
        MiniZip::PositionFromTell(self->base_.ztell_file(self->base_.opaque, stream));
    if (!position) {
        return 0;
    }
    const std::uint64_t offset = *position;
    // Behind a pending cut the old bytes are still there, not the zeros a real cut leaves.
    if ((self->cut_ && offset > *self->cut_) || !self->Protect(stream, offset, offset + size)) {
        self->failed_ = true;
        return 0;
    }
    const std::uint32_t written = self->base_.zwrite_file(self->base_.opaque, stream, buffer, size);
    self->length_ = std::max(self->length_, offset + written);
    if (self->cut_) {
        self->cut_ = std::max(*self->cut_, offset + written);
        if (*self->cut_ >= self->length_) {
            self->cut_.reset(); // written up to the real end: nothing is left to cut
        }
    }
    return written;
}

int Transaction::Truncate(void* opaque, void* stream, std::uint32_t newSize) {
    auto* self = static_cast<Transaction*>(opaque);
    if (!self->Protect(stream, newSize, newSize)) { // begins the journal
        return -5;
    }
    if (newSize <= self->cut_.value_or(self->length_)) {
        if (newSize < self->length_) {
            self->cut_ = newSize;
        } else {
            self->cut_.reset();
        }
        return 0;
    }
    if (self->cut_) {
        self->failed_ = true; // growing again over old bytes: never asked for
        return -5;
    }
    // Growth needs no record.
    const int result = self->base_.ztruncate_file(self->base_.opaque, stream, newSize);
    if (result == 0) {
        self->length_ = newSize;
    }
    return result;
}

bool Transaction::Protect(void* stream, std::uint64_t begin, std::uint64_t end) noexcept {
    if (failed_ || committed_) {
        return false;
    }
    try {
        ProtectOrThrow(stream, begin, end);
        return true;
    } catch (...) {
        // Nothing more may change: what the journal holds is all a rollback can restore.
        failed_ = true;
        return false;
    }
}

std::uint64_t Transaction::DirectoryStart(void* stream) {
    constexpr std::uint32_t kEndRecord = 22;
    if (original_ < kEndRecord) {
        return original_;
    }
    MiniZip::StreamAccess file(base_, stream);
    const auto back = file.Tell();
    std::uint8_t record[kEndRecord] = {};
    const bool read = file.ReadAt(original_ - kEndRecord, record, kEndRecord);
    if (!back || !file.SeekTo(*back)) {
        throw Exception(INTERNAL_INCONSISTENCY, "failed to seek");
    }
    const std::uint64_t size = MiniZip::Bytes::Get32(record + 12);
    const std::uint64_t start = MiniZip::Bytes::Get32(record + 16);
    if (!read || MiniZip::Bytes::Get32(record) != 0x06054B50 ||
        start + size + kEndRecord != original_) {
        return original_;
    }
    return start;
}

bool Transaction::Saved(std::uint64_t begin, std::uint64_t end) const noexcept {
    for (const auto& [from, to] : saved_) {
        if (begin >= end) {
            break;
        }
        if (from <= begin && begin < to) {
            begin = to;
        }
    }
    return begin >= end;
}

void Transaction::BeginJournal(void* stream) {
    Platform::FileFacts facts;
    int error = 0;
    if (!Platform::FileFactsOf(file_->Stream(), facts, error)) {
        throw Exception(CANNOT_READ_FILE_PCK, "failed to examine package");
    }
    original_ = facts.size;
    if (original_ > 0xFFFFFFFFu) {
        throw Exception(INVALID_PARAMETER, "package too large to change");
    }
    length_ = original_;
    JF::Header header;
    header.original = original_;
    header.nonce = NewNonce();
    header.nameCrc = JF::NameCrc(file_->Name());
    std::uint8_t end[JF::kEndBytes] = {};
    const auto tail = static_cast<std::uint32_t>(std::min<std::uint64_t>(original_, JF::kEndBytes));
    MiniZip::StreamAccess file(base_, stream);
    const auto back = file.Tell();
    if (!back || !file.ReadAt(original_ - tail, end, tail) || !file.SeekTo(*back)) {
        throw Exception(CANNOT_READ_FILE_PCK, "failed to read package for the journal");
    }
    header.endCrc = JF::Crc(end, tail);
    std::vector<std::uint8_t> start(
        static_cast<std::size_t>(std::min<std::uint64_t>(original_, JF::kStartBytes)));
    if (!file.ReadAt(0, start.data(), static_cast<std::uint32_t>(start.size())) ||
        !file.SeekTo(*back)) {
        throw Exception(CANNOT_READ_FILE_PCK, "failed to read package for the journal");
    }
    header.startCrc = JF::Crc(start.data(), static_cast<std::uint32_t>(start.size()));
    const std::string folder = file_->ShownFolder();
    const std::string name = JournalName(file_->Name());
    journal_ = std::make_unique<JournalWriter>(
        file_->Folder(), name, folder.empty() ? name : folder + "/" + name, facts, header);
}

void Transaction::ProtectOrThrow(void* stream, std::uint64_t begin, std::uint64_t end) {
    const bool first = !journal_;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> wanted;
    if (first) {
        BeginJournal(stream);
        wanted.emplace_back(DirectoryStart(stream), original_);
    }
    std::uint64_t stop = end;
    if (begin != runEnd_) {
        runStart_ = begin;
    } else if (!Saved(begin, std::min(end, original_))) {
        stop = std::max(end, begin + (begin - runStart_));
    }
    runEnd_ = end;
    wanted.emplace_back(begin, std::min(stop, original_)); // growth needs no record
    bool appended = false;
    for (const auto& [from, to] : wanted) {
        // The parts of [from, to) not saved yet, in order.
        std::uint64_t cursor = from;
        for (std::size_t i = 0; i <= saved_.size() && cursor < to; ++i) {
            const std::uint64_t gapEnd = i < saved_.size() ? std::min(saved_[i].first, to) : to;
            if (cursor < gapEnd) {
                const long back = base_.ztell_file(base_.opaque, stream);
                if (back == -1) {
                    throw Exception(CANNOT_READ_FILE_PCK, "failed to seek");
                }
                journal_->Append(base_, stream, static_cast<std::uint32_t>(cursor),
                                 static_cast<std::uint32_t>(gapEnd - cursor),
                                 static_cast<std::uint32_t>(back));
                saved_.insert(saved_.begin() + static_cast<std::ptrdiff_t>(i), {cursor, gapEnd});
                appended = true;
                ++i;
            }
            if (i < saved_.size()) {
                cursor = std::max(cursor, saved_[i].second);
            }
        }
    }
    if (!first && !appended) {
        return;
    }
    journal_->Sync();
    if (first) {
        journal_->Publish();
        // The journal's name must be durable before the package changes.
        int error = 0;
        if (!Platform::FolderSync(file_->Folder(), error)) {
            FlushFailed("the folder of the journal", error, file_->Shown());
        }
    }
}

void Transaction::Commit() {
    if (!owner_) {
        return;
    }
    if (kind_ == Kind::Create) {
        CommitNew();
        return;
    }
    if (failed_) {
        // A write was refused: whatever the call made of that, it did not happen whole.
        throw Exception(INTERNAL_INCONSISTENCY, "failed to write journal");
    }
    if (!journal_) {
        committed_ = true; // nothing was written
        return;
    }
    Platform::FileStream* package = file_->Stream();
    int error = 0;
    // The new bytes must be on the device before the closing record says they are whole.
    if (!Platform::FileSyncData(package, error)) {
        FlushFailed("package", error, file_->Shown());
    }
    try {
        journal_->Finish(cut_.value_or(length_));
    } catch (...) {
        if (journal_->Retract()) {
            throw; // without its closing record the journal rolls the change back
        }
        // The record stays: the change is decided, and recovery completes it.
    }
    // Decided: from here on a failure is the next open's to finish, not this call's to report.
    committed_ = true;
    if (cut_) {
        MiniZip::StreamAccess file(base_, package);
        if (file.Truncate(static_cast<std::uint32_t>(*cut_)) != 0 ||
            !Platform::FileSyncData(package, error)) {
            return;
        }
        length_ = *cut_;
    }
    journal_->Remove();
    journal_.reset();
}

void Transaction::CommitNew() {
    Platform::FileStream* stream = staged_.get();
    int error = 0;
    if (!Platform::FileSyncData(stream, error)) {
        FlushFailed("package", error, file_->Shown());
    }
    switch (Platform::FileGiveName(stream, file_->Folder(), staging_, file_->Name(), error)) {
    case Platform::MoveResult::Moved:
        break;
    case Platform::MoveResult::TargetExists:
        throw Exception(CANNOT_REMOVE_FILE, "archive already exists", {}, file_->Shown());
    case Platform::MoveResult::Failed:
        throw Exception(INTERNAL_INCONSISTENCY, "failed to move package into place",
                        Platform::SystemError(error), file_->Shown());
    }
    staging_.clear();
    if (!Platform::FolderSync(file_->Folder(), error)) {
        // Not durable: take the name back, so that the call fails whole.
        Platform::FileFacts facts;
        int ignored = 0;
        if (Platform::FileFactsOf(stream, facts, ignored)) {
            Platform::FileRemoveIn(file_->Folder(), file_->Name(), facts, ignored);
        }
        FlushFailed("the folder of the package", error, file_->Shown());
    }
    committed_ = true;
}

void Transaction::RollBack() noexcept {
    try {
        if (kind_ == Kind::Create) {
            Platform::FileFacts facts;
            int error = 0;
            if (!staging_.empty() && Platform::FileFactsOf(staged_.get(), facts, error)) {
                Platform::FileRemoveIn(file_->Folder(), staging_, facts, error);
            }
            return;
        }
        if (!journal_ || !journal_->Published()) {
            if (journal_) {
                journal_->Remove();
            }
            return; // the package was never touched
        }
        const Platform::FileFacts ours = journal_->Facts();
        journal_.reset();
        Platform::FileFacts facts;
        int error = 0;
        if (!Platform::FileFactsOf(file_->Stream(), facts, error)) {
            return;
        }
        JournalLookup lookup = FindJournal(file_->Folder(), file_->Name(), file_->ShownFolder(),
                                           file_->Stream(), facts, &ours);
        if (lookup.state == JournalState::Found) {
            Repair(*file_, *lookup.journal, false);
        }
        LogDebug(Format("rolled back the change of package \"%s\"", file_->Shown().c_str()));
    } catch (...) {
        // The journal stays: the next call on the package rolls back.
    }
}

} // namespace QOB
