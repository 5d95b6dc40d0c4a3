/* The extension interface from a C11 host: version, code names, the entry listing, ranged
 * reads, the default sink's level, progress, and the last-error record after each kind of
 * failure a host meets. Works in the current directory; paths stay relative so that the
 * record's subject can be compared exactly, under Wine too. */
#if !defined(_WIN32) && !defined(_POSIX_C_SOURCE)
#define _POSIX_C_SOURCE 200809L /* dup, dup2, fileno under -std=c11 */
#endif
#include "host_ext.h"

#include <qob/qob_ext.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#ifdef _WIN32
#include <io.h>
#define SYS(posix, win32) (win32)
#define dup _dup
#define dup2 _dup2
#define close _close
#define fileno _fileno
#else
#include <unistd.h>
#define SYS(posix, win32) (posix)
#endif

static int g_failures;

void Fail(const char* what, const char* detail) {
    fprintf(stderr, "c host: %s: %s\n", what, detail);
    ++g_failures;
}

/* CRC-32 as zip stores it, bit by bit: the host needs no table. */
static uint32_t Crc32(uint32_t crc, const unsigned char* bytes, size_t size) {
    size_t i;
    int bit;
    crc = ~crc;
    for (i = 0; i < size; ++i) {
        crc ^= bytes[i];
        for (bit = 0; bit < 8; ++bit) {
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
        }
    }
    return ~crc;
}

static void Put16(FILE* file, unsigned value) {
    fputc((int)(value & 0xFF), file);
    fputc((int)((value >> 8) & 0xFF), file);
}

static void Put32(FILE* file, uint32_t value) {
    Put16(file, value & 0xFFFF);
    Put16(file, value >> 16);
}

/* A zip of one stored entry, as any zip tool writes it: no manifests, no padding field. Its
 * headers claim claimed bytes (0: the content's real size). */
static void WriteZip(const char* path, const char* name, const char* content, uint32_t claimed) {
    const unsigned nameLength = (unsigned)strlen(name);
    const uint32_t real = (uint32_t)strlen(content);
    const uint32_t size = claimed != 0 ? claimed : real;
    const uint32_t crc = Crc32(0, (const unsigned char*)content, real);
    const uint32_t dos = (uint32_t)((44u << 25) | (1u << 21) | (1u << 16)); /* 2024-01-01 */
    FILE* file = fopen(path, "wb");
    if (file == NULL) {
        Fail("plain zip", "cannot write");
        return;
    }
    Put32(file, 0x04034b50);
    /* General purpose bit 11: the name is UTF-8 (without it, readers take it for CP437). */
    Put16(file, 10), Put16(file, 0x0800), Put16(file, 0), Put32(file, dos);
    Put32(file, crc), Put32(file, size), Put32(file, size);
    Put16(file, nameLength), Put16(file, 0);
    fwrite(name, 1, nameLength, file);
    fwrite(content, 1, real, file);
    Put32(file, 0x02014b50);
    Put16(file, 20), Put16(file, 10), Put16(file, 0x0800), Put16(file, 0), Put32(file, dos);
    Put32(file, crc), Put32(file, size), Put32(file, size);
    Put16(file, nameLength), Put16(file, 0), Put16(file, 0), Put16(file, 0), Put16(file, 0);
    Put32(file, 0), Put32(file, 0);
    fwrite(name, 1, nameLength, file);
    Put32(file, 0x06054b50);
    Put16(file, 0), Put16(file, 0), Put16(file, 1), Put16(file, 1);
    Put32(file, 46 + nameLength), Put32(file, 30 + nameLength + real), Put16(file, 0);
    fclose(file);
}

static void WritePlainZip(const char* path, const char* name, const char* content) {
    WriteZip(path, name, content, 0);
}

static void WriteText(const char* path, const char* text) {
    FILE* file = fopen(path, "wb");
    if (file != NULL) {
        fputs(text, file);
        fclose(file);
    }
}

/* A package of one raw image from memory, and nothing else. */
QobErrorCode_e MakePackage(const char* path, const void* raw, uint32_t size) {
    static QOB_CreateArgs args;
    QOB_Constructor(&args, QOB_OBJECT_CREATE_ARGS);
    strcpy(args.files.raw.szPath, "IMG_0001.CR3");
    args.files.raw.ePackingType = QOB_PACK_FROM_MEMORY;
    args.files.raw.pBuffer = raw;
    args.files.raw.uBufferLength = size;
    snprintf(args.szPackagePath, sizeof args.szPackagePath, "%s", path);
    remove(path);
    return QOB_Create(&args);
}

