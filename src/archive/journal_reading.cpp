// Finding a package's journal and proving that it belongs to the package before anything of
// it is applied or overlaid. The checks, in order: what the file is (a regular file with one
// link, never a link or a FIFO), who made it and who could have written it, its format, what
// it is bound to (the package's name and its original end), and whether its records are
// plausible (inside the original length, disjoint, at most kMaxRecords). A record whose CRC
// fails ends the journal, unless something the writer only wrote after flushing that record
// follows it: that is damage, and the journal is refused.
#include "archive/journal.hpp"

#include "archive/minizip/stream_access.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace QOB {
namespace {

using MiniZip::StreamAccess;
namespace JF = JournalFormat;

constexpr std::uint32_t kChunk = 65536;

[[noreturn]] void Refuse(const std::string& shown, const std::string& check, int error = 0) {
    throw Exception(CANNOT_READ_FILE_PCK,
                    Format("journal \"%s\" refused: %s", shown.c_str(), check.c_str()),
                    error != 0 ? Platform::SystemError(error) : std::error_code(), shown);
}

// May the journal's owner and everyone who could write it also write the package?
void CheckWho(const std::string& shown, const Platform::FileFacts& journal,
              const Platform::FileFacts& package) {
    if (!journal.regular) {
        Refuse(shown, "not a regular file");
    }
    if (journal.links != 1) {
        Refuse(shown, "more than one link");
    }
    const bool groupWrites = (package.mode & 020) != 0;
    const bool sameGroup = journal.group == package.group;
    bool owner = journal.owner == package.owner;
    if (!owner && journal.owner == 0) {
        owner = Platform::CallerUser() == 0; // root's journals only for root
    } else if (!owner && groupWrites && sameGroup) {
        owner = Platform::UserInGroup(journal.owner, package.group);
    }
    if (!owner) {
        Refuse(shown, "owned by a user who may not write the package");
    }
    const bool othersWrite = (journal.mode & 002) != 0 && (package.mode & 002) == 0;
    const bool groupWrite =
        (journal.mode & 020) != 0 && (package.mode & 002) == 0 && !(groupWrites && sameGroup);
    if (othersWrite || groupWrite) {
        Refuse(shown, "writable by a user who may not write the package");
    }
}

// Reads bytes that lie within the journal's size: a failure there is the device failing, not
// a journal cut short, and taking it for the end would drop records.
void ReadWithin(StreamAccess& journal, const std::string& shown, std::uint64_t position,
                void* bytes, std::uint32_t count) {
    if (!journal.ReadAt(position, bytes, count)) {
        const int error = Platform::FileError(static_cast<Platform::FileStream*>(journal.Stream()));
        throw Exception(CANNOT_READ_FILE_PCK,
                        Format("journal \"%s\" could not be read", shown.c_str()),
                        Platform::SystemError(error), shown);
    }
}

// Reads and checks records from `position` on. One scan serves both the records of the
// journal and the search for valid ones behind a damaged record.
class RecordScan {
public:
    RecordScan(StreamAccess& journal, const std::string& shown, std::uint64_t size,
               const JF::Header& header)
        : journal_(journal), shown_(shown), size_(size), header_(header) {}

    // The record at position when it is whole and its CRC holds.
    bool Valid(std::uint64_t position, JF::RecordHead& head) {
        std::array<std::uint8_t, JF::kRecordHeaderSize> bytes{};
        if (size_ - position < JF::kRecordHeaderSize + JF::kRecordTrailerSize) {
            return false;
        }
        ReadWithin(journal_, shown_, position, bytes.data(), JF::kRecordHeaderSize);
        if (!JF::DecodeRecordHead(bytes.data(), head) ||
            head.length > size_ - position - JF::kRecordHeaderSize - JF::kRecordTrailerSize) {
            return false;
        }
        budget_ -= std::min(budget_, head.length + JF::kRecordHeaderSize);
        std::uint32_t crc = JF::RecordCrcBegin(header_.nonce, bytes.data());
        for (std::uint64_t done = 0; done < head.length;) {
            const auto round =
                static_cast<std::uint32_t>(std::min<std::uint64_t>(head.length - done, kChunk));
            ReadWithin(journal_, shown_, position + JF::kRecordHeaderSize + done, buffer_.data(),
                       round);
            crc = JF::Continue(crc, buffer_.data(), round);
            done += round;
        }
        std::array<std::uint8_t, 4> stored{};
        ReadWithin(journal_, shown_, position + JF::kRecordHeaderSize + head.length, stored.data(),
                   4);
        return (stored[0] | stored[1] << 8 | stored[2] << 16 |
                static_cast<std::uint32_t>(stored[3]) << 24) == crc;
    }

