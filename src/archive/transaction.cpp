#include "archive/transaction.hpp"

#include "archive/minizip/bytes.hpp"
#include "archive/minizip/stream_access.hpp"
#include "platform/platform.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/log.hpp"
#include "support/utf8_path.hpp"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <map>
#include <mutex>

namespace QOB {
namespace {

std::mutex g_registryMutex;
std::map<std::filesystem::path, Transaction*>& Registry() {
    static auto* registry = new std::map<std::filesystem::path, Transaction*>();
    return *registry;
}

std::filesystem::path Key(const std::filesystem::path& package) {
    std::error_code error;
    std::filesystem::path absolute = std::filesystem::absolute(package, error);
    return (error ? package : absolute).lexically_normal();
}

std::filesystem::path StagingPath(const std::filesystem::path& package) {
    std::filesystem::path staging = package;
    staging += "-partial";
    return staging;
}

void RollBackLogged(const MiniZip::zlib_filefunc_def& io, const std::filesystem::path& package) {
    // A staging file can only be left by a create that died; under the machine-wide lock
    // no other call is writing it.
    std::error_code error;
    std::filesystem::remove(StagingPath(package), error);
    switch (RecoverFromJournal(io, package)) {
    case Recovery::RolledBack:
        LogWarn(Format("rolled back an interrupted change of package \"%s\"",
                       PathToUtf8(package).c_str()));
        break;
    case Recovery::Completed:
        LogWarn(Format("completed an interrupted change of package \"%s\"",
                       PathToUtf8(package).c_str()));
        break;
    case Recovery::NoJournal:
    case Recovery::Discarded:
        break;
    }
}

} // namespace

void RecoverInterruptedChange(const std::filesystem::path& package) {
    RollBackLogged(MiniZip::FileFunctions(), package);
}

Transaction::Transaction(const std::filesystem::path& package, Kind kind)
    : key_(Key(package)), package_(package), kind_(kind), base_(MiniZip::FileFunctions()) {
    {
        const std::lock_guard<std::mutex> lock(g_registryMutex);
        if (Registry().count(key_) > 0) {
            return; // nested: the outer transaction owns the change
        }
    }
    if (kind_ == Kind::Change) {
        // Another user's call may be reading or changing this package behind its own
        // per-user lock: wait for it. A journal found then was left by a dead process.
        lock_ = PackageLock(package_, true);
    }
    RollBackLogged(base_, package_);
    if (kind_ == Kind::Create) {
        staging_ = StagingPath(package_);
    }
    const std::lock_guard<std::mutex> lock(g_registryMutex);
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
    const std::lock_guard<std::mutex> lock(g_registryMutex);
    Registry().erase(key_);
}

Transaction* Transaction::Find(const std::filesystem::path& package) {
    const std::lock_guard<std::mutex> lock(g_registryMutex);
    const auto found = Registry().find(Key(package));
    return found != Registry().end() ? found->second : nullptr;
}

const std::filesystem::path& Transaction::File() const noexcept {
    return kind_ == Kind::Create ? staging_ : package_;
}

MiniZip::zlib_filefunc_def Transaction::FileFunctions() noexcept {
    if (kind_ == Kind::Create) {
        return base_; // a staged file is thrown away whole on failure
    }
    MiniZip::zlib_filefunc_def table = base_;
    table.zopen_file = [](void* opaque, const char* name, int mode) {
        const auto* self = static_cast<Transaction*>(opaque);
        return self->base_.zopen_file(self->base_.opaque, name, mode);
    };
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

void Transaction::ProtectOrThrow(void* stream, std::uint64_t begin, std::uint64_t end) {
    const bool first = !journal_;
    std::vector<std::pair<std::uint64_t, std::uint64_t>> wanted;
    if (first) {
        original_ = std::filesystem::file_size(package_);
        if (original_ > 0xFFFFFFFFu) {
            throw Exception(INVALID_PARAMETER, "package too large to change");
        }
        length_ = original_;
        journal_ = std::make_unique<JournalWriter>(base_, JournalPath(package_));
        if (!journal_->Begin(original_)) {
            throw Exception(INTERNAL_INCONSISTENCY, "failed to write journal");
        }
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
                if (back == -1 || !journal_->Append(stream, static_cast<std::uint32_t>(cursor),
                                                    static_cast<std::uint32_t>(gapEnd - cursor),
                                                    static_cast<std::uint32_t>(back))) {
                    throw Exception(INTERNAL_INCONSISTENCY, "failed to write journal");
                }
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
    if (!journal_->Sync()) {
        throw Exception(INTERNAL_INCONSISTENCY, "failed to write journal");
    }
    if (first) {
        // The journal's directory entry must be durable before the package changes.
        Platform::SyncDirectory(package_.parent_path());
    }
}

void Transaction::Commit() {
    if (!owner_) {
        return;
    }
    const std::filesystem::path directory = package_.parent_path();
    if (kind_ == Kind::Create) {
        if (!Platform::SyncFile(staging_)) {
            throw Exception(INTERNAL_INCONSISTENCY, "failed to flush package to disk");
        }
        switch (Platform::MoveNoReplace(staging_, package_)) {
        case Platform::MoveResult::Moved:
            break;
        case Platform::MoveResult::TargetExists:
            throw Exception(CANNOT_REMOVE_FILE, "archive already exists");
        case Platform::MoveResult::Failed:
            throw Exception(INTERNAL_INCONSISTENCY, "failed to move package into place");
        }
        committed_ = true;
        Platform::SyncDirectory(directory);
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
    // Once the package is cut, the bytes cut off are gone and the closing record can only
    // complete the change: a failure after that is the next open's to finish, not this call's.
    const bool cutting = cut_.has_value();
    if (cutting && !Cut()) {
        Decided();
        return;
    }
    journal_->Close();
    if (!Platform::SyncFile(package_)) {
        if (cutting) {
            Decided();
            return;
        }
        throw Exception(INTERNAL_INCONSISTENCY, "failed to flush package to disk");
    }
    // Deleting the journal is the commit.
    std::error_code error;
    if (!std::filesystem::remove(JournalPath(package_), error)) {
        if (cutting) {
            Decided();
            return;
        }
        throw Exception(INTERNAL_INCONSISTENCY, "failed to remove journal");
    }
    committed_ = true;
    journal_.reset();
    // The deletion is left to reach the disk in its own time: lost in a power cut, it would
    // roll back this one call, which is still all or nothing.
}

void Transaction::Decided() noexcept {
    committed_ = true;
    journal_.reset();
    try {
        RecoverFromJournal(base_, package_); // completes the change now, if it can
    } catch (...) {
        // The journal stays, with its closing record: the next call completes the change.
    }
}

bool Transaction::Cut() {
    // The new bytes must be on the device before the closing record says they are whole.
    if (!Platform::SyncFile(package_)) {
        throw Exception(INTERNAL_INCONSISTENCY, "failed to flush package to disk");
    }
    const bool finished = journal_->Finish(*cut_);
    if (!finished || !journal_->Sync()) {
        // A whole record that cannot be taken back completes the change at any recovery.
        if (!journal_->Retract() && finished) {
            return false;
        }
        throw Exception(INTERNAL_INCONSISTENCY, "failed to write journal");
    }
    bool cut = false;
    if (void* stream =
            base_.zopen_file(base_.opaque, PathToUtf8(package_).c_str(),
                             MiniZip::kOpenRead | MiniZip::kOpenWrite | MiniZip::kOpenExisting)) {
        cut = base_.ztruncate_file(base_.opaque, stream, static_cast<std::uint32_t>(*cut_)) == 0;
        base_.zclose_file(base_.opaque, stream);
    }
    if (!cut) {
        // Not cut, so nothing is lost yet: without its closing record the journal rolls the
        // change back. Should the record stay, the change is decided and recovery completes it.
        if (!journal_->Retract()) {
            return false;
        }
        throw Exception(INTERNAL_INCONSISTENCY, "failed to cut the package to its new length");
    }
    length_ = *cut_;
    return true;
}

void Transaction::RollBack() noexcept {
    try {
        if (kind_ == Kind::Create) {
            std::error_code error;
            std::filesystem::remove(staging_, error);
            return;
        }
        if (!journal_) {
            return; // the package was never touched
        }
        journal_->Close();
        journal_.reset();
        RecoverFromJournal(base_, package_);
        LogDebug(Format("rolled back the change of package \"%s\"", PathToUtf8(package_).c_str()));
    } catch (...) {
        // The journal stays: the next call on the package rolls back.
    }
}

} // namespace QOB
