// The rollback journal beside a package, "<package>-journal": the package's length before a
// change and the original bytes of every region the change overwrites, each part with its
// own CRC-32. It is durable before the package is touched, and deleting it commits the
// change. The layout is documented in docs/format.md.
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
    bool Sync();
    void Close() noexcept;

private:
    bool Put(const void* bytes, std::uint32_t size) noexcept;

    MiniZip::zlib_filefunc_def io_;
    std::filesystem::path path_;
    void* stream_ = nullptr;
};

enum class Recovery {
    NoJournal,  // nothing to do
    Discarded,  // the journal was incomplete: the package had not been touched
    RolledBack, // the package is as it was before the change
};

// Restores a package from its journal, if there is one: applies every record whose
// checksum holds, cuts the package to its original length, makes it durable and deletes
// the journal. Throws QOB::Exception when the package cannot be restored; the journal is
// then kept for the next attempt.
Recovery RollBackFromJournal(const MiniZip::zlib_filefunc_def& io,
                             const std::filesystem::path& package);

} // namespace QOB
