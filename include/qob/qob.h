/**
 * @file qob.h
 * @brief qob: create, inspect and edit image packages (the ten package calls).
 *
 * Public interface, usable from C11 and C++. Every record is flat, packed on
 * 4-byte boundaries and allocated by the host; its size is part of the ABI.
 * See the main page for ownership, threading, times and the result codes.
 */
#ifndef QOB_QOB_H
#define QOB_QOB_H

#include <stdint.h>

/** @cond QOB_INTERNAL */
#if defined(_WIN32)
#if defined(QOB_BUILDING_LIBRARY)
#define QOB_API __declspec(dllexport)
#else
#define QOB_API __declspec(dllimport)
#endif
#else
#define QOB_API __attribute__((visibility("default")))
#endif
/** @endcond */

#ifdef __cplusplus
extern "C" {
#endif

/** Size of every path field: at most 259 bytes of UTF-8 and the terminating zero. */
#define QOB_MAX_PATH 260
/** Number of manifests a package holds (QOB_PackageInfo::szManifests has one row each). */
#define QOB_MANIFEST_COUNT 23
/** Size of one manifest text in QOB_PackageInfo, terminating zero included. */
#define QOB_MANIFEST_SIZE 16384

/** @cond QOB_INTERNAL */
/* In C++ the enumerations get int as their fixed base, so that any value a host passes (even
 * one outside the list, which the library then refuses) is a valid value of the type. */
#ifdef __cplusplus
#define QOB_ENUM_BASE : int
#else
#define QOB_ENUM_BASE
#endif
/** @endcond */

/**
 * Result of every call but QOB_SetLogFn: 0 on success, negative on failure, so a host tests
 * `result < 0`. The values -16 to -99 are unused. The message and the system's reason of a
 * failure are in the calling thread's last-error record (QOBX_LastError in qob_ext.h).
 *
 * Each code has a QOB_-prefixed name and a short one (QOB_SUCCESS and SUCCESS); a host whose
 * own names clash with the short ones defines QOB_NO_SHORT_NAMES before including this header
 * and uses the prefixed names alone.
 */
typedef enum QobErrorCode_e QOB_ENUM_BASE {
    /** the call did what it was asked */
    QOB_SUCCESS = 0,
    /** a file on disk to be packed does not exist */
    QOB_FILE_NOT_FOUND = -1,
    /** an entry, manifest or LCC identifier is not in the package */
    QOB_FILE_NOT_IN_PACKAGE = -2,
    /** a directory that must exist does not */
    QOB_DIRECTORY_DOESNOT_EXIST = -3,
    /** a directory could not be created */
    QOB_CREATE_DIRECTORY = -4,
    /** an entry could not be written out */
    QOB_EXTRACT_FILE = -5,
    /** a required pointer argument is null */
    QOB_INVALID_POINTER = -6,
    /** an unterminated or too long string, an enumeration out of range, or a
       request the package cannot hold */
    QOB_INVALID_PARAMETER = -7,
    /** the package file does not exist */
    QOB_PACKAGE_NOT_FOUND = -8,
    /** the package cannot be opened as a zip */
    QOB_CANNOT_OPEN_FILE_PCK = -9,
    /** the package or its manifest cannot be read or parsed */
    QOB_CANNOT_READ_FILE_PCK = -10,
    /** the manifest lists more than 10 files */
    QOB_FILE_COUNT_EXCEEDS_MAX = -11,
    /** the manifest's version is not 0 or 1 */
    QOB_PACKAGEVERSION_NOT_SUPPORTED = -12,
    /** an entry could not be deleted */
    QOB_CANNOT_DELETE_INTERNAL_FILE = -13,
    /** a file could not be removed or replaced (an existing package at a
       create's path) */
    QOB_CANNOT_REMOVE_FILE = -14,
    /** any other failure; where the call's documented message is fixed (a
       full disk, a buffer too small) the last-error record carries the system's cause */
    QOB_INTERNAL_INCONSISTENCY = -15,
    /** the function is not implemented */
    QOB_FUNC_NOT_IMPL = -100
/** @cond QOB_SHORT_NAMES */
#ifndef QOB_NO_SHORT_NAMES
    ,
    SUCCESS = 0,
    FILE_NOT_FOUND = -1,
    FILE_NOT_IN_PACKAGE = -2,
    DIRECTORY_DOESNOT_EXIST = -3,
    CREATE_DIRECTORY = -4,
    EXTRACT_FILE = -5,
    INVALID_POINTER = -6,
    INVALID_PARAMETER = -7,
    PACKAGE_NOT_FOUND = -8,
    CANNOT_OPEN_FILE_PCK = -9,
    CANNOT_READ_FILE_PCK = -10,
    FILE_COUNT_EXCEEDS_MAX = -11,
    PACKAGEVERSION_NOT_SUPPORTED = -12,
    CANNOT_DELETE_INTERNAL_FILE = -13,
    CANNOT_REMOVE_FILE = -14,
    INTERNAL_INCONSISTENCY = -15,
    FUNC_NOT_IMPL = -100
#endif
    /** @endcond */
} QobErrorCode_e;

/** Selects the record that QOB_Constructor and QOB_Destructor handle. */
typedef enum QOB_ObjectType QOB_ENUM_BASE {
    QOB_OBJECT_PACKAGE_INFO = 0, /**< a QOB_PackageInfo */
    QOB_OBJECT_IMAGE_FILES = 1,  /**< a QOB_ImageFiles */
    QOB_OBJECT_UPDATE_ARGS = 2,  /**< a QOB_UpdateArgs (the destructor frees nothing in it) */
    QOB_OBJECT_ENTRY_INFO = 3,   /**< a QOB_EntryInfo */
    QOB_OBJECT_CREATE_ARGS = 4,  /**< a QOB_CreateArgs */
    QOB_OBJECT_EXTRACT_ARGS = 5  /**< a QOB_ExtractArgs */
} QOB_ObjectType;

/** Field eMode of QOB_ExtractArgs. */
typedef enum QOB_ExtractMode QOB_ENUM_BASE {
    QOB_EXTRACT_ALL = 0,      /**< write every file of the package under szDestination */
    QOB_EXTRACT_TO_BUFFER = 1 /**< read the one entry szEntryPath into pBuffer */
} QOB_ExtractMode;

/** Field ePackingType of QOB_EntryInfo: where the content comes from. */
typedef enum QOB_CreateMode QOB_ENUM_BASE {
    QOB_PACK_FROM_FILE = 0,  /**< the file on disk that szPath names */
    QOB_PACK_FROM_MEMORY = 1 /**< uBufferLength bytes at pBuffer */
} QOB_CreateMode;

/**
 * A log sink: called with each log line, on the thread of the call that logs it, while the
 * call holds its lock (so it must not call the library).
 * @param level 0 FATAL, 1 ERROR, 2 WARN, 3 INFO, 4 DEBUG, 5 TRACE
 * @param text the whole line, level prefix included ("[QOB][ERROR] ..."), UTF-8
 * @param user the value given to QOB_SetLogFn
 */
typedef void (*QobLogFn)(int level, const char* text, void* user);

#pragma pack(push, 4)

/** One file of a package (812 bytes). */
typedef struct QOB_EntryInfo {
    /** path inside the package, or the source on disk */
    char szPath[QOB_MAX_PATH];
    /** a second name of the file, filled when reading */
    char szSecondPath[QOB_MAX_PATH];
    /** LccID or IccID of a profile */
    char szIdentifier[QOB_MAX_PATH];
    /** zero padding reserved behind the content (on reading: the space the entry has beyond its
     * content) */
    uint32_t uReservedSpace;
    /** a QOB_CreateMode */
    uint32_t ePackingType;
    /** content length */
    uint32_t uStoredSize;
    /** length of pBuffer's content (QOB_PACK_FROM_MEMORY) */
    uint32_t uBufferLength;
    /** where the content starts in the package file */
    uint32_t uDataOffset;
    /** the entry's time as a DOS date (high 16 bits) and time (low 16 bits) in the local time of
     * the machine that wrote it; 0 when unknown, and always 0 from QOB_GetLensCastCalibInfo */
    uint32_t uTime;
    /** content in host memory (QOB_PACK_FROM_MEMORY) */
    const void* pBuffer;
} QOB_EntryInfo;

/**
 * The file set of the one image a package holds (4084 bytes). The two lists belong to whoever
 * filled them: the host's in QOB_CreateArgs and QOB_UpdateArgs::files, the library's in a
 * QOB_PackageInfo that QOB_GetPackageInfo filled (freed by QOB_Destructor).
 */
typedef struct QOB_ImageFiles {
    /** the raw image */
    QOB_EntryInfo raw;
    /** number of records at pLccs */
    uint32_t uLccCount;
    /** the lens cast calibration profiles; null when uLccCount is 0 */
    QOB_EntryInfo* pLccs;
    /** the settings file; empty szPath when there is none */
    QOB_EntryInfo settings;
    /** the proxy preview; empty szPath when there is none */
    QOB_EntryInfo proxy;
    /** number of records at pIccs */
    uint32_t uIccCount;
    /** the ICC profiles; null when uIccCount is 0 */
    QOB_EntryInfo* pIccs;
    /** the mask; empty szPath when there is none */
    QOB_EntryInfo mask;
    /** the hair mask; empty szPath when there is none */
    QOB_EntryInfo hair;
} QOB_ImageFiles;

/** Everything the manifests of a package say (381176 bytes: never put one on the stack). */
typedef struct QOB_PackageInfo {
    /** the package file (input of QOB_GetPackageInfo) */
    char szPackagePath[QOB_MAX_PATH];
    /** The text of each manifest, in the library's order of manifest names; "" when absent. */
    char szManifests[QOB_MANIFEST_COUNT][QOB_MANIFEST_SIZE];
    /** the files the primary manifest names */
    QOB_ImageFiles files;
} QOB_PackageInfo;

/** Input of QOB_Create (4344 bytes). */
typedef struct QOB_CreateArgs {
    /** the files to pack; raw is required */
    QOB_ImageFiles files;
    /** the package to write; it must not exist */
    char szPackagePath[QOB_MAX_PATH];
} QOB_CreateArgs;

/**
 * Input of QOB_Update (385520 bytes). QOB_Destructor with QOB_OBJECT_UPDATE_ARGS frees
 * nothing: release the lists of info with QOB_Destructor(&args->info, QOB_OBJECT_PACKAGE_INFO).
 */
typedef struct QOB_UpdateArgs {
    /** the package to change */
    char szPackagePath[QOB_MAX_PATH];
    /** the new or changed files (the host's lists) */
    QOB_ImageFiles files;
    /** the package as QOB_GetPackageInfo last read it; current again after a successful update */
    QOB_PackageInfo info;
} QOB_UpdateArgs;

/** Input of QOB_Extract (1348 bytes). */
typedef struct QOB_ExtractArgs {
    /** the package to read */
    char szPackagePath[QOB_MAX_PATH];
    /** the directory QOB_EXTRACT_ALL writes under */
    char szDestination[QOB_MAX_PATH];
    /** a QOB_ExtractMode */
    uint32_t eMode;
    /** the entry QOB_EXTRACT_TO_BUFFER reads */
    char szEntryPath[QOB_MAX_PATH];
    /** reserved: must hold a terminating zero */
    char szPath4[QOB_MAX_PATH];
    /** reserved: must hold a terminating zero */
    char szPath5[QOB_MAX_PATH];
    /** reserved: leave zero */
    uint8_t reserved[32];
    /** where QOB_EXTRACT_TO_BUFFER writes the content */
    void* pBuffer;
    /** capacity of pBuffer; a smaller entry leaves the rest untouched */
    uint32_t uBufferSize;
} QOB_ExtractArgs;

#pragma pack(pop)

/**
 * Writes a new package from a raw image and its companion files. All or nothing: a failed
 * create leaves no file behind.
 * @param args the files (each with its QOB_CreateMode) and the package path
 * @return SUCCESS, or a negative code
 */
QOB_API QobErrorCode_e QOB_Create(const QOB_CreateArgs* args);
/**
 * Writes every file of a package under a directory, or reads one entry into a buffer.
 * @param args package, mode, and the destination or the entry and buffer
 * @return SUCCESS, or a negative code (a buffer too small: INTERNAL_INCONSISTENCY)
 */
QOB_API QobErrorCode_e QOB_Extract(QOB_ExtractArgs* args);
/**
 * Puts new or changed companion files into a package; a file that fits its entry's reserved
 * space is rewritten in place. All or nothing.
 * @param args the package, the new files, and its description as last read
 * @return SUCCESS, or a negative code
 */
QOB_API QobErrorCode_e QOB_Update(QOB_UpdateArgs* args);
/**
 * Reads what the manifests of a package say. The LCC and ICC lists it allocates belong to the
 * record until QOB_Destructor(info, QOB_OBJECT_PACKAGE_INFO) frees them; lists the record
 * already owned are freed first.
 * @param info szPackagePath in; everything else out
 * @return SUCCESS, or a negative code
 */
QOB_API QobErrorCode_e QOB_GetPackageInfo(QOB_PackageInfo* info);
/**
 * Finds one lens cast calibration profile by its identifier (compared exactly).
 * @param szPackagePath the package
 * @param szLccId the profile's identifier
 * @param entry out: the profile's record (its uTime stays 0)
 * @return SUCCESS, FILE_NOT_IN_PACKAGE when no profile has the identifier, or another code
 */
QOB_API QobErrorCode_e QOB_GetLensCastCalibInfo(const char* szPackagePath, const char* szLccId,
                                                QOB_EntryInfo* entry);
/**
 * Whether a file is an image package of a version the library reads.
 * @param szPackagePath the file
 * @return SUCCESS when it is; otherwise the code that says why not
 */
QOB_API QobErrorCode_e QOB_IsQob(const char* szPackagePath);
/**
 * Removes one entry from a package and from its manifests, and compacts the file.
 * @param szPackageFullPath the package
 * @param szFilePathInPackage the entry's name
 * @return SUCCESS, or a negative code
 */
QOB_API QobErrorCode_e QOB_RemoveEntry(const char* szPackageFullPath,
                                       const char* szFilePathInPackage);
/**
 * Brings a record into its empty state: all zero bytes over the type's size. It frees nothing
 * the record held before.
 * @param record the host's record
 * @param type which record it is
 * @return SUCCESS, INVALID_POINTER or INVALID_PARAMETER
 */
QOB_API QobErrorCode_e QOB_Constructor(void* record, QOB_ObjectType type);
/**
 * Frees what the library allocated in a record: the LCC and ICC lists of a QOB_PackageInfo.
 * For every other type it frees nothing (the lists there are the host's); a QOB_UpdateArgs'
 * info is released with its own type. Calling it twice is harmless.
 * @param record the host's record
 * @param type which record it is
 * @return SUCCESS, INVALID_POINTER or INVALID_PARAMETER
 */
QOB_API QobErrorCode_e QOB_Destructor(void* record, QOB_ObjectType type);

#ifdef __cplusplus
} /* extern "C" */
#endif

