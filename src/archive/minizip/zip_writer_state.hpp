// The writer's state, shared by the files that implement the zip writer: opening and
// appending entries, the entry table, in-place replacement and removal.
#pragma once

#include "archive/minizip/central_directory.hpp"
#include "archive/minizip/stream_access.hpp"
#include "archive/minizip/zip.hpp"

#include <zlib.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace QOB::MiniZip {

struct DeflateStreamEnd {
    void operator()(z_stream* stream) const noexcept;
};
using DeflateStream = std::unique_ptr<z_stream, DeflateStreamEnd>;

// The entry being written.
struct WriterEntry {
    CentralRecord record;         // completed by zipCloseFileInZip
    std::uint32_t headerPosition; // file position of the local header
    std::uint32_t crc = 0;
    std::uint64_t compressed = 0;
    std::uint64_t uncompressed = 0;
    DeflateStream deflate; // null for stored entries
    std::vector<std::uint8_t> output;
};

struct ZipWriter {
    ZipWriter(const zlib_filefunc_def& functions, void* stream)
        : io(functions), file(functions, stream) {}

    zlib_filefunc_def io;
    StreamAccess file;
    // File position of offset 0 of the archive; stored offsets are file positions less this.
    std::uint32_t bytesBefore = 0;
    // One central record per entry of the archive, in directory order: those found when
    // the archive was opened, then the ones added since. The central directory is written
    // from it on close.
    std::vector<CentralRecord> table;
    // Kept from an existing archive; written on close unless another comment is given.
    std::string globalComment;
    std::unique_ptr<WriterEntry> entry;
};

inline ZipWriter* AsWriter(zipFile file) noexcept {
    return static_cast<ZipWriter*>(file);
}

// Reads the existing central directory into the table and leaves the stream where the old
// directory began, so that new entries overwrite it. Returns a ZIP_ code.
int LoadEntryTable(ZipWriter& writer);
// Writes the central directory from the table and the end record at the current position.
int WriteCentralDirectory(ZipWriter& writer, const std::string& comment);
// Index of the row named exactly `name` (byte comparison), or -1.
std::ptrdiff_t FindRow(const ZipWriter& writer, const char* name) noexcept;

} // namespace QOB::MiniZip
