/*
 * qob: create, inspect and edit image packages.
 *
 * Public interface, usable from C11 and C++. Every record is flat, packed on
 * 4-byte boundaries and allocated by the host; its size is part of the ABI.
 */
#ifndef QOB_QOB_H
#define QOB_QOB_H

#include <stdint.h>

#if defined(_WIN32)
#if defined(QOB_BUILDING_LIBRARY)
#define QOB_API __declspec(dllexport)
#else
#define QOB_API __declspec(dllimport)
#endif
#else
#define QOB_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define QOB_MAX_PATH 260
#define QOB_MANIFEST_COUNT 23
#define QOB_MANIFEST_SIZE 16384

/* In C++ the enumerations get int as their fixed base, so that any value a host passes (even
 * one outside the list, which the library then refuses) is a valid value of the type. */
#ifdef __cplusplus
#define QOB_ENUM_BASE : int
#else
#define QOB_ENUM_BASE
#endif

/* Result of every export but QOB_SetLogFn: 0 on success, negative on failure. Each code has
 * a QOB_-prefixed name; a host whose own names clash with the short ones defines
 * QOB_NO_SHORT_NAMES before including this header and uses the prefixed names alone. */
typedef enum QobErrorCode_e QOB_ENUM_BASE {
    QOB_SUCCESS = 0,
    QOB_FILE_NOT_FOUND = -1,
    QOB_FILE_NOT_IN_PACKAGE = -2,
    QOB_DIRECTORY_DOESNOT_EXIST = -3,
    QOB_CREATE_DIRECTORY = -4,
    QOB_EXTRACT_FILE = -5,
    QOB_INVALID_POINTER = -6,
    QOB_INVALID_PARAMETER = -7,
    QOB_PACKAGE_NOT_FOUND = -8,
    QOB_CANNOT_OPEN_FILE_PCK = -9,
    QOB_CANNOT_READ_FILE_PCK = -10,
    QOB_FILE_COUNT_EXCEEDS_MAX = -11,
    QOB_PACKAGEVERSION_NOT_SUPPORTED = -12,
    QOB_CANNOT_DELETE_INTERNAL_FILE = -13,
    QOB_CANNOT_REMOVE_FILE = -14,
    QOB_INTERNAL_INCONSISTENCY = -15,
    QOB_FUNC_NOT_IMPL = -100
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
} QobErrorCode_e;

/* Selects the record that QOB_Constructor and QOB_Destructor handle. */
typedef enum QOB_ObjectType QOB_ENUM_BASE {
    QOB_OBJECT_PACKAGE_INFO = 0,
    QOB_OBJECT_IMAGE_FILES = 1,
    QOB_OBJECT_UPDATE_ARGS = 2,
    QOB_OBJECT_ENTRY_INFO = 3,
    QOB_OBJECT_CREATE_ARGS = 4,
    QOB_OBJECT_EXTRACT_ARGS = 5
} QOB_ObjectType;

/* Field eMode of QOB_ExtractArgs. */
typedef enum QOB_ExtractMode QOB_ENUM_BASE {
    QOB_EXTRACT_ALL = 0,
    QOB_EXTRACT_TO_BUFFER = 1
} QOB_ExtractMode;

/* Field ePackingType of QOB_EntryInfo: where the content comes from. */
typedef enum QOB_CreateMode QOB_ENUM_BASE {
    QOB_PACK_FROM_FILE = 0,
    QOB_PACK_FROM_MEMORY = 1
} QOB_CreateMode;

typedef void (*QobLogFn)(int level, const char* text, void* user);

#pragma pack(push, 4)

/* One file of a package (812 bytes). */
typedef struct QOB_EntryInfo {
    char szPath[QOB_MAX_PATH];       /* path inside the package, or the source on disk */
    char szSecondPath[QOB_MAX_PATH]; /* a second name of the file, filled when reading */
    char szIdentifier[QOB_MAX_PATH]; /* LccID or IccID of a profile */
    uint32_t uReservedSpace;         /* zero padding reserved behind the content */
    uint32_t ePackingType;           /* a QOB_CreateMode */
    uint32_t uStoredSize;            /* content length */
    uint32_t uBufferLength;          /* length of pBuffer's content (QOB_PACK_FROM_MEMORY) */
    uint32_t uDataOffset;            /* where the content starts in the package file */
    uint32_t uTime;                  /* the entry's time stamp */
    const void* pBuffer;             /* content in host memory (QOB_PACK_FROM_MEMORY) */
} QOB_EntryInfo;