/* QOB_SetLogFn is exported with C++ linkage, under a decorated name that carries its argument
 * types: on Windows the name MSVC gives it, on Linux the Itanium one. C++ compilers produce
 * their own decoration; MinGW's import library maps its (Itanium) decoration to the DLL's MSVC
 * name. C hosts are led to the same export: through the linker under MSVC, an assembler label
 * under GCC and clang. */
/** The exported name of QOB_SetLogFn in qob.dll (for GetProcAddress). */
#define QOB_SETLOGFN_MSVC_NAME "?QOB_SetLogFn@@YAXP6AXHPEBDPEAX@Z1@Z"
/** The exported name of QOB_SetLogFn in libqob.so (for dlsym). */
#define QOB_SETLOGFN_ITANIUM_NAME "_Z12QOB_SetLogFnPFviPKcPvES1_"
/** @cond QOB_INTERNAL */
#if defined(_WIN32) && defined(QOB_BUILDING_LIBRARY)
#define QOB_SETLOGFN_API /* the DLL exports it through its .def file, under the MSVC name */
#else
#define QOB_SETLOGFN_API QOB_API
#endif
/** @endcond */
/* clang-format off */
#if defined(__cplusplus)
/**
 * Installs the host's log sink for every thread; a null fn restores the built-in sink, which
 * prints every line to standard output. Set it once, before other calls. Exported with C++
 * linkage under a decorated name (#QOB_SETLOGFN_MSVC_NAME on Windows,
 * #QOB_SETLOGFN_ITANIUM_NAME elsewhere); C hosts reach it through this header.
 * @param fn the sink, or null
 * @param user passed back to fn with every line
 */
