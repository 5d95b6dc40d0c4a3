// Zip writer: classic zip (no zip64), 32-bit sizes and offsets. Besides creating and
// appending entries, a writer opened on an existing archive keeps a table of the existing
// entries' central records, from which it rewrites an entry in place or removes one and
// compacts the file.
#pragma once

#include "archive/minizip/io.hpp"

#include <cstdint>

namespace QOB::MiniZip {

inline constexpr int ZIP_OK = 0;
inline constexpr int ZIP_EOF = 0;
inline constexpr int ZIP_ERRNO = -1;
inline constexpr int ZIP_PARAMERROR = -102;
inline constexpr int ZIP_BADZIPFILE = -103;
inline constexpr int ZIP_INTERNALERROR = -104;
inline constexpr int ZIP_FILENOTINPACKAGE = -105;

inline constexpr int APPEND_STATUS_CREATE = 0;
inline constexpr int APPEND_STATUS_CREATEAFTER = 1;
inline constexpr int APPEND_STATUS_ADDINZIP = 2;

inline constexpr int Z_DEFLATED_METHOD = 8;

using zipFile = void*;

struct tm_zip {
    unsigned tm_sec;
    unsigned tm_min;
    unsigned tm_hour;
    unsigned tm_mday;
    unsigned tm_mon;
    unsigned tm_year;
};

struct zip_fileinfo {
    tm_zip tmz_date;       // used when dosDate is 0
    std::uint32_t dosDate; // DOS date (high 16 bits) and time
    std::uint32_t internal_fa;
    std::uint32_t external_fa;
};

// pathname is handed to the table's open (null for a stream that is already open).
// append: APPEND_STATUS_CREATE or APPEND_STATUS_ADDINZIP (loads the entry table).
// Returns null on failure.
zipFile zipOpen2(const char* pathname, int append, const char** globalComment,
                 const zlib_filefunc_def* functions);

// Opens a new entry and writes its local header at the end of the entry data; closes an
// entry still open first. method 0 (stored) or 8 (deflated); raw and password unused by us.
int zipOpenNewFileInZip3(zipFile file, const char* filename, const zip_fileinfo* info,
                         const void* extraLocal, unsigned extraLocalSize, const void* extraGlobal,
                         unsigned extraGlobalSize, const char* comment, int method, int level,
                         int raw, int windowBits, int memLevel, int strategy, const char* password,
                         std::uint32_t crcForCrypting);
int zipWriteInFileInZip(zipFile file, const void* buffer, unsigned length);
// Computes the CRC-32 and sizes, patches them into the local header and keeps the
// entry's central record in memory.
int zipCloseFileInZip(zipFile file);
// Writes the central directory and the end record; frees the writer. Does not close the
// stream when the table's close does nothing.
int zipClose(zipFile file, const char* globalComment);

// What the archive would be after appending one more stored entry with these sizes (name
// and extra fields counted once in the local header and once in the central record) and
// closing: its entry count and file size. False when the position cannot be read.
bool zipSizeAfterAppend(zipFile file, std::uint64_t nameSize, std::uint64_t extraSize,
                        std::uint64_t storedSize, std::uint64_t& entries, std::uint64_t& bytes);

// Rewrites the existing entry named exactly (byte comparison) `name` in place with
// `length` bytes of content followed by zero padding up to its allocated size. Never
// grows an entry (ZIP_PARAMERROR); unknown name ZIP_FILENOTINPACKAGE; no table
// ZIP_INTERNALERROR; short write ZIP_ERRNO.
int zipReplaceFileInZip(zipFile file, const char* name, const void* content, std::uint32_t length);
// Removes the entry named exactly `name`, moving later entries down and cutting the file
// through the table's truncate. Returns 0 or a ZIP_ code, or the truncate's result.
int zipRemoveFileInZip(zipFile file, const char* name);

} // namespace QOB::MiniZip