static QOBX_Error g_error;

void ExpectRecord(const char* what, QobErrorCode_e result, const struct Want* want) {
    char detail[2400];
    const QobErrorCode_e recorded = QOBX_LastError(&g_error);
    const int systemOk = want->systemError == -1 ? g_error.systemError != 0
                                                 : g_error.systemError == want->systemError;
    int textOk = (g_error.systemError == 0) == (g_error.systemMessage[0] == '\0');
#ifndef _WIN32
    textOk = textOk && (g_error.systemError == 0 ||
                        strcmp(g_error.systemMessage, strerror(g_error.systemError)) == 0);
#endif
    if (result != want->code || recorded != want->code || g_error.code != want->code ||
        strcmp(g_error.codeName, QOBX_CodeName(want->code)) != 0 ||
        strcmp(g_error.message, want->message) != 0 || !systemOk || !textOk ||
        strcmp(g_error.subject, want->subject) != 0) {
        snprintf(detail, sizeof detail,
                 "result %d, record %d %s \"%s\" system %d \"%s\" subject \"%s\"", (int)result,
                 (int)g_error.code, g_error.codeName, g_error.message, (int)g_error.systemError,
                 g_error.systemMessage, g_error.subject);
        Fail(what, detail);
    }
}

static const char kPackage[] = "ext.qob";
static QOBX_EntryStat g_entriesSpare[1];
static const char kPlain[] = "ext_plain.zip";
static const char kText[] = "ext_text.qob";
static const char kRawName[] = "IMG_0001.CR3";
enum { kRawSize = 300000 };
static unsigned char g_raw[kRawSize];

static QOB_ExtractArgs g_extract;
static QOB_PackageInfo g_info;
static char g_small[4];

static QobErrorCode_e ExtractToBuffer(const char* package, const char* entry, void* buffer,
                                      uint32_t size) {
    QOB_Constructor(&g_extract, QOB_OBJECT_EXTRACT_ARGS);
    strcpy(g_extract.szPackagePath, package);
    strcpy(g_extract.szEntryPath, entry);
    g_extract.eMode = QOB_EXTRACT_TO_BUFFER;
    g_extract.pBuffer = buffer;
    g_extract.uBufferSize = size;
    return QOB_Extract(&g_extract);
}

/* The record is read before the record's lists are freed: that call succeeds and resets it. */
static QobErrorCode_e GetInfo(const char* package, QOBX_Error* error) {
    QobErrorCode_e result;
    QOB_Constructor(&g_info, QOB_OBJECT_PACKAGE_INFO);
    strcpy(g_info.szPackagePath, package);
    result = QOB_GetPackageInfo(&g_info);
    QOBX_LastError(error);
    QOB_Destructor(&g_info, QOB_OBJECT_PACKAGE_INFO);
    return result;
}

static QobErrorCode_e ReadInto(const char* package, const char* entry) {
    char buffer[16];
    uint32_t read = 0;
    return QOBX_ReadEntry(package, entry, 0, buffer, sizeof buffer, &read);
}

static QobErrorCode_e ListCount(const char* package) {
    uint32_t count = 0;
    return QOBX_ListEntries(package, NULL, 0, &count);
}

/* True when text is whole UTF-8: no sequence cut short at its end. */
static int WholeUtf8(const char* text) {
    const unsigned char* p = (const unsigned char*)text;
    while (*p != 0) {
        int more = *p >= 0xF0 ? 3 : *p >= 0xE0 ? 2 : *p >= 0xC0 ? 1 : 0;
        for (++p; more > 0; --more, ++p) {
            if ((*p & 0xC0) != 0x80) {
                return 0;
            }
        }
    }
    return 1;
}

/* Texts longer than the record's fields are cut between characters, never inside one; a name
 * longer than a listing can hold fails the listing instead of being cut. */