QOB_SETLOGFN_API void QOB_SetLogFn(QobLogFn fn, void* user);
#elif defined(_MSC_VER)
#pragma comment(linker, "/alternatename:__imp_QOB_SetLogFn=__imp_?QOB_SetLogFn@@YAXP6AXHPEBDPEAX@Z1@Z")
#pragma comment(linker, "/alternatename:QOB_SetLogFn=?QOB_SetLogFn@@YAXP6AXHPEBDPEAX@Z1@Z")
QOB_SETLOGFN_API void QOB_SetLogFn(QobLogFn fn, void* user);
#else
QOB_SETLOGFN_API void QOB_SetLogFn(QobLogFn fn, void* user) __asm__("_Z12QOB_SetLogFnPFviPKcPvES1_");
#endif
/* clang-format on */
#undef QOB_SETLOGFN_API

/** @cond QOB_INTERNAL */
/* The record layout is ABI: pin every size and offset. */
#ifdef __cplusplus
#define QOB_STATIC_ASSERT(c, m) static_assert(c, m)
#else
#define QOB_STATIC_ASSERT(c, m) _Static_assert(c, m)
#endif
#define QOB_CHECK_OFFSET(T, f, o) QOB_STATIC_ASSERT(offsetof(T, f) == (o), #T "." #f " offset")

