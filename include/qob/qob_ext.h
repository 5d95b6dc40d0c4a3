/**
 * @file qob_ext.h
 * @brief qob extensions: what a host needs beside the ten package calls of qob.h.
 *
 * Every function here is exported with C linkage under the QOBX_ prefix. The calls that take a
 * package run in the same frame as the ten (the same locks, log lines and result codes) and,
 * like the ten, fill the calling thread's last-error record (QOBX_LastError). No memory is
 * owned by the library across calls: every output goes into host memory.
 *
 * Threads: every package call of every thread and process takes turns on one lock; a log sink
 * is called on the thread making the call. The last-error record and the progress function
 * belong to the calling thread; the built-in sink's level is the process's.
 */
#ifndef QOB_QOB_EXT_H
#define QOB_QOB_EXT_H

#include "qob/qob.h"

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @name Version
 *  The version of the headers a host was compiled with; QOBX_Version gives the library's. */
/** @{ */
/** Major version: a library of the same major version runs every host built for it. */
#define QOB_VERSION_MAJOR 0
/** Minor version of the headers. */
#define QOB_VERSION_MINOR 2
/** Patch version of the headers. */
#define QOB_VERSION_PATCH 0
/** The three numbers as "MAJOR.MINOR.PATCH", the form QOBX_Version returns. */
#define QOB_VERSION_STRING "0.2.0"
/** @} */

/** Longest entry name, in bytes of UTF-8 with its terminating zero, that a listing returns: a
 *  package holding a longer one cannot be listed (CANNOT_READ_FILE_PCK, the name as subject). */
#define QOBX_MAX_NAME 1024
/** Size of the text fields of the last-error record. */
#define QOBX_MAX_MESSAGE 1024

#pragma pack(push, 4)

/**
 * Why the calling thread's last exported call failed (code SUCCESS and empty texts after a call
 * that succeeded). Filled by every call that returns a QobErrorCode_e; QOBX_LastError,
 * QOBX_CodeName, QOBX_Version and the setters leave it alone. All texts are UTF-8 and
 * zero-terminated, cut between characters to fit.
 *
 * The code and message are those the ten calls have always given; the system's reason is never
 * appended to the message but given here apart. So INTERNAL_INCONSISTENCY keeps its fixed texts
 * and the record tells them apart: a full disk is "minizip returned ZIP_ERRNO" with ENOSPC
 * (ERROR_DISK_FULL), a package the user may not write the same with EACCES; "write error" and
 * "read error" name the file copied and carry the system's error; a buffer too small names the
 * entry; a name that is not UTF-8 carries EILSEQ; a file-system failure ("caught std: ...")
 * carries its error and its path. When a failure names nothing itself, subject is the package
 * the call was given.
 */
typedef struct QOBX_Error {
    int32_t code;                   /**< a QobErrorCode_e */
    int32_t systemError;            /**< errno, or GetLastError on Windows (errno for some
                                         file-system queries there); 0: none */
    char codeName[32];              /**< the code's name, "SUCCESS" for 0 */
    char message[QOBX_MAX_MESSAGE]; /**< the failure line's text after "<call>: " and any
                                         "[<code name>] " */
    char systemMessage[256];        /**< the system's text for systemError; "" when none */
    char subject[QOBX_MAX_MESSAGE]; /**< the path or entry name concerned; "" when none */
} QOBX_Error;

/** One zip entry of a package, as QOBX_ListEntries gives it. */
typedef struct QOBX_EntryStat {
    char name[QOBX_MAX_NAME]; /**< decoded to UTF-8; pass it unchanged to QOBX_ReadEntry */
    uint64_t contentSize;     /**< bytes of content, padding excluded */
    uint64_t allocatedSize;   /**< content plus reserved zero padding, as stored */
    uint64_t dataOffset;      /**< where the stored data starts, counted from the file's start */
    uint32_t crc32;           /**< the central directory's CRC-32 (content and padding) */
    uint32_t method;          /**< 0 stored, 8 deflated */
    uint32_t dosTime;         /**< stored local DOS date (high 16 bits) and time (low 16 bits) */
    uint32_t reserved;        /**< zero */
    int64_t unixTime; /**< dosTime as UTC seconds, read in the machine's time zone; 0 if invalid */
} QOBX_EntryStat;

#pragma pack(pop)

/**
 * The library's version, to compare with QOB_VERSION_STRING.
 * @return "MAJOR.MINOR.PATCH"; a static string, never null
 */
QOB_API const char* QOBX_Version(void);

/**
 * Copies the calling thread's last-error record.
 * @param error where the record is copied; null to get only the code
 * @return the record's code, SUCCESS when the last call succeeded
 */
QOB_API QobErrorCode_e QOBX_LastError(QOBX_Error* error);

/**
 * The name of a result code.
 * @param code a QobErrorCode_e value
 * @return its name ("CANNOT_READ_FILE_PCK"), "UNKNOWN" for a value outside the list; a static
 *         string
 */
QOB_API const char* QOBX_CodeName(int32_t code);