static void CheckLongNames(void) {
    static char name[1401];
    size_t i;
    uint32_t count = 0;
    for (i = 0; i + 2 <= 1400; i += 2) {
        name[i] = (char)0xC3; /* "é" */
        name[i + 1] = (char)0xA9;
    }
    name[1400] = '\0';
    if (ReadInto(kPackage, name) != FILE_NOT_IN_PACKAGE ||
        QOBX_LastError(&g_error) != FILE_NOT_IN_PACKAGE || strlen(g_error.subject) != 1022 ||
        strncmp(g_error.subject, name, 1022) != 0 || !WholeUtf8(g_error.subject) ||
        !WholeUtf8(g_error.message) || strncmp(g_error.message, "entry \"\xC3\xA9", 8) != 0) {
        Fail("a long name in the record", "not cut between characters");
    }
    WritePlainZip("ext_long.zip", name, "x");
    if (QOBX_ListEntries("ext_long.zip", NULL, 0, &count) != SUCCESS || count != 1) {
        Fail("counting a long name", "failed");
    }
    {
        const QobErrorCode_e result = QOBX_ListEntries("ext_long.zip", g_entriesSpare, 1, &count);
        QOBX_LastError(&g_error);
        if (result != CANNOT_READ_FILE_PCK || strncmp(g_error.subject, name, 1022) != 0) {
            Fail("listing a name longer than the record's field", g_error.message);
        }
    }
}

/* The record after each kind of failure a host meets, and after a success. */
static void CheckRecords(void) {
    static const char kNoManifest[] =
        "manifest \"manifest.xml\" not found in package \"ext_plain.zip\"";
    const struct Want missing = {PACKAGE_NOT_FOUND, "no such archive", SYS(ENOENT, 2),
                                 "ext_missing.qob"};
    const struct Want noManifest = {FILE_NOT_IN_PACKAGE, kNoManifest, 0, kPlain};
    const struct Want notZip = {CANNOT_OPEN_FILE_PCK, "failed to open unzip handle", 0, kText};
    const struct Want missingEntry = {FILE_NOT_IN_PACKAGE,
                                      "entry \"img_0001.cr3\" not found in package \"ext.qob\"", 0,
                                      "img_0001.cr3"};
    const struct Want tooSmall = {INTERNAL_INCONSISTENCY, "buffer too small: src=300000 dst=4", 0,
                                  kRawName};
    const struct Want noEntry = {FILE_NOT_IN_PACKAGE, "minizip returned UNZ_END_OF_LIST_OF_FILE", 0,
                                 kPackage};
    const struct Want nullCount = {INVALID_POINTER, "argument is null", 0, kPackage};
    const struct Want success = {SUCCESS, "", 0, ""};
    const struct Want noFolder = {INTERNAL_INCONSISTENCY, "failed to open archive", SYS(ENOENT, 2),
                                  "ext_no_folder/new.qob"};

    ExpectRecord("missing package, QOB_IsQob", QOB_IsQob("ext_missing.qob"), &missing);
    ExpectRecord("missing package, QOBX_ListEntries", ListCount("ext_missing.qob"), &missing);
    ExpectRecord("a success resets the record", QOB_IsQob(kPackage), &success);
    ExpectRecord("missing package, QOBX_ReadEntry", ReadInto("ext_missing.qob", kRawName),
                 &missing);
    ExpectRecord("a plain zip, QOB_IsQob", QOB_IsQob(kPlain), &noManifest);
    ExpectRecord("not a zip, QOB_IsQob", QOB_IsQob(kText), &notZip);
    ExpectRecord("not a zip, QOBX_ListEntries", ListCount(kText), &notZip);
    ExpectRecord("a missing entry, QOBX_ReadEntry (names are exact)",
                 ReadInto(kPackage, "img_0001.cr3"), &missingEntry);
    ExpectRecord("a missing entry, QOB_Extract", ExtractToBuffer(kPackage, "nope", g_small, 4),
                 &noEntry);
    ExpectRecord("a buffer too small", ExtractToBuffer(kPackage, kRawName, g_small, 4), &tooSmall);
    ExpectRecord("a null count", QOBX_ListEntries(kPackage, NULL, 0, NULL), &nullCount);
    ExpectRecord("a listing succeeds", ListCount(kPackage), &success);
    ExpectRecord("a create in a folder that is not there",
                 MakePackage("ext_no_folder/new.qob", "raw", 3), &noFolder);

    /* A name that is not UTF-8 keeps -15 and its message; the record says why. */
    {
        const QobErrorCode_e result = ExtractToBuffer(kPackage, "bad\xFF\xFEname", g_small, 4);
        QOBX_LastError(&g_error);
        if (result != INTERNAL_INCONSISTENCY || g_error.systemError != EILSEQ ||
            strncmp(g_error.message, "caught std: ", 12) != 0 ||
            strcmp(g_error.subject, kPackage) != 0) {
            Fail("a name that is not UTF-8", g_error.message);
        }
    }
    /* A folder where a package should be: the reader cannot open it, and the record says why.
     * A plain zip asked for its manifests: the code is fixed elsewhere; the record names it. */
    {
        /* POSIX opens a folder and fails to read it; Windows fails to open it. */
        const struct Want folder = {SYS(CANNOT_OPEN_FILE_PCK, INTERNAL_INCONSISTENCY),
                                    SYS("failed to open unzip handle", "failed to open archive"),
                                    EISDIR, "."};
        ExpectRecord("a directory, QOB_IsQob", QOB_IsQob("."), &folder);
        ExpectRecord("a directory, QOBX_ListEntries", ListCount("."), &folder);
        if (GetInfo(kPlain, &g_error) != CANNOT_READ_FILE_PCK ||
            g_error.code != CANNOT_READ_FILE_PCK || strcmp(g_error.subject, kPlain) != 0) {
            Fail("a plain zip, QOB_GetPackageInfo", g_error.message);
        }
    }
}

