// The rollback journal beside a package, "<package>-journal": the package's length before a
// change and the original bytes of every region the change overwrites (layout:
// journal_format.hpp). transaction.hpp says when it is written, trusted, overlaid and applied.
#pragma once

#include "archive/journal_format.hpp"
#include "archive/minizip/io.hpp"
#include "platform/platform.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace QOB {

// Closes a platform stream or folder when it goes out of scope.
struct StreamCloser {
    void operator()(Platform::FileStream* stream) const noexcept;
};
using StreamPtr = std::unique_ptr<Platform::FileStream, StreamCloser>;

std::string JournalName(const std::string& packageName);

// Writes one new journal. Every failure throws QOB::Exception; nothing is durable until Sync.
class JournalWriter {
public:
    // Creates the journal as a new file without its name (never over an existing file, never
    // through a link) with the package's permission bits, owner and group where the caller
    // may give them, and writes its header. It gets its name with Publish, once its first
    // batch is on the device: a journal is never seen under its name before its header and
    // first records are whole, so blocks of an earlier journal can never pass for them.
    JournalWriter(Platform::Folder* folder, std::string name, std::string shown,
                  const Platform::FileFacts& package, const JournalFormat::Header& header);
    ~JournalWriter();
    JournalWriter(const JournalWriter&) = delete;
    JournalWriter& operator=(const JournalWriter&) = delete;

    // Appends the package's bytes [offset, offset + length), read through packageStream of
    // the table io, as one record; the package stream is left at position `back`.
    void Append(const MiniZip::zlib_filefunc_def& io, void* packageStream, std::uint32_t offset,
                std::uint32_t length, std::uint32_t back);
    // Makes everything appended durable; the next records form a new batch.
    void Sync();
    // Gives the journal its name, never over an existing file.
    void Publish();
    bool Published() const noexcept { return published_; }
    // Appends and flushes the closing record: the change is complete once the package is
    // `length` long.
    void Finish(std::uint64_t length);
    // Takes the closing record back, so that recovery rolls the change back again. False
    // when the record is still there: recovery will complete the change.
    bool Retract() noexcept;
    // Deletes the journal, which this writer made (named or not); false when it could not.
    bool Remove() noexcept;
    std::size_t Records() const noexcept { return records_; }
    // The journal file this writer made.
    const Platform::FileFacts& Facts() const noexcept { return facts_; }

private:
    void Put(const void* bytes, std::uint32_t size);

    Platform::Folder* folder_;
    std::string name_;
    std::string shown_;
    std::string staging_; // the journal's name until it is published; empty when unnamed
    bool published_ = false;
    StreamPtr stream_;
    Platform::FileFacts facts_;
    MiniZip::zlib_filefunc_def io_;
    JournalFormat::Header header_;
    std::uint32_t batch_ = 1;
    std::size_t records_ = 0;
    // Where the closing record starts, once written.
    std::uint64_t finishedAt_ = 0;
};

// One saved region of the package: its place in the package and where its bytes are in the
// journal.
struct JournalRecord {
    std::uint64_t offset;
    std::uint64_t length;
    std::uint64_t data;
};

// A journal found beside a package, read whole and proven to belong to it (transaction.hpp
// lists the checks). It describes the package as it must be read: its original bytes where
// the records saved them and its length, or, for a change that was committed but for its
// cut, the package's own bytes up to the new length.
class Journal {
public:
    std::uint64_t Length() const noexcept { return closing_ ? *closing_ : original_; }
    bool Committed() const noexcept { return closing_.has_value(); }
    // Sorted by offset, disjoint; empty when committed.
    const std::vector<JournalRecord>& Records() const noexcept { return records_; }
    // Reads the package as the journal describes it, [position, position + size) within
    // Length(), the package's bytes through packageStream of the table io.
    bool ReadAt(const MiniZip::zlib_filefunc_def& io, void* packageStream, std::uint64_t position,
                void* buffer, std::uint32_t size);
    const Platform::FileFacts& Facts() const noexcept { return facts_; }
    const std::string& Shown() const noexcept { return shown_; }

private:
    friend class JournalReading;
    StreamPtr stream_;
    Platform::FileFacts facts_;
    std::string shown_;
    std::uint64_t original_ = 0;
    std::optional<std::uint64_t> closing_;
    std::vector<JournalRecord> records_;
};

enum class JournalState {
    None,  // no journal beside the package
    Stale, // a journal without a valid header: written before the package was touched
    Found, // a journal that belongs to the package
};

struct JournalLookup {
    JournalState state = JournalState::None;
    std::unique_ptr<Journal> journal; // when Found
    Platform::FileFacts facts;        // of the stale journal, for its removal
};

// Looks for the journal of the package `name` in folder and proves it belongs, reading the
// package through packageStream. A journal that fails a check throws CANNOT_READ_FILE_PCK
// with `journal "<shown>" refused: <check>`; it is neither applied nor deleted. A journal that
// is the file `ours` (the caller's own, rolling back its failed change) need not prove who
// made it: a caller who may write the package but is neither its owner nor in its group
// must still undo what it did.
JournalLookup FindJournal(Platform::Folder* folder, const std::string& name,
                          const std::string& shownFolder, void* packageStream,
                          const Platform::FileFacts& package,
                          const Platform::FileFacts* ours = nullptr);

} // namespace QOB