/**
 * Lists every zip entry of a package in central-directory order. With capacity 0 (entries may
 * be null) it only sets *count; otherwise it fills min(capacity, count) records and sets *count
 * to the total, so a second call with a large enough array gets them all.
 * @param szPackagePath the package, UTF-8
 * @param entries the host's array of capacity records; may be null when capacity is 0
 * @param capacity how many records entries holds
 * @param count set to the number of entries in the package
 * @return SUCCESS, or the code of the failure (QOBX_LastError tells why)
 */
QOB_API QobErrorCode_e QOBX_ListEntries(const char* szPackagePath, QOBX_EntryStat* entries,
                                        uint32_t capacity, uint32_t* count);

/**
 * Reads up to size bytes of one entry's content, from offset on, into buffer; *read is set to
 * what was read (0 at or past the end). The entry is named exactly as the listing gives it.
 * Stateless: a host streams an entry of any size in constant memory with successive calls. The
 * CRC-32 is checked when a read reaches the content's end: that read goes through the whole
 * entry (zero padding included), so streaming an entry costs one extra pass. Other reads of a
 * stored entry go straight to their bytes; reading a deflated entry from an offset costs time
 * in proportion to the offset.
 * @param szPackagePath the package, UTF-8
 * @param szEntryName the entry's name as QOBX_ListEntries gives it
 * @param offset where to start in the entry's content
 * @param buffer the host's buffer of at least size bytes
 * @param size how many bytes to read at most
 * @param read set to the number of bytes read
 * @return SUCCESS, or the code of the failure (QOBX_LastError tells why)
 */
QOB_API QobErrorCode_e QOBX_ReadEntry(const char* szPackagePath, const char* szEntryName,
                                      uint64_t offset, void* buffer, uint32_t size, uint32_t* read);

/**
 * The most detailed level (0 FATAL ... 5 TRACE) the built-in sink prints; lines of a higher
 * level are dropped. The default, 5, prints every line. A host's own sink gets every line.
 * @param level 0 FATAL, 1 ERROR, 2 WARN, 3 INFO, 4 DEBUG or 5 TRACE
 */
QOB_API void QOBX_SetLogLevel(int32_t level);

/**
 * A progress function, called from inside a long call on the host's thread.
 * @param done bytes done so far
 * @param total bytes in all
 * @param user the value given to QOBX_SetProgressFn
 */
typedef void (*QOBX_ProgressFn)(uint64_t done, uint64_t total, void* user);

/**
 * Progress of long work on the calling thread: fn is called from inside the call with the
 * bytes done and the bytes in all (a create's contents, an extraction's files, the bytes a
 * removal moves), at most a few times a second, and once more with done equal to the total
 * when the work is complete. Per thread. fn must not call the library: the call it reports on
 * holds the package's locks.
 * @param fn the function to call; null turns progress off
 * @param user passed back to fn unchanged
 */
QOB_API void QOBX_SetProgressFn(QOBX_ProgressFn fn, void* user);

#ifdef __cplusplus
} /* extern "C" */
#endif

/** @cond QOB_INTERNAL */
/* The record layout is ABI: pin every size and offset. */
#ifdef __cplusplus
#define QOBX_STATIC_ASSERT(c, m) static_assert(c, m)
#else
#define QOBX_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif
#define QOBX_CHECK_OFFSET(T, f, o) QOBX_STATIC_ASSERT(offsetof(T, f) == (o), #T "." #f " offset")
QOBX_STATIC_ASSERT(sizeof(QOBX_Error) == 2344, "QOBX_Error size");
QOBX_CHECK_OFFSET(QOBX_Error, systemError, 4);
QOBX_CHECK_OFFSET(QOBX_Error, codeName, 8);
QOBX_CHECK_OFFSET(QOBX_Error, message, 40);
QOBX_CHECK_OFFSET(QOBX_Error, systemMessage, 1064);
QOBX_CHECK_OFFSET(QOBX_Error, subject, 1320);
QOBX_STATIC_ASSERT(sizeof(QOBX_EntryStat) == 1072, "QOBX_EntryStat size");
QOBX_CHECK_OFFSET(QOBX_EntryStat, contentSize, 1024);
QOBX_CHECK_OFFSET(QOBX_EntryStat, allocatedSize, 1032);
QOBX_CHECK_OFFSET(QOBX_EntryStat, dataOffset, 1040);
QOBX_CHECK_OFFSET(QOBX_EntryStat, crc32, 1048);
QOBX_CHECK_OFFSET(QOBX_EntryStat, method, 1052);
QOBX_CHECK_OFFSET(QOBX_EntryStat, dosTime, 1056);
QOBX_CHECK_OFFSET(QOBX_EntryStat, reserved, 1060);
QOBX_CHECK_OFFSET(QOBX_EntryStat, unixTime, 1064);
#undef QOBX_CHECK_OFFSET
#undef QOBX_STATIC_ASSERT
/** @endcond */

#endif /* QOB_QOB_EXT_H */
