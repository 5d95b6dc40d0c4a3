// One exported call's change to one package, made atomic and durable: it either commits
// whole or leaves the package byte for byte as it was, whatever fails, wherever the process
// dies and whenever the power goes; and nothing that another user of the machine leaves
// beside the package can change it.
//
// Design notes
// ------------
// Files. A package is opened once, through its folder (package_file.hpp); the journal,
// "<package>-journal", and a new package's staging file live in that folder and are only
// ever reached through the folder's and their own descriptors, never through a link, never
// waiting on a FIFO. A new package is an unnamed file (or a fresh random ".<name>.*.partial"
// where the system has none) that gets its name only when complete, never over an existing
// name. An existing package is changed in place behind the journal (journal_format.hpp): the
// I/O table that the call's archives use saves the original bytes of every region a write is
// about to change, durably, the first time that region is touched. A cut is not made until
// the commit: until then the table shows the file as cut, so the bytes behind it need no copy.
//
// States of a change, and what a crash in each leaves:
//
//   CLEAN ---first write---> JOURNALED ---package flushed, closing record flushed---> DECIDED
//     ^                          |                                                      |
//     |                      rollback                                     cut, journal deleted
//     +--------------------------+------------------------------------------------------+
//
//   CLEAN      no journal: the package is as it was.
//   JOURNALED  a journal whose header is valid: roll back (apply every record up to the
//              first torn one, cut to the original length), then delete the journal. A
//              journal without a valid header was never flushed, so the package was never
//              touched: it is deleted.
//   DECIDED    a journal with a closing record: the change is complete but for its cut; make
//              the cut, then delete the journal. A SUCCESS is returned only from here on, so
//              a power cut never brings the old package back.
//
// Who may do what. A journal is trusted only when it proves it belongs (journal_reading.cpp):
// a regular file with one link, owned by a user who may write the package and writable by
// nobody else, of this format version, bound to the package's name and original end, and
// with plausible records. Anything else makes the call fail with CANNOT_READ_FILE_PCK and a
// message naming the journal and the check; it is neither applied nor deleted. A trusted
// journal is applied in place by a change (which holds the package's exclusive lock and can
// write it) and by a reader who owns the package and opened it for writing; every other
// reader (another user, root reading someone else's package, an owner of a read-only
// package) reads the package through the journal (recovery.hpp's overlay) and writes nothing.
// A change that fails leaves no journal behind; a change that cannot write the package
// fails before it creates one.
//
// Calls nest: a removal reads the package's description while it changes it. Transactions
// are known to the calling thread by package path for the duration of the call, so that
// every archive the call opens on that path writes through the same journal.
#pragma once

#include "archive/journal.hpp"
#include "archive/minizip/io.hpp"
#include "archive/package_file.hpp"

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace QOB {

class Transaction {
public:
    enum class Kind { Create, Change };

    // Opens the package (Change: exclusively, repairing what an interrupted call left; Create:
    // a new unnamed file beside the free name). A second transaction on a path that already
    // has one on this thread (a nested call) is a no-op: the outer one owns the change.
    Transaction(const std::filesystem::path& package, Kind kind);
    // Without Commit: a new package is discarded; a change is rolled back.
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // Makes the change durable and final. Every archive on the path must be closed by now.
    void Commit();

    // The transaction of this thread that owns the path, if any.
    static Transaction* Find(const std::filesystem::path& package);
    bool Creates() const noexcept { return kind_ == Kind::Create; }
    // The I/O table and a new stream for one archive handle on the package (or new file).
    MiniZip::zlib_filefunc_def FileFunctions() noexcept;
    void* NewStream();

private:
    static std::uint32_t Read(void* opaque, void* stream, void* buffer, std::uint32_t size);
    static long Seek(void* opaque, void* stream, std::uint32_t offset, int origin);
    static std::uint32_t Write(void* opaque, void* stream, const void* buffer, std::uint32_t size);
    static int Truncate(void* opaque, void* stream, std::uint32_t newSize);
    // Journals what is needed before the package's bytes [begin, end) may change.
    bool Protect(void* stream, std::uint64_t begin, std::uint64_t end) noexcept;
    void ProtectOrThrow(void* stream, std::uint64_t begin, std::uint64_t end);
    void BeginJournal(void* stream);
    // Whether the journal holds all of [begin, end) already.
    bool Saved(std::uint64_t begin, std::uint64_t end) const noexcept;
    // The central directory and end record, when the file ends with them: every change
    // rewrites them, so they are saved with the first record and share its flush.
    std::uint64_t DirectoryStart(void* stream);
    void CommitNew();
    void RollBack() noexcept;

    std::filesystem::path key_;
    Kind kind_;
    bool owner_ = false;
    bool committed_ = false;
    bool failed_ = false;
    MiniZip::zlib_filefunc_def base_{};
    std::unique_ptr<PackageFile> file_;
    // A new package: its file, where it is staged under a name (empty: unnamed), its lock.
    StreamPtr staged_;
    std::string staging_;
    LockPtr stagedLock_;
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

} // namespace QOB
