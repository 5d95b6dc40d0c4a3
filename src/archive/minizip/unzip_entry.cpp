// Reading the data of the current entry: stored or deflated, bounded by the sizes of its
// central record, with the CRC-32 checked once everything has been read.
#include "archive/minizip/bytes.hpp"
#include "archive/minizip/crc32.hpp"
#include "archive/minizip/unzip_state.hpp"

#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

namespace QOB::MiniZip {
namespace {

constexpr std::uint32_t kInputChunk = 16384;
// Deflate cannot expand a byte into more than 1032 bytes (a 258-byte match per two bits);
// an entry claiming more is refused before its size is trusted.
constexpr std::uint64_t kMaxDeflateRatio = 1032;

struct InflateStreamEnd {
    void operator()(z_stream* stream) const noexcept {
        inflateEnd(stream);
        delete stream;
    }
};

} // namespace

struct ReadEntry {
    std::uint16_t method = 0;
    std::uint64_t position = 0; // file position of the next compressed byte
    std::uint32_t compressedLeft = 0;
    std::uint32_t uncompressedLeft = 0;
    std::uint32_t crc = 0;
    std::uint32_t expectedCrc = 0;
    bool streamEnded = false;
    std::unique_ptr<z_stream, InflateStreamEnd> inflate;
    std::vector<std::uint8_t> input;
};

void ReadEntryDelete::operator()(ReadEntry* entry) const noexcept {
    delete entry;
}

namespace {

// Records why the current entry cannot be read, naming it, and returns UNZ_BADZIPFILE.
int RefuseEntry(const UnzReader& reader, const char* why) noexcept {
    char reason[256];
    std::snprintf(reason, sizeof reason, "entry \"%.150s\": %s", reader.currentName.c_str(), why);
    return Refuse(reason);
}

int CheckLocalHeader(UnzReader& reader, const CentralRecord& record, std::uint64_t& dataStart) {
    const std::uint64_t header = std::uint64_t{record.localHeaderOffset} + reader.end.bytesBefore;
    if (header + kLocalHeaderSize + record.name.size() > reader.end.fileSize) {
        return RefuseEntry(reader, "its local header lies outside the file");
    }
    std::vector<std::uint8_t> local(kLocalHeaderSize + record.name.size());
    if (!reader.file.ReadAt(header, local.data(), static_cast<std::uint32_t>(local.size()))) {
        return UNZ_ERRNO;
    }
    using Bytes::Get16;
    using Bytes::Get32;
    if (Get32(local.data()) != kLocalHeaderSignature) {
        return RefuseEntry(reader, "no local header where the central directory says");
    }
    // Readers that go by the local header would show another entry: the two must agree.
    if (Get16(local.data() + 26) != record.name.size() ||
        std::memcmp(local.data() + kLocalHeaderSize, record.name.data(), record.name.size()) != 0) {
        return RefuseEntry(reader, "its local header gives another name");
    }
    // Without a data descriptor the local header repeats the central CRC and sizes.
    if (Get16(local.data() + 8) != record.method ||
        ((Get16(local.data() + 6) & kFlagDataDescriptor) == 0 &&
         (Get32(local.data() + 14) != record.crc ||
          Get32(local.data() + 18) != record.compressedSize ||
          Get32(local.data() + 22) != record.uncompressedSize))) {
        return RefuseEntry(reader, "its local header disagrees with the central directory");
    }
    // The local extra field may differ from the central one in length: the data starts
    // behind the local one.
    dataStart = header + kLocalHeaderSize + record.name.size() + Get16(local.data() + 28);
    if (dataStart + record.compressedSize > reader.end.fileSize) {
        return RefuseEntry(reader, "its data runs past the end of the file");
    }
    return UNZ_OK;
}

int OpenCurrent(UnzReader& reader) {
    if (!reader.currentValid) {
        return UNZ_PARAMERROR;
    }
    if (reader.entry) {
        unzCloseCurrentFile(&reader);
        ClearRefusal();
    }
    const CentralRecord& record = reader.current;
    if ((record.flags & kFlagEncrypted) != 0) {
        return RefuseEntry(reader, "encrypted entries are not supported");
    }
    if (record.method == 0) {
        if (record.compressedSize != record.uncompressedSize) {
            return RefuseEntry(reader, "stored, yet its two sizes differ");
        }
    } else if (record.method == Z_DEFLATED) {
        // Checked before the size is trusted for anything: a size no deflate stream of this
        // length can produce is a lie.
        if (record.uncompressedSize >
            (std::uint64_t{record.compressedSize} + 1) * kMaxDeflateRatio) {
            return RefuseEntry(reader, "its size is more than its compressed data can hold");
        }
    } else {
        char why[96];
        std::snprintf(why, sizeof why,
                      "compression method %u is not supported (only stored and deflate)",
                      static_cast<unsigned>(record.method));
        return RefuseEntry(reader, why);
    }
    std::uint64_t dataStart = 0;
    if (const int checked = CheckLocalHeader(reader, record, dataStart); checked != UNZ_OK) {
        return checked;
    }

    auto entry = std::make_unique<ReadEntry>();
    entry->method = record.method;
    entry->position = dataStart;
    entry->compressedLeft = record.compressedSize;
    entry->uncompressedLeft = record.uncompressedSize;
    entry->expectedCrc = record.crc;
    if (record.method == Z_DEFLATED) {
        entry->inflate.reset(new z_stream{});
        // Raw deflate: the zip headers carry the CRC, so no zlib wrapper.
        if (inflateInit2(entry->inflate.get(), -MAX_WBITS) != Z_OK) {
            return UNZ_INTERNALERROR;
        }
        entry->input.resize(std::min(kInputChunk, record.compressedSize));
    }
    reader.entry.reset(entry.release());
    return UNZ_OK;
}

// Hands the inflater the next piece of compressed data once it has used up the last one.
// With nothing left to give it carries on with what it holds.
bool Refill(UnzReader& reader, ReadEntry& entry) {
    if (entry.inflate->avail_in > 0 || entry.compressedLeft == 0) {
        return true;
    }
    const std::uint32_t chunk = std::min(entry.compressedLeft, kInputChunk);
    if (!reader.file.ReadAt(entry.position, entry.input.data(), chunk)) {
        return false;
    }
    entry.position += chunk;
    entry.compressedLeft -= chunk;
    entry.inflate->next_in = entry.input.data();
    entry.inflate->avail_in = chunk;
    return true;
}

// Judges one inflate call made with room for output.
int Inflated(ReadEntry& entry, int zlibResult) noexcept {
    switch (zlibResult) {
    case Z_STREAM_END:
        entry.streamEnded = true;
        return UNZ_OK;
    case Z_OK:
        return UNZ_OK;
    // No progress was possible: fine only when the input is used up and more can come;
    // otherwise the stream needs more than the entry holds.
    case Z_BUF_ERROR:
        return entry.inflate->avail_in == 0 && entry.compressedLeft > 0 ? UNZ_OK : UNZ_BADZIPFILE;
    case Z_MEM_ERROR:
        return UNZ_INTERNALERROR;
    default:
        return UNZ_BADZIPFILE;
    }
}

// Inflates exactly `length` bytes into `buffer`. The stream must not end before.
int InflateInto(UnzReader& reader, ReadEntry& entry, std::uint8_t* buffer, std::uint32_t length) {
    z_stream& stream = *entry.inflate;
    stream.next_out = buffer;
    stream.avail_out = length;
    while (stream.avail_out > 0) {
        if (entry.streamEnded) {
            return UNZ_BADZIPFILE; // ended before the size the directory gives
        }
        if (!Refill(reader, entry)) {
            return UNZ_ERRNO;
        }
        const int inflated = inflate(&stream, Z_SYNC_FLUSH);
        if (const int checked = Inflated(entry, inflated); checked != UNZ_OK) {
            return checked;
        }
    }
    return UNZ_OK;
}

// Once the size the directory gives has been produced the stream must end, without any
// further output: more output would be data that the directory does not account for.
int FinishInflate(UnzReader& reader, ReadEntry& entry) {
    z_stream& stream = *entry.inflate;
    std::uint8_t spare = 0;
    while (!entry.streamEnded) {
        if (!Refill(reader, entry)) {
            return UNZ_ERRNO;
        }
        stream.next_out = &spare;
        stream.avail_out = 1;
        const int inflated = inflate(&stream, Z_SYNC_FLUSH);
        if (stream.avail_out == 0) {
            return UNZ_BADZIPFILE;
        }
        if (const int checked = Inflated(entry, inflated); checked != UNZ_OK) {
            return checked;
        }
    }
    return UNZ_OK;
}

int ReadCurrent(UnzReader& reader, void* buffer, unsigned length) {
    ReadEntry& entry = *reader.entry;
    // The count travels back in an int.
    const auto wanted = static_cast<std::uint32_t>(
        std::min<std::uint64_t>({length, entry.uncompressedLeft, INT_MAX}));
    if (wanted == 0) {
        if (entry.method == Z_DEFLATED && entry.uncompressedLeft == 0) {
            return FinishInflate(reader, entry);
        }
        return 0;
    }
    auto* out = static_cast<std::uint8_t*>(buffer);
    if (entry.method == 0) {
        if (!reader.file.ReadAt(entry.position, out, wanted)) {
            return UNZ_ERRNO;
        }
        entry.position += wanted;
        entry.compressedLeft -= wanted;
    } else if (const int inflated = InflateInto(reader, entry, out, wanted); inflated != UNZ_OK) {
        return inflated;
    }
    entry.uncompressedLeft -= wanted;
    entry.crc = Crc32(entry.crc, out, wanted);
    return static_cast<int>(wanted);
}

} // namespace

int unzOpenCurrentFile(unzFile file) {
    ClearRefusal();
    if (file == nullptr) {
        return UNZ_PARAMERROR;
    }
    try {
        return OpenCurrent(*AsReader(file));
    } catch (const std::bad_alloc&) {
        return UNZ_INTERNALERROR;
    }
}

int unzReadCurrentFile(unzFile file, void* buffer, unsigned length) {
    ClearRefusal();
    if (file == nullptr || !AsReader(file)->entry || (buffer == nullptr && length > 0)) {
        return UNZ_PARAMERROR;
    }
    return ReadCurrent(*AsReader(file), buffer, length);
}

int unzCloseCurrentFile(unzFile file) {
    ClearRefusal();
    if (file == nullptr || !AsReader(file)->entry) {
        return UNZ_PARAMERROR;
    }
    UnzReader& reader = *AsReader(file);
    const std::unique_ptr<ReadEntry, ReadEntryDelete> entry = std::move(reader.entry);
    if (entry->uncompressedLeft != 0) {
        return UNZ_OK; // closed early: nothing to verify
    }
    if (entry->method == Z_DEFLATED) {
        if (const int finished = FinishInflate(reader, *entry); finished != UNZ_OK) {
            return finished;
        }
    }
    return entry->crc == entry->expectedCrc ? UNZ_OK : UNZ_CRCERROR;
}

} // namespace QOB::MiniZip