static void CheckNames(void) {
    static const struct {
        int32_t code;
        const char* name;
    } kNames[] = {{0, "SUCCESS"},          {-1, "FILE_NOT_FOUND"}, {-15, "INTERNAL_INCONSISTENCY"},
                  {-100, "FUNC_NOT_IMPL"}, {-16, "UNKNOWN"},       {-99, "UNKNOWN"},
                  {1, "UNKNOWN"}};
    size_t i;
    for (i = 0; i < sizeof kNames / sizeof kNames[0]; ++i) {
        if (strcmp(QOBX_CodeName(kNames[i].code), kNames[i].name) != 0) {
            Fail("QOBX_CodeName", kNames[i].name);
        }
    }
    if (QOB_INTERNAL_INCONSISTENCY != INTERNAL_INCONSISTENCY || QOB_SUCCESS != SUCCESS ||
        !HostNamesAgree()) {
        Fail("prefixed codes", "differ from the short ones");
    }
    if (strcmp(QOBX_Version(), QOB_VERSION_STRING) != 0) {
        Fail("QOBX_Version", QOBX_Version());
    }
}

/* The bytes of the package file at offset. */
static int FileHolds(const char* path, uint64_t offset, const unsigned char* content, size_t size) {
    static unsigned char bytes[kRawSize];
    FILE* file = fopen(path, "rb");
    int same = 0;
    if (file != NULL && size <= sizeof bytes && fseek(file, (long)offset, SEEK_SET) == 0) {
        same = fread(bytes, 1, size, file) == size && memcmp(bytes, content, size) == 0;
    }
    if (file != NULL) {
        fclose(file);
    }
    return same;
}

static QOBX_EntryStat g_entries[32];