    std::optional<std::uint64_t> Closing(std::uint64_t position, std::uint32_t* batch) {
        std::array<std::uint8_t, JF::kClosingSize> bytes{};
        if (size_ - position < JF::kClosingSize) {
            return std::nullopt;
        }
        ReadWithin(journal_, shown_, position, bytes.data(), JF::kClosingSize);
        return JF::DecodeClosing(header_.nonce, bytes.data(), batch);
    }

    // Whether a valid record of a batch after `batch`, or a valid closing record, stands
    // anywhere after `from`. The writer flushed everything before writing those, so the
    // record at `from` had reached the device whole and was damaged since. Bounded: past a
    // few passes over the journal the answer is yes, and the journal is refused.
    bool LaterFlushed(std::uint64_t from, std::uint32_t batch) {
        budget_ = 4 * size_ + kChunk;
        for (std::uint64_t chunk = from; chunk < size_; chunk += kChunk) {
            const auto count =
                static_cast<std::uint32_t>(std::min<std::uint64_t>(size_ - chunk, kChunk + 3));
            std::vector<std::uint8_t> bytes(count);
            ReadWithin(journal_, shown_, chunk, bytes.data(), count);
            for (std::uint32_t at = 0; at + 4 <= count && at < kChunk; ++at) {
                const std::uint32_t magic = bytes[at] | bytes[at + 1] << 8 | bytes[at + 2] << 16 |
                                            static_cast<std::uint32_t>(bytes[at + 3]) << 24;
                if (magic != JF::kRecordMagic && magic != JF::kClosingMagic) {
                    continue;
                }
                if (budget_ == 0) {
                    return true;
                }
                JF::RecordHead head;
                if (magic == JF::kClosingMagic ? Closing(chunk + at, nullptr).has_value()
                                               : Valid(chunk + at, head) && head.batch > batch) {
                    return true;
                }
            }
        }
        return false;
    }

private:
    StreamAccess& journal_;
    const std::string& shown_;
    std::uint64_t size_;
    JF::Header header_;
    std::uint64_t budget_ = UINT64_MAX;
    std::vector<std::uint8_t> buffer_ = std::vector<std::uint8_t>(kChunk);
};

} // namespace