#include <stddef.h>
QOB_STATIC_ASSERT(sizeof(void*) == 8, "qob is a 64-bit library");
QOB_STATIC_ASSERT(sizeof(QobErrorCode_e) == 4, "result codes are 32-bit");
QOB_STATIC_ASSERT(sizeof(QOB_EntryInfo) == 812, "QOB_EntryInfo size");
QOB_CHECK_OFFSET(QOB_EntryInfo, szSecondPath, 260);
QOB_CHECK_OFFSET(QOB_EntryInfo, szIdentifier, 520);
QOB_CHECK_OFFSET(QOB_EntryInfo, uReservedSpace, 780);
QOB_CHECK_OFFSET(QOB_EntryInfo, ePackingType, 784);
QOB_CHECK_OFFSET(QOB_EntryInfo, uStoredSize, 788);
QOB_CHECK_OFFSET(QOB_EntryInfo, uBufferLength, 792);
QOB_CHECK_OFFSET(QOB_EntryInfo, uDataOffset, 796);
QOB_CHECK_OFFSET(QOB_EntryInfo, uTime, 800);
QOB_CHECK_OFFSET(QOB_EntryInfo, pBuffer, 804);
QOB_STATIC_ASSERT(sizeof(QOB_ImageFiles) == 4084, "QOB_ImageFiles size");
QOB_CHECK_OFFSET(QOB_ImageFiles, uLccCount, 812);
QOB_CHECK_OFFSET(QOB_ImageFiles, pLccs, 816);
QOB_CHECK_OFFSET(QOB_ImageFiles, settings, 824);
QOB_CHECK_OFFSET(QOB_ImageFiles, proxy, 1636);
QOB_CHECK_OFFSET(QOB_ImageFiles, uIccCount, 2448);
QOB_CHECK_OFFSET(QOB_ImageFiles, pIccs, 2452);
QOB_CHECK_OFFSET(QOB_ImageFiles, mask, 2460);
QOB_CHECK_OFFSET(QOB_ImageFiles, hair, 3272);
QOB_STATIC_ASSERT(sizeof(QOB_PackageInfo) == 381176, "QOB_PackageInfo size");
QOB_CHECK_OFFSET(QOB_PackageInfo, szManifests, 260);
QOB_CHECK_OFFSET(QOB_PackageInfo, files, 377092);
QOB_STATIC_ASSERT(sizeof(QOB_CreateArgs) == 4344, "QOB_CreateArgs size");
QOB_CHECK_OFFSET(QOB_CreateArgs, szPackagePath, 4084);
QOB_STATIC_ASSERT(sizeof(QOB_UpdateArgs) == 385520, "QOB_UpdateArgs size");
QOB_CHECK_OFFSET(QOB_UpdateArgs, files, 260);
QOB_CHECK_OFFSET(QOB_UpdateArgs, info, 4344);
QOB_STATIC_ASSERT(sizeof(QOB_ExtractArgs) == 1348, "QOB_ExtractArgs size");
QOB_CHECK_OFFSET(QOB_ExtractArgs, szDestination, 260);
QOB_CHECK_OFFSET(QOB_ExtractArgs, eMode, 520);
QOB_CHECK_OFFSET(QOB_ExtractArgs, szEntryPath, 524);
QOB_CHECK_OFFSET(QOB_ExtractArgs, szPath4, 784);
QOB_CHECK_OFFSET(QOB_ExtractArgs, szPath5, 1044);
QOB_CHECK_OFFSET(QOB_ExtractArgs, reserved, 1304);
QOB_CHECK_OFFSET(QOB_ExtractArgs, pBuffer, 1336);
QOB_CHECK_OFFSET(QOB_ExtractArgs, uBufferSize, 1344);
#undef QOB_CHECK_OFFSET
#undef QOB_STATIC_ASSERT
/** @endcond */

#endif /* QOB_QOB_H */