static void CheckListing(void) {
    uint32_t count = 0;
    uint32_t i;
    const QOBX_EntryStat* raw = NULL;
    const long long now = (long long)time(NULL);
    if (QOBX_ListEntries(kPackage, NULL, 0, &count) != SUCCESS || count != 24) {
        Fail("QOBX_ListEntries with capacity 0", "count is not 24");
        return;
    }
    /* A short array is filled as far as it goes; the count stays the total. */
    memset(g_entries, 0xEE, sizeof g_entries);
    count = 0;
    if (QOBX_ListEntries(kPackage, g_entries, 2, &count) != SUCCESS || count != 24 ||
        g_entries[2].name[0] != (char)0xEE) {
        Fail("QOBX_ListEntries with capacity 2", "wrote past the array or lost the count");
    }
    if (QOBX_ListEntries(kPackage, g_entries, 32, &count) != SUCCESS || count != 24) {
        Fail("QOBX_ListEntries", "failed");
        return;
    }
    for (i = 0; i < count; ++i) {
        const QOBX_EntryStat* entry = &g_entries[i];
        if (strcmp(entry->name, kRawName) == 0) {
            raw = entry;
        }
        if (entry->method != 0 || entry->reserved != 0 || entry->dosTime == 0 ||
            entry->contentSize > entry->allocatedSize) {
            Fail("listed entry", entry->name);
        }
        /* Stamped when the package was made, in local time; unixTime is UTC. */
        if (entry->unixTime < now - 120 || entry->unixTime > now + 2) {
            Fail("unixTime is not the creation time", entry->name);
        }
    }
    if (raw == NULL || strcmp(g_entries[1].name, "manifest.xml") != 0) {
        Fail("QOBX_ListEntries", "entries out of order");
        return;
    }
    if (raw->contentSize != kRawSize || raw->allocatedSize != kRawSize ||
        raw->crc32 != Crc32(0, g_raw, kRawSize) ||
        !FileHolds(kPackage, raw->dataOffset, g_raw, kRawSize)) {
        Fail("the raw image's listing", "size, CRC-32 or data offset");
    }
    /* A manifest: content, then zero padding that the CRC-32 covers too. */
    if (g_entries[1].allocatedSize != g_entries[1].contentSize + 16384) {
        Fail("manifest.xml's listing", "allocated size");
    }
}

static unsigned char g_read[kRawSize + 10];

static void CheckReads(void) {
    static const struct {
        uint64_t offset;
        uint32_t size;
        uint32_t expected;
    } kRanges[] = {
        {0, 10, 10},                  /* the start */
        {1000, 4096, 4096},           /* the middle: straight to the bytes */
        {kRawSize - 7, 100, 7},       /* reaches the end: the whole entry is checked */
        {kRawSize, 10, 0},            /* at the end */
        {kRawSize + 5, 10, 0},        /* past it */
        {0, kRawSize + 10, kRawSize}, /* all of it in one call */
        {0, 0, 0},                    /* nothing asked */
    };
    size_t i;
    for (i = 0; i < sizeof kRanges / sizeof kRanges[0]; ++i) {
        uint32_t read = 12345;
        memset(g_read, 0xAA, sizeof g_read);
        if (QOBX_ReadEntry(kPackage, kRawName, kRanges[i].offset, g_read, kRanges[i].size, &read) !=
                SUCCESS ||
            read != kRanges[i].expected ||
            (read > 0 && memcmp(g_read, g_raw + kRanges[i].offset, read) != 0) ||
            g_read[read] != 0xAA) {
            Fail("QOBX_ReadEntry of a range", "wrong bytes or count");
        }
    }
    /* Streamed in pieces, the whole entry comes back. */
    {
        uint64_t offset = 0;
        uint32_t read = 1;
        while (read > 0 && offset <= kRawSize) {
            if (QOBX_ReadEntry(kPackage, kRawName, offset, g_read + offset, 65536, &read) !=
                SUCCESS) {
                break;
            }
            offset += read;
        }
        if (offset != kRawSize || memcmp(g_read, g_raw, kRawSize) != 0) {
            Fail("QOBX_ReadEntry streamed", "the entry did not come back whole");
        }
    }
    /* A directory that claims 4 GiB in a file of 150 bytes: refused before anything is
     * allocated or read. */
    {
        uint32_t read = 0;
        uint32_t count = 0;
        WriteZip("ext_lying.zip", "big.bin", "tiny", 0xFFFFFFFFu);
        if (QOBX_ListEntries("ext_lying.zip", g_entriesSpare, 1, &count) != SUCCESS ||
            g_entriesSpare[0].contentSize != 0xFFFFFFFFu) {
            Fail("listing an entry that claims 4 GiB", "the claim is not shown as stored");
        }
        if (QOBX_ReadEntry("ext_lying.zip", "big.bin", 0, g_read, 16, &read) !=
                CANNOT_READ_FILE_PCK ||
            read != 0) {
            Fail("reading an entry that claims 4 GiB", "not refused");
        }
    }
    /* A foreign zip's entry reads the same way. */
    {
        uint32_t read = 0;
        char text[32] = {0};
        if (QOBX_ReadEntry(kPlain, "hello.txt", 7, text, sizeof text, &read) != SUCCESS ||
            read != 4 || memcmp(text, "zip\n", 4) != 0) {
            Fail("QOBX_ReadEntry of a plain zip", text);
        }
    }
}

