// Zip reader: classic zip (no zip64), stored and deflated entries, data descriptors,
// archive comments and foreign extra fields. Every offset and size read from the file is
// checked against the file before use. A call that refuses the archive or an entry for a
// reason a user can act on leaves that reason in unzRefusal (refusal.hpp).
#pragma once

#include "archive/minizip/io.hpp"

#include "archive/minizip/refusal.hpp"

#include <cstdint>
#include <string>

namespace QOB::MiniZip {

inline constexpr int UNZ_OK = 0;
inline constexpr int UNZ_END_OF_LIST_OF_FILE = -100;
inline constexpr int UNZ_ERRNO = -1;
inline constexpr int UNZ_EOF = 0;
inline constexpr int UNZ_PARAMERROR = -102;
inline constexpr int UNZ_BADZIPFILE = -103;
inline constexpr int UNZ_INTERNALERROR = -104;
inline constexpr int UNZ_CRCERROR = -105;

// Names of this many bytes or more cannot be located.
inline constexpr unsigned UNZ_MAXFILENAMEINZIP = 256;

using unzFile = void*;

struct tm_unz {
    unsigned tm_sec;
    unsigned tm_min;
    unsigned tm_hour;
    unsigned tm_mday;
    unsigned tm_mon;  // 0-based
    unsigned tm_year; // full year
};

struct unz_global_info {
    std::uint32_t number_entry;
    std::uint32_t size_comment;
    std::uint32_t file_size;    // of the file as the reader found it when opened
    std::uint32_t bytes_before; // in front of the archive (a self-extractor stub)
};

struct unz_file_info {
    std::uint32_t version;
    std::uint32_t version_needed;
    std::uint32_t flag;
    std::uint32_t compression_method;
    std::uint32_t dosDate;
    std::uint32_t crc;
    std::uint32_t compressed_size;
    std::uint32_t uncompressed_size;
    std::uint32_t size_filename;
    std::uint32_t size_file_extra;
    std::uint32_t size_file_comment;
    std::uint32_t disk_num_start;
    std::uint32_t internal_fa;
    std::uint32_t external_fa;
    tm_unz tmu_date;
};

// path is handed to the table's open (null for a stream that is already open).
unzFile unzOpen2(const char* path, const zlib_filefunc_def* functions);
// Closes an entry still open for reading and the stream (through the table) and frees.
int unzClose(unzFile file);
int unzGetGlobalInfo(unzFile file, unz_global_info* info);
int unzGoToFirstFile(unzFile file);
int unzGoToNextFile(unzFile file); // UNZ_END_OF_LIST_OF_FILE after the last entry
// Compares the name with the decoded names of the entries, a stored backslash read as "/": ASCII
// letters compared without regard to case, an entry of exactly that name preferred over
// earlier ones that differ in case only; two entries of exactly that name are refused
// (UNZ_BADZIPFILE with a reason, unzRefusal). Names of 256 bytes or more are never found
// (UNZ_PARAMERROR). Not found: UNZ_END_OF_LIST_OF_FILE, current entry unchanged.
int unzLocateFile(unzFile file, const char* name);
// Information about the current entry; name (NUL-terminated when it fits), central extra
// field and comment are copied into the buffers given, each truncated to its size.
int unzGetCurrentFileInfo(unzFile file, unz_file_info* info, char* name, std::uint32_t nameSize,
                          void* extra, std::uint32_t extraSize, char* comment,
                          std::uint32_t commentSize);
// The current entry's name decoded to UTF-8, as a listing shows it (see entry_name.hpp).
int unzGetCurrentFileDecodedName(unzFile file, std::string* name);
// Where the current entry's central record is: its index in the directory and the record's
// file position. Going back there later costs one record read, whatever the archive's size.
int unzGetCurrentFilePosition(unzFile file, std::uint32_t* index, std::uint32_t* recordPosition);
// Makes the record at that index and position current; UNZ_PARAMERROR when they do not name a
// record inside the central directory.
int unzGoToFilePosition(unzFile file, std::uint32_t index, std::uint32_t recordPosition);
// Offset of the current entry's local header, from its central record.
int unzGetCurrentFileLocalHeaderOffset(unzFile file, std::uint32_t* offset);
int unzOpenCurrentFile(unzFile file);
// Bytes read (> 0), 0 at the end of the entry, or a negative UNZ_ code.
int unzReadCurrentFile(unzFile file, void* buffer, unsigned length);
// UNZ_CRCERROR when the whole entry was read and its CRC-32 does not match.
int unzCloseCurrentFile(unzFile file);

} // namespace QOB::MiniZip
