#include "archive/journal.hpp"

#include "archive/minizip/stream_access.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"

#include <algorithm>
#include <vector>

namespace QOB {
namespace {

using MiniZip::StreamAccess;
namespace JF = JournalFormat;

constexpr std::uint32_t kCopyChunk = 65536;

[[noreturn]] void WriteFailed(const std::string& shown, int error) {
    throw Exception(INTERNAL_INCONSISTENCY,
                    Format("failed to write journal \"%s\": %s", shown.c_str(),
                           Platform::SystemErrorText(error).c_str()));
}

} // namespace

void StreamCloser::operator()(Platform::FileStream* stream) const noexcept {
    Platform::FileClose(stream);
}

std::string JournalName(const std::string& packageName) {
    return packageName + "-journal";
}

JournalWriter::JournalWriter(Platform::Folder* folder, std::string name, std::string shown,
                             const Platform::FileFacts& package, const JF::Header& header)
    : folder_(folder), name_(std::move(name)), shown_(std::move(shown)),
      io_(MiniZip::FileFunctions()), header_(header) {
    int error = 0;
    stream_.reset(Platform::FileOpenIn(folder_, name_, Platform::OpenAs::CreateNew, error));
    if (!stream_) {
        WriteFailed(shown_, error);
    }
    try {
        if (!Platform::FileSetPermissions(stream_.get(), package, error) ||
            !Platform::FileFactsOf(stream_.get(), facts_, error)) {
            WriteFailed(shown_, error);
        }
        const auto bytes = JF::EncodeHeader(header_);
        Put(bytes.data(), JF::kHeaderSize);
    } catch (...) {
        Remove();
        throw;
    }
}

JournalWriter::~JournalWriter() = default;

void JournalWriter::Put(const void* bytes, std::uint32_t size) {
    if (!StreamAccess(io_, stream_.get()).Write(bytes, size)) {
        WriteFailed(shown_, Platform::FileError(stream_.get()));
    }
}

void JournalWriter::Append(const MiniZip::zlib_filefunc_def& io, void* packageStream,
                           std::uint32_t offset, std::uint32_t length, std::uint32_t back) {
    if (records_ + 1 >= JF::kMaxRecords) {
        throw Exception(INTERNAL_INCONSISTENCY,
                        Format("failed to write journal \"%s\": more than %u records",
                               shown_.c_str(), JF::kMaxRecords - 1));
    }
    const auto head = JF::EncodeRecordHead({offset, length, batch_});
    std::uint32_t crc = JF::RecordCrcBegin(header_.nonce, head.data());
    Put(head.data(), JF::kRecordHeaderSize);
    StreamAccess package(io, packageStream);
    std::vector<std::uint8_t> buffer(std::min(length, kCopyChunk));
    for (std::uint32_t done = 0; done < length;) {
        const std::uint32_t round = std::min(length - done, kCopyChunk);
        if (!package.ReadAt(std::uint64_t{offset} + done, buffer.data(), round)) {
            throw Exception(CANNOT_READ_FILE_PCK, "failed to read package for the journal");
        }
        Put(buffer.data(), round);
        crc = JF::Continue(crc, buffer.data(), round);
        done += round;
    }
    std::uint8_t tail[4] = {static_cast<std::uint8_t>(crc), static_cast<std::uint8_t>(crc >> 8),
                            static_cast<std::uint8_t>(crc >> 16),
                            static_cast<std::uint8_t>(crc >> 24)};
    Put(tail, 4);
    ++records_;
    if (!package.SeekTo(back)) {
        throw Exception(CANNOT_READ_FILE_PCK, "failed to seek");
    }
}

void JournalWriter::Sync() {
    int error = 0;
    if (!Platform::FileSyncData(stream_.get(), error)) {
        WriteFailed(shown_, error);
    }
    ++batch_;
}

void JournalWriter::Finish(std::uint64_t length) {
    StreamAccess journal(io_, stream_.get());
    const auto position = journal.Tell();
    if (!position) {
        WriteFailed(shown_, Platform::FileError(stream_.get()));
    }
    finishedAt_ = *position;
    const auto record = JF::EncodeClosing(header_.nonce, length, batch_);
    Put(record.data(), JF::kClosingSize);
    Sync();
}

bool JournalWriter::Retract() noexcept {
    if (finishedAt_ == 0) {
        return true; // never written
    }
    StreamAccess journal(io_, stream_.get());
    if (journal.Truncate(static_cast<std::uint32_t>(finishedAt_)) != 0) {
        return false;
    }
    // Gone from the file, the record no longer decides a recovery; the flush makes that so
    // after a power cut too.
    journal.SeekTo(finishedAt_);
    int error = 0;
    Platform::FileSyncData(stream_.get(), error);
    finishedAt_ = 0;
    return true;
}

bool JournalWriter::Remove() noexcept {
    int error = 0;
    return Platform::FileRemoveIn(folder_, name_, facts_, error);
}

bool Journal::ReadAt(const MiniZip::zlib_filefunc_def& io, void* packageStream,
                     std::uint64_t position, void* buffer, std::uint32_t size) {
    if (position > Length() || size > Length() - position) {
        return false;
    }
    auto* out = static_cast<std::uint8_t*>(buffer);
    const std::uint64_t end = position + size;
    // The first record that ends after position; records are sorted and disjoint.
    auto record = std::upper_bound(
        records_.begin(), records_.end(), position,
        [](std::uint64_t at, const JournalRecord& r) { return at < r.offset + r.length; });
    StreamAccess package(io, packageStream);
    StreamAccess journal(io, stream_.get());
    while (position < end) {
        const bool inside = record != records_.end() && record->offset <= position;
        const std::uint64_t stop =
            inside ? std::min(end, record->offset + record->length)
                   : std::min(end, record != records_.end() ? record->offset : end);
        const auto count = static_cast<std::uint32_t>(stop - position);
        const bool read =
            inside ? journal.ReadAt(record->data + (position - record->offset), out, count)
                   : package.ReadAt(position, out, count);
        if (!read) {
            return false;
        }
        out += count;
        position = stop;
        if (inside && position == record->offset + record->length) {
            ++record;
        }
    }
    return true;
}

} // namespace QOB