struct Progress {
    int calls;
    int ordered;
    uint64_t done;
    uint64_t total;
};

static void OnProgress(uint64_t done, uint64_t total, void* user) {
    struct Progress* progress = user;
    if (done < progress->done || done > total) {
        progress->ordered = 0;
    }
    ++progress->calls;
    progress->done = done;
    progress->total = total;
}

/* Each long operation ends with one report of done == total; none without a function. */
static void CheckProgress(void) {
    struct Progress progress = {0, 1, 0, 0};
    QOBX_SetProgressFn(&OnProgress, &progress);
    if (MakePackage("ext_progress.qob", g_raw, kRawSize) != SUCCESS || progress.calls == 0 ||
        !progress.ordered || progress.done != kRawSize || progress.total != kRawSize) {
        Fail("progress of a create", "no final report of the content's bytes");
    }
    memset(&progress, 0, sizeof progress);
    progress.ordered = 1;
    QOB_Constructor(&g_extract, QOB_OBJECT_EXTRACT_ARGS);
    strcpy(g_extract.szPackagePath, "ext_progress.qob");
    strcpy(g_extract.szDestination, "ext_progress_out");
    g_extract.eMode = QOB_EXTRACT_ALL;
    if (QOB_Extract(&g_extract) != SUCCESS || progress.calls == 0 || !progress.ordered ||
        progress.done != kRawSize || progress.total != kRawSize) {
        Fail("progress of an extraction", "no final report");
    }
    memset(&progress, 0, sizeof progress);
    progress.ordered = 1;
    if (QOB_RemoveEntry("ext_progress.qob", kRawName) != SUCCESS || progress.calls == 0 ||
        !progress.ordered || progress.done != progress.total || progress.total == 0) {
        Fail("progress of a removal", "no final report of the bytes moved");
    }
    QOBX_SetProgressFn(NULL, &progress);
    progress.calls = 0;
    if (MakePackage("ext_progress.qob", g_raw, kRawSize) != SUCCESS || progress.calls != 0) {
        Fail("progress turned off", "still reported");
    }
}

/* The built-in sink prints to standard output: run a failing call with it sent to a file. */
static int PrintedLines(int level, const char* needle) {
    static char line[4096];
    int found = 0;
    FILE* out = fopen("ext_sink.txt", "w");
    const int saved = dup(fileno(stdout));
    if (out == NULL || saved < 0) {
        return -1;
    }
    fflush(stdout);
    dup2(fileno(out), fileno(stdout));
    QOBX_SetLogLevel(level);
    QOB_IsQob("ext_missing.qob");
    QOBX_SetLogLevel(5);
    fflush(stdout);
    dup2(saved, fileno(stdout));
    close(saved);
    fclose(out);
    out = fopen("ext_sink.txt", "r");
    while (out != NULL && fgets(line, sizeof line, out) != NULL) {
        found += strstr(line, needle) != NULL;
    }
    if (out != NULL) {
        fclose(out);
    }
    return found;
}

static void CheckLogLevel(void) {
    QOB_SetLogFn(NULL, NULL); /* the built-in sink */
    if (PrintedLines(1, "[QOB][TRACE]") != 0 || PrintedLines(1, "[QOB][ERROR]") == 0 ||
        PrintedLines(5, "[QOB][TRACE]") == 0) {
        Fail("QOBX_SetLogLevel", "the built-in sink did not keep to its level");
    }
}

int Failures(void) {
    return g_failures;
}

int CheckExtensions(void) {
    size_t i;
    for (i = 0; i < kRawSize; ++i) {
        g_raw[i] = (unsigned char)(i * 7 + i / 251);
    }
    if (MakePackage(kPackage, g_raw, kRawSize) != SUCCESS) {
        Fail("setup", "cannot create the package");
        return g_failures;
    }
    WritePlainZip(kPlain, "hello.txt", "hello, zip\n");
    WriteText(kText, "this is no zip file, only text\n");
    CheckNames();
    CheckListing();
    CheckReads();
    CheckRecords();
    CheckLongNames();
    CheckProgress();
    CheckLogLevel();
    return Failures();
}