// Fills a Journal; a friend of it.
class JournalReading {
public:
    static std::unique_ptr<Journal> Read(StreamPtr stream, const Platform::FileFacts& facts,
                                         const std::string& shown, const std::string& name,
                                         void* packageStream, const Platform::FileFacts& package,
                                         const JF::Header& header) {
        auto journal = std::make_unique<Journal>();
        journal->facts_ = facts;
        journal->shown_ = shown;
        journal->original_ = header.original;
        const MiniZip::zlib_filefunc_def io = MiniZip::FileFunctions();
        StreamAccess access(io, stream.get());
        RecordScan scan(access, shown, facts.size, header);
        std::uint64_t position = JF::kHeaderSize;
        std::uint32_t batch = 1;
        while (position < facts.size) {
            JF::RecordHead head;
            if (scan.Valid(position, head)) {
                if (journal->records_.size() >= JF::kMaxRecords) {
                    Refuse(shown, "too many records");
                }
                if (head.offset > header.original || head.length > header.original - head.offset) {
                    Refuse(shown, "record outside the package");
                }
                journal->records_.push_back(
                    {head.offset, head.length, position + JF::kRecordHeaderSize});
                batch = std::max(batch, head.batch);
                position += JF::kRecordHeaderSize + head.length + JF::kRecordTrailerSize;
                continue;
            }
            if (const auto closing = scan.Closing(position, nullptr)) {
                journal->closing_ = *closing;
                break;
            }
            // A torn end, unless the record's batch (as far as its head can be read) was
            // followed by a later one.
            std::array<std::uint8_t, JF::kRecordHeaderSize> bytes{};
            std::uint32_t tornBatch = batch + 1;
            if (facts.size - position >= JF::kRecordHeaderSize) {
                access.ReadAt(position, bytes.data(), JF::kRecordHeaderSize);
                if (JF::DecodeRecordHead(bytes.data(), head) && head.batch == batch) {
                    tornBatch = batch;
                }
            }
            if (scan.LaterFlushed(position + 1, tornBatch)) {
                Refuse(shown, "damaged record");
            }
            break;
        }
        const std::uint64_t now = package.size;
        if (journal->closing_) {
            if (*journal->closing_ > now) {
                Refuse(shown, "closing length beyond the package");
            }
            journal->records_.clear();
        } else if (header.original > now) {
            // Nothing is cut before the closing record is durable.
            Refuse(shown, "original length beyond the package");
        }
        auto& records = journal->records_;
        std::sort(
            records.begin(), records.end(),
            [](const JournalRecord& a, const JournalRecord& b) { return a.offset < b.offset; });
        for (std::size_t i = 1; i < records.size(); ++i) {
            if (records[i - 1].offset + records[i - 1].length > records[i].offset) {
                Refuse(shown, "records overlap");
            }
        }
        journal->stream_ = std::move(stream);
        if (JF::NameCrc(name) != header.nameCrc) {
            Refuse(shown, "bound to another package");
        }
        // The package as it was must start and end as it did when the journal was begun.
        if (!journal->closing_) {
            const std::uint64_t original = header.original;
            const auto tail =
                static_cast<std::uint32_t>(std::min<std::uint64_t>(original, JF::kEndBytes));
            const auto head =
                static_cast<std::uint32_t>(std::min<std::uint64_t>(original, JF::kStartBytes));
            std::vector<std::uint8_t> bytes(JF::kStartBytes);
            const auto crcOf = [&](std::uint64_t at, std::uint32_t count) {
                if (!journal->ReadAt(io, packageStream, at, bytes.data(), count)) {
                    throw Exception(CANNOT_READ_FILE_PCK,
                                    Format("journal \"%s\" could not be read", shown.c_str()), {},
                                    shown);
                }
                return JF::Crc(bytes.data(), count);
            };
            if (crcOf(original - tail, tail) != header.endCrc ||
                crcOf(0, head) != header.startCrc) {
                Refuse(shown, "bound to another package");
            }
        }
        return journal;
    }
};

JournalLookup FindJournal(Platform::Folder* folder, const std::string& name,
                          const std::string& shownFolder, void* packageStream,
                          const Platform::FileFacts& package) {
    JournalLookup lookup;
    const std::string journalName = JournalName(name);
    const std::string shown = shownFolder.empty() ? journalName : shownFolder + "/" + journalName;
    int error = 0;
    StreamPtr stream(Platform::FileOpenIn(folder, journalName, Platform::OpenAs::Read, error));
    if (!stream) {
        if (Platform::KindOf(error) == Platform::ErrorKind::NotFound) {
            return lookup;
        }
        Platform::FileFacts facts;
        int ignored = 0;
        if (Platform::FileFactsIn(folder, journalName, facts, ignored) && !facts.regular) {
            Refuse(shown, "not a regular file"); // a link, mostly (O_NOFOLLOW)
        }
        Refuse(shown, "cannot be opened", error);
    }
    Platform::FileFacts facts;
    if (!Platform::FileFactsOf(stream.get(), facts, error)) {
        Refuse(shown, "cannot be examined", error);
    }
    CheckWho(shown, facts, package);
    std::array<std::uint8_t, JF::kHeaderSize> bytes{};
    const auto available =
        static_cast<std::uint32_t>(std::min<std::uint64_t>(facts.size, JF::kHeaderSize));
    StreamAccess access(MiniZip::FileFunctions(), stream.get());
    ReadWithin(access, shown, 0, bytes.data(), available);
    JF::Header header;
    switch (JF::DecodeHeader(bytes.data(), available, header)) {
    case JF::HeaderState::OlderVersion:
        Refuse(shown, "format version 1 of an older release");
    case JF::HeaderState::Damaged:
        // A journal gets its name only once its header is on the device: this one was whole
        // once, and the package may have changed behind it.
        Refuse(shown, "damaged header");
    case JF::HeaderState::Invalid:
        // Not a journal of ours at all: nothing was ever changed behind it.
        lookup.state = JournalState::Stale;
        lookup.facts = facts;
        return lookup;
    case JF::HeaderState::Valid:
        break;
    }
    lookup.journal =
        JournalReading::Read(std::move(stream), facts, shown, name, packageStream, package, header);
    lookup.state = JournalState::Found;
    return lookup;
}

} // namespace QOB
