// One exported call's change to one package, made atomic: it either commits whole or leaves
// the package byte for byte as it was, whatever fails and wherever the process dies.
//
// A new package is written under a staging name beside its path and moved into place,
// never over an existing file, only when complete. An existing package is changed in
// place behind a rollback journal (archive/journal.hpp): the I/O table that archives opened
// during the call use saves the original bytes of every region a write is about to change
// into the journal, durably, the first time that region is touched. A cut is not made
// until the commit: until then the table shows the file as cut (reads stop and the end is
// there), so the bytes behind it stay where they are and need no copy.
//
// Transactions are registered by package path for the duration of the call, so that
// every archive the call opens on that path (several, one after another or nested) writes
// through the same journal, and none of them mistakes it for one left by a dead process.
#pragma once

#include "archive/journal.hpp"
#include "archive/minizip/io.hpp"
#include "archive/package_lock.hpp"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace QOB {

class Transaction {
public:
    enum class Kind { Create, Change };

    // Rolls back what an interrupted call left on this path first. A second transaction on
    // a path that already has one (a nested call) is a no-op: the outer one owns the change.
    Transaction(const std::filesystem::path& package, Kind kind);
    // Without Commit: a staged new package is deleted; a change is rolled back.
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // Makes the change durable and final. Every archive on the path must be closed by now.
    void Commit();

    // The transaction of this process that owns the path, if any.
    static Transaction* Find(const std::filesystem::path& package);
    // The file an archive on the package path opens: the staging file for a new package.
    const std::filesystem::path& File() const noexcept;
    // The I/O table for archives on the path.
    MiniZip::zlib_filefunc_def FileFunctions() noexcept;

private:
    static std::uint32_t Read(void* opaque, void* stream, void* buffer, std::uint32_t size);
    static long Seek(void* opaque, void* stream, std::uint32_t offset, int origin);
    static std::uint32_t Write(void* opaque, void* stream, const void* buffer, std::uint32_t size);
    static int Truncate(void* opaque, void* stream, std::uint32_t newSize);
    // Makes the pending cut: the closing record first, then the cut itself. Throws when the
    // change is rolled back; false when the change is decided but the cut is left to recovery.
    bool Cut();
    // Journals what is needed before the package's bytes [begin, end) may change.
    bool Protect(void* stream, std::uint64_t begin, std::uint64_t end) noexcept;
    void ProtectOrThrow(void* stream, std::uint64_t begin, std::uint64_t end);
    // Whether the journal holds all of [begin, end) already.
    bool Saved(std::uint64_t begin, std::uint64_t end) const noexcept;
    // The central directory and end record, when the file ends with them: every change
    // rewrites them, so they are saved with the first record and share its flush.
    std::uint64_t DirectoryStart(void* stream);
    void RollBack() noexcept;
    // The change is committed but its journal still stands: completes it, or leaves that to
    // the next call on the package.
    void Decided() noexcept;

    std::filesystem::path key_;
    std::filesystem::path package_;
    std::filesystem::path staging_;
    Kind kind_;
    bool owner_ = false;
    bool committed_ = false;
    bool failed_ = false;
    MiniZip::zlib_filefunc_def base_{};
    // Held by the owner of a change from before recovery until after commit or rollback.
    PackageLock lock_;
    std::unique_ptr<JournalWriter> journal_;
    std::uint64_t original_ = 0;
    // The file's real length, once the journal is begun, and the length it is to be cut to.
    std::uint64_t length_ = 0;
    std::optional<std::uint64_t> cut_;
    // A run of writes, each starting where the last ended: it is saved ahead of itself, as
    // far again as it has come, so the journal is flushed a logarithmic number of times.
    std::uint64_t runStart_ = 0;
    std::uint64_t runEnd_ = UINT64_MAX;
    // Regions of the package saved in the journal, sorted and disjoint.
    std::vector<std::pair<std::uint64_t, std::uint64_t>> saved_;
};

// For calls outside any transaction: rolls back a change interrupted by a dead process,
// logging one WARN line that names the package. Throws when that fails.
void RecoverInterruptedChange(const std::filesystem::path& package);

} // namespace QOB
