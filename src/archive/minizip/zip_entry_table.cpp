// The writer's entry table: loading it from an existing archive, and writing the central
// directory and end record from it.
#include "archive/minizip/bytes.hpp"
#include "archive/minizip/zip_writer_state.hpp"

#include <algorithm>
#include <cstring>

namespace QOB::MiniZip {
namespace {

// Central directory output is written in pieces of about this size.
constexpr std::size_t kDirectoryChunk = 65536;

int FromReaderCode(int code) noexcept {
    return code == -1 ? ZIP_ERRNO : ZIP_BADZIPFILE;
}

} // namespace

int LoadEntryTable(ZipWriter& writer) {
    EndRecord end;
    if (const int found = FindEndRecord(writer.file, end); found != 0) {
        return FromReaderCode(found);
    }
    // FindEndRecord has checked that the directory lies inside the file, so this buffer
    // is never larger than the file itself.
    std::vector<std::uint8_t> directory(end.directorySize);
    if (!writer.file.ReadAt(end.DirectoryStart(), directory.data(), end.directorySize)) {
        return ZIP_ERRNO;
    }
    std::vector<CentralRecord> table;
    table.reserve(end.entryCount);
    std::size_t at = 0;
    for (std::uint32_t i = 0; i < end.entryCount; ++i) {
        CentralRecord record;
        VariableLengths lengths;
        if (directory.size() - at < kCentralHeaderSize ||
            !ParseCentralHeader(directory.data() + at, record, lengths)) {
            return ZIP_BADZIPFILE;
        }
        at += kCentralHeaderSize;
        if (directory.size() - at < lengths.Total()) {
            return ZIP_BADZIPFILE;
        }
        AssignVariableFields(directory.data() + at, lengths, record);
        at += lengths.Total();
        // Every local header must lie in front of the directory: the replacement and
        // removal code moves and rewrites bytes on the strength of these offsets.
        if (std::uint64_t{record.localHeaderOffset} + end.bytesBefore + kLocalHeaderSize >
            end.DirectoryStart()) {
            return ZIP_BADZIPFILE;
        }
        table.push_back(std::move(record));
    }
    if (!writer.file.SeekTo(end.DirectoryStart())) {
        return ZIP_ERRNO;
    }
    writer.table = std::move(table);
    writer.bytesBefore = end.bytesBefore;
    writer.globalComment = std::move(end.comment);
    return ZIP_OK;
}

int WriteCentralDirectory(ZipWriter& writer, const std::string& comment) {
    const auto start = writer.file.Tell();
    if (!start) {
        return ZIP_ERRNO;
    }
    if (*start < writer.bytesBefore) {
        return ZIP_INTERNALERROR;
    }
    std::vector<std::uint8_t> out;
    out.reserve(kDirectoryChunk);
    std::uint64_t directorySize = 0;
    for (const CentralRecord& record : writer.table) {
        AppendCentralRecord(out, record);
        directorySize += record.StoredSize();
        if (out.size() >= kDirectoryChunk) {
            if (!writer.file.Write(out.data(), static_cast<std::uint32_t>(out.size()))) {
                return ZIP_ERRNO;
            }
            out.clear();
        }
    }

    using Bytes::Append;
    const std::size_t commentSize = std::min<std::size_t>(comment.size(), kMaxCommentSize);
    Append(out, kEndRecordSignature, 4);
    Append(out, 0, 2); // this disk
    Append(out, 0, 2); // disk holding the directory
    Append(out, writer.table.size(), 2);
    Append(out, writer.table.size(), 2);
    Append(out, directorySize, 4);
    Append(out, *start - writer.bytesBefore, 4);
    Append(out, commentSize, 2);
    Bytes::AppendBytes(out, comment.data(), commentSize);
    if (!writer.file.Write(out.data(), static_cast<std::uint32_t>(out.size()))) {
        return ZIP_ERRNO;
    }
    return ZIP_OK;
}

std::ptrdiff_t FindRow(const ZipWriter& writer, const char* name) noexcept {
    const std::size_t length = std::strlen(name);
    for (std::size_t i = 0; i < writer.table.size(); ++i) {
        const std::string& candidate = writer.table[i].name;
        if (candidate.size() == length && std::memcmp(candidate.data(), name, length) == 0) {
            return static_cast<std::ptrdiff_t>(i);
        }
    }
    return -1;
}

bool zipSizeAfterAppend(zipFile file, std::uint64_t nameSize, std::uint64_t extraSize,
                        std::uint64_t storedSize, std::uint64_t& entries, std::uint64_t& bytes) {
    if (file == nullptr) {
        return false;
    }
    ZipWriter& writer = *AsWriter(file);
    const auto position = writer.file.Tell();
    if (!position) {
        return false;
    }
    std::uint64_t directory = 0;
    for (const CentralRecord& record : writer.table) {
        directory += record.StoredSize();
    }
    entries = writer.table.size() + 1;
    if (writer.entry) {
        // Still open: its data ends at the position, its record is not in the table yet.
        ++entries;
        directory += writer.entry->record.StoredSize();
    }
    directory += kCentralHeaderSize + nameSize + extraSize;
    bytes = std::uint64_t{*position} + kLocalHeaderSize + nameSize + extraSize + storedSize +
            directory + kEndRecordSize + writer.globalComment.size();
    return true;
}

} // namespace QOB::MiniZip
