#include "archive/journal.hpp"

#include "archive/minizip/bytes.hpp"
#include "archive/minizip/crc32.hpp"
#include "archive/minizip/stream_access.hpp"
#include "platform/platform.hpp"
#include "support/exception.hpp"
#include "support/utf8_path.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>
#include <vector>

namespace QOB {
namespace {

using MiniZip::StreamAccess;
namespace Bytes = MiniZip::Bytes;

constexpr std::array<std::uint8_t, 8> kMagic = {'Q', 'O', 'B', 'J', 'R', 'N', 'L', 0};
constexpr std::uint32_t kVersion = 1;
constexpr std::uint32_t kHeaderSize = 32;
constexpr std::uint32_t kRecordMagic = 0x44524352; // "RCRD"
constexpr std::uint32_t kRecordHeaderSize = 20;
constexpr std::uint32_t kClosingMagic = 0x454E4F44; // "DONE"
constexpr std::uint32_t kClosingSize = 16;
constexpr std::uint32_t kCopyChunk = 65536;

void Put64(std::uint8_t* p, std::uint64_t value) noexcept {
    Bytes::Put32(p, static_cast<std::uint32_t>(value));
    Bytes::Put32(p + 4, static_cast<std::uint32_t>(value >> 32));
}

std::uint64_t Get64(const std::uint8_t* p) noexcept {
    return Bytes::Get32(p) | (std::uint64_t{Bytes::Get32(p + 4)} << 32);
}

std::uint32_t Crc(std::uint32_t crc, const void* bytes, std::uint32_t size) noexcept {
    return MiniZip::Crc32(crc, bytes, size);
}

// Closes a stream of the table when it goes out of scope.
class OpenStream {
public:
    OpenStream(const MiniZip::zlib_filefunc_def& io, const std::filesystem::path& path, int mode)
        : access_(io, StreamAccess::Open(io, PathToUtf8(path).c_str(), mode)) {}
    ~OpenStream() {
        if (access_.Stream() != nullptr) {
            access_.Close();
        }
    }
    OpenStream(const OpenStream&) = delete;
    OpenStream& operator=(const OpenStream&) = delete;
    explicit operator bool() const noexcept { return access_.Stream() != nullptr; }
    StreamAccess* operator->() noexcept { return &access_; }

private:
    StreamAccess access_;
};

struct Record {
    std::uint64_t offset;
    std::uint32_t length;
    std::uint64_t data; // position of the data in the journal
};

[[noreturn]] void CannotRestore() {
    throw Exception(CANNOT_READ_FILE_PCK, "failed to roll back an interrupted change");
}

// Reads journal bytes that lie within its `size`. A read that fails there is the device
// failing, not a journal cut short: taking it for the end would drop records.
void ReadWithin(OpenStream& journal, std::uint64_t position, void* bytes, std::uint32_t count) {
    if (!journal->ReadAt(position, bytes, count)) {
        CannotRestore();
    }
}

// The records whose checksum holds, up to the first that does not: that one, and all
// after it, protected regions that were never written. `end` is where they stop.
std::vector<Record> ValidRecords(OpenStream& journal, std::uint64_t size, std::uint64_t original,
                                 std::uint64_t& end) {
    std::vector<Record> records;
    std::vector<std::uint8_t> buffer(kCopyChunk);
    std::uint64_t& position = end;
    position = kHeaderSize;
    for (;;) {
        std::array<std::uint8_t, kRecordHeaderSize> head{};
        if (size - position < kRecordHeaderSize) {
            return records;
        }
        ReadWithin(journal, position, head.data(), kRecordHeaderSize);
        if (Bytes::Get32(head.data()) != kRecordMagic) {
            return records;
        }
        const std::uint64_t offset = Get64(head.data() + 4);
        const std::uint64_t length = Get64(head.data() + 12);
        if (offset > original || length > original - offset ||
            size - position - kRecordHeaderSize < length + 4) {
            return records;
        }
        std::uint32_t crc = Crc(0, head.data(), kRecordHeaderSize);
        for (std::uint64_t done = 0; done < length;) {
            const auto round =
                static_cast<std::uint32_t>(std::min<std::uint64_t>(length - done, kCopyChunk));
            ReadWithin(journal, position + kRecordHeaderSize + done, buffer.data(), round);
            crc = Crc(crc, buffer.data(), round);
            done += round;
        }
        std::array<std::uint8_t, 4> stored{};
        ReadWithin(journal, position + kRecordHeaderSize + length, stored.data(), 4);
        if (Bytes::Get32(stored.data()) != crc) {
            return records;
        }
        records.push_back(
            {offset, static_cast<std::uint32_t>(length), position + kRecordHeaderSize});
        position += kRecordHeaderSize + length + 4;
    }
}

// The length the closing record at `position` gives, if one is there whole.
std::optional<std::uint64_t> ClosingLength(OpenStream& journal, std::uint64_t size,
                                           std::uint64_t position) {
    std::array<std::uint8_t, kClosingSize> record{};
    if (size - position < kClosingSize) {
        return std::nullopt;
    }
    ReadWithin(journal, position, record.data(), kClosingSize);
    if (Bytes::Get32(record.data()) != kClosingMagic ||
        Bytes::Get32(record.data() + 12) != Crc(0, record.data(), 12)) {
        return std::nullopt;
    }
    return Get64(record.data() + 4);
}

} // namespace

std::filesystem::path JournalPath(const std::filesystem::path& package) {
    std::filesystem::path journal = package;
    journal += "-journal";
    return journal;
}

JournalWriter::JournalWriter(const MiniZip::zlib_filefunc_def& io, std::filesystem::path journal)
    : io_(io), path_(std::move(journal)) {}

JournalWriter::~JournalWriter() {
    Close();
}

void JournalWriter::Close() noexcept {
    if (stream_ != nullptr) {
        io_.zclose_file(io_.opaque, stream_);
        stream_ = nullptr;
    }
}

bool JournalWriter::Put(const void* bytes, std::uint32_t size) noexcept {
    return StreamAccess(io_, stream_).Write(bytes, size);
}

bool JournalWriter::Begin(std::uint64_t originalLength) {
    stream_ = StreamAccess::Open(io_, PathToUtf8(path_).c_str(),
                                 MiniZip::kOpenRead | MiniZip::kOpenWrite | MiniZip::kOpenCreate);
    if (stream_ == nullptr) {
        return false;
    }
    std::array<std::uint8_t, kHeaderSize> header{};
    std::memcpy(header.data(), kMagic.data(), kMagic.size());
    Bytes::Put32(header.data() + 8, kVersion);
    Bytes::Put32(header.data() + 12, kHeaderSize);
    Put64(header.data() + 16, originalLength);
    Bytes::Put32(header.data() + 28, Crc(0, header.data(), 28));
    return Put(header.data(), kHeaderSize);
}

bool JournalWriter::Append(void* packageStream, std::uint32_t offset, std::uint32_t length,
                           std::uint32_t back) {
    std::array<std::uint8_t, kRecordHeaderSize> head{};
    Bytes::Put32(head.data(), kRecordMagic);
    Put64(head.data() + 4, offset);
    Put64(head.data() + 12, length);
    std::uint32_t crc = Crc(0, head.data(), kRecordHeaderSize);
    if (!Put(head.data(), kRecordHeaderSize)) {
        return false;
    }
    StreamAccess package(io_, packageStream);
    std::vector<std::uint8_t> buffer(std::min(length, kCopyChunk));
    for (std::uint32_t done = 0; done < length;) {
        const std::uint32_t round = std::min(length - done, kCopyChunk);
        if (!package.ReadAt(std::uint64_t{offset} + done, buffer.data(), round) ||
            !Put(buffer.data(), round)) {
            return false;
        }
        crc = Crc(crc, buffer.data(), round);
        done += round;
    }
    std::array<std::uint8_t, 4> tail{};
    Bytes::Put32(tail.data(), crc);
    return Put(tail.data(), 4) && package.SeekTo(back);
}

bool JournalWriter::Finish(std::uint64_t length) {
    StreamAccess journal(io_, stream_);
    const auto position = journal.Tell();
    if (!position) {
        return false;
    }
    std::array<std::uint8_t, kClosingSize> record{};
    Bytes::Put32(record.data(), kClosingMagic);
    Put64(record.data() + 4, length);
    Bytes::Put32(record.data() + 12, Crc(0, record.data(), 12));
    finishedAt_ = *position;
    return Put(record.data(), kClosingSize);
}

bool JournalWriter::Retract() {
    if (finishedAt_ == 0) {
        return true; // never written
    }
    StreamAccess journal(io_, stream_);
    if (journal.Truncate(static_cast<std::uint32_t>(finishedAt_)) != 0) {
        return false;
    }
    // Gone from the file, the record no longer decides a recovery in this process; the
    // flush makes that so after a power cut too.
    journal.SeekTo(finishedAt_);
    Sync();
    return true;
}

bool JournalWriter::Sync() {
    return Platform::SyncFile(path_);
}

Recovery RecoverFromJournal(const MiniZip::zlib_filefunc_def& io,
                            const std::filesystem::path& package) {
    const std::filesystem::path path = JournalPath(package);
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        return Recovery::NoJournal;
    }
    const std::filesystem::path directory = package.parent_path();
    Recovery result = Recovery::Discarded;
    {
        OpenStream journal(io, path, MiniZip::kOpenRead);
        if (!journal) {
            CannotRestore();
        }
        const std::uint64_t size = std::filesystem::file_size(path, error);
        if (error) {
            CannotRestore();
        }
        std::array<std::uint8_t, kHeaderSize> header{};
        if (size >= kHeaderSize) {
            ReadWithin(journal, 0, header.data(), kHeaderSize);
        }
        const bool complete = size >= kHeaderSize &&
                              std::memcmp(header.data(), kMagic.data(), kMagic.size()) == 0 &&
                              Bytes::Get32(header.data() + 28) == Crc(0, header.data(), 28);
        const std::uint64_t original = Get64(header.data() + 16);
        // An incomplete header was written before anything else: the package is untouched.
        // A journal whose package is gone has nothing left to restore.
        const bool present = std::filesystem::exists(package, error);
        if (error) {
            CannotRestore(); // not known to be gone
        }
        if (complete && present) {
            if (original > 0xFFFFFFFFu) {
                CannotRestore();
            }
            std::uint64_t end = 0;
            std::vector<Record> records = ValidRecords(journal, size, original, end);
            OpenStream target(io, package,
                              MiniZip::kOpenRead | MiniZip::kOpenWrite | MiniZip::kOpenExisting);
            if (!target) {
                CannotRestore();
            }
            std::uint64_t length = original;
            result = Recovery::RolledBack;
            if (const auto closing = ClosingLength(journal, size, end)) {
                // Committed: the package holds the new bytes and only its cut is owed.
                const std::uint64_t now = std::filesystem::file_size(package, error);
                if (error || *closing > 0xFFFFFFFFu || *closing > now) {
                    CannotRestore();
                }
                length = *closing;
                records.clear();
                result = Recovery::Completed;
            }
            std::vector<std::uint8_t> buffer(kCopyChunk);
            for (const Record& record : records) {
                for (std::uint32_t done = 0; done < record.length;) {
                    const std::uint32_t round = std::min(record.length - done, kCopyChunk);
                    if (!journal->ReadAt(record.data + done, buffer.data(), round) ||
                        !target->WriteAt(record.offset + done, buffer.data(), round)) {
                        CannotRestore();
                    }
                    done += round;
                }
            }
            if (target->Truncate(static_cast<std::uint32_t>(length)) != 0) {
                CannotRestore();
            }
        }
    }
    if (result != Recovery::Discarded && !Platform::SyncFile(package)) {
        CannotRestore();
    }
    if (!std::filesystem::remove(path, error) && error) {
        CannotRestore();
    }
    Platform::SyncDirectory(directory);
    return result;
}

} // namespace QOB