/* The file set of the one image a package holds (4084 bytes). */
typedef struct QOB_ImageFiles {
    QOB_EntryInfo raw;
    uint32_t uLccCount;
    QOB_EntryInfo* pLccs;
    QOB_EntryInfo settings;
    QOB_EntryInfo proxy;
    uint32_t uIccCount;
    QOB_EntryInfo* pIccs;
    QOB_EntryInfo mask;
    QOB_EntryInfo hair;
} QOB_ImageFiles;

/* Everything the manifests of a package say (381176 bytes: never put one on the stack). */
typedef struct QOB_PackageInfo {
    char szPackagePath[QOB_MAX_PATH];
    char szManifests[QOB_MANIFEST_COUNT][QOB_MANIFEST_SIZE];
    QOB_ImageFiles files;
} QOB_PackageInfo;

/* Input of QOB_Create (4344 bytes). */
typedef struct QOB_CreateArgs {
    QOB_ImageFiles files;
    char szPackagePath[QOB_MAX_PATH];
} QOB_CreateArgs;

/* Input of QOB_Update (385520 bytes). */
typedef struct QOB_UpdateArgs {
    char szPackagePath[QOB_MAX_PATH];
    QOB_ImageFiles files;
    QOB_PackageInfo info;
} QOB_UpdateArgs;

/* Input of QOB_Extract (1348 bytes). */
typedef struct QOB_ExtractArgs {
    char szPackagePath[QOB_MAX_PATH];
    char szDestination[QOB_MAX_PATH];
    uint32_t eMode; /* a QOB_ExtractMode */
    char szEntryPath[QOB_MAX_PATH];
    char szPath4[QOB_MAX_PATH];
    char szPath5[QOB_MAX_PATH];
    uint8_t reserved[32];
    void* pBuffer;
    uint32_t uBufferSize;
} QOB_ExtractArgs;

#pragma pack(pop)

QOB_API QobErrorCode_e QOB_Create(const QOB_CreateArgs* args);
QOB_API QobErrorCode_e QOB_Extract(QOB_ExtractArgs* args);
QOB_API QobErrorCode_e QOB_Update(QOB_UpdateArgs* args);
QOB_API QobErrorCode_e QOB_GetPackageInfo(QOB_PackageInfo* info);
QOB_API QobErrorCode_e QOB_GetLensCastCalibInfo(const char* szPackagePath, const char* szLccId,
                                                QOB_EntryInfo* entry);
QOB_API QobErrorCode_e QOB_IsQob(const char* szPackagePath);
QOB_API QobErrorCode_e QOB_RemoveEntry(const char* szPackageFullPath,
                                       const char* szFilePathInPackage);
QOB_API QobErrorCode_e QOB_Constructor(void* record, QOB_ObjectType type);
QOB_API QobErrorCode_e QOB_Destructor(void* record, QOB_ObjectType type);

#ifdef __cplusplus
} /* extern "C" */
#endif

/* Installs the host's log sink; a null fn restores the built-in sink that prints to standard
 * output. Exported with C++ linkage, under a decorated name that carries its argument types:
 * on Windows the name MSVC gives it, on Linux the Itanium one. C++ compilers produce their own
 * decoration; MinGW's import library maps its (Itanium) decoration to the DLL's MSVC name. C
 * hosts are led to the same export: through the linker under MSVC, an assembler label under
 * GCC and clang. */
#define QOB_SETLOGFN_MSVC_NAME "?QOB_SetLogFn@@YAXP6AXHPEBDPEAX@Z1@Z"
#define QOB_SETLOGFN_ITANIUM_NAME "_Z12QOB_SetLogFnPFviPKcPvES1_"
#if defined(_WIN32) && defined(QOB_BUILDING_LIBRARY)
#define QOB_SETLOGFN_API /* the DLL exports it through its .def file, under the MSVC name */
#else
#define QOB_SETLOGFN_API QOB_API
#endif
/* clang-format off */
#if defined(__cplusplus)
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

#endif /* QOB_QOB_H */
