// The rollback journal beside a package, "<package>-journal": the package's length before a
// change and the original bytes of every region the change overwrites, each part with its
// own CRC-32. It is durable before the package is touched, and deleting it commits the
// change. A change that shortens the package cuts it only after a closing record with the
// new length is durable: from then on recovery completes the cut instead of rolling back,
// so the bytes cut off never need a copy. The layout is documented in docs/format.md.
#pragma once

#include "archive/minizip/io.hpp"

#include <cstdint>
#include <filesystem>
#include <string>

namespace QOB {

std::filesystem::path JournalPath(const std::filesystem::path& package);

// Writes one journal through an I/O table. Nothing is durable until Sync.
class JournalWriter {
public:
    JournalWriter(const MiniZip::zlib_filefunc_def& io, std::filesystem::path journal);
    ~JournalWriter();
    JournalWriter(const JournalWriter&) = delete;
    JournalWriter& operator=(const JournalWriter&) = delete;

    // Creates the file and writes the header.
    bool Begin(std::uint64_t originalLength);
    // Appends the package's bytes [offset, offset + length), read through packageStream,
    // as one record; the package stream is left at position `back`.
    bool Append(void* packageStream, std::uint32_t offset, std::uint32_t length,
                std::uint32_t back);
    // Appends the closing record: the change is complete once the package is `length` long.
    bool Finish(std::uint64_t length);
    // Takes the closing record back, so that recovery rolls the change back again. False
    // when the record is still there: recovery will complete the change.
    bool Retract();
    bool Sync();
    void Close() noexcept;

private:
    bool Put(const void* bytes, std::uint32_t size) noexcept;

    MiniZip::zlib_filefunc_def io_;
    std::filesystem::path path_;
    void* stream_ = nullptr;
    // Where the closing record starts, once written.
    std::uint64_t finishedAt_ = 0;
};

enum class Recovery {
    NoJournal,  // nothing to do
    Discarded,  // the journal was incomplete: the package had not been touched
    RolledBack, // the package is as it was before the change
    Completed,  // the change had been committed but for its final cut, now made
};

// Restores a package from its journal, if there is one: applies every record whose
// checksum holds and cuts the package to its original length, or, when the journal has
// its closing record, cuts the package to the length that record gives. Then makes the
// package durable and deletes the journal. Throws QOB::Exception when the package cannot be
// restored; the journal is then kept for the next attempt.
Recovery RecoverFromJournal(const MiniZip::zlib_filefunc_def& io,
                            const std::filesystem::path& package);

} // namespace QOB
