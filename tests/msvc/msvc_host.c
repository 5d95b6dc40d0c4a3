/* A host built the way MSVC builds one: clang in MSVC mode, no C runtime, linked by lld-link
 * against the installed qob.lib. It compiles as C and as C++, so both ways of reaching the
 * decorated QOB_SetLogFn are taken. It creates a package from memory, reads every field of
 * the records back and checks each against the bytes in the file, finds an LCC, extracts an
 * entry into a buffer and frees what the library allocated. Then the extensions: version, code
 * names, the listing against the records, a ranged read, the last-error record and progress.
 * Exit code: number of failures. */
#include <qob/qob_ext.h>

#ifdef __cplusplus
extern "C" {
#endif
/* kernel32, declared by hand: the host needs no SDK. */
__declspec(dllimport) void* GetStdHandle(unsigned long which);
__declspec(dllimport) int WriteFile(void* file, const void* data, unsigned long size,
                                    unsigned long* done, void* overlapped);
__declspec(dllimport) int ReadFile(void* file, void* data, unsigned long size, unsigned long* done,
                                   void* overlapped);
__declspec(dllimport) void* CreateFileA(const char* name, unsigned long access, unsigned long share,
                                        void* security, unsigned long disposition,
                                        unsigned long flags, void* model);
__declspec(dllimport) unsigned long SetFilePointer(void* file, long low, long* high,
                                                   unsigned long method);
__declspec(dllimport) int CloseHandle(void* handle);
__declspec(dllimport) void ExitProcess(unsigned int code);

/* The compiler may call these for copies and clears. */
void* memset(void* target, int value, size_t size);
void* memcpy(void* target, const void* source, size_t size);
int HostMain(void);
#ifdef __cplusplus
}
#endif

void* memset(void* target, int value, size_t size) {
    unsigned char* out = (unsigned char*)target;
    while (size-- > 0) {
        *out++ = (unsigned char)value;
    }
    return target;
}

void* memcpy(void* target, const void* source, size_t size) {
    unsigned char* out = (unsigned char*)target;
    const unsigned char* in = (const unsigned char*)source;
    while (size-- > 0) {
        *out++ = *in++;
    }
    return target;
}

static const char kPackage[] = "msvc_host.qob";
static const char kReady[] = "[QOB][TRACE] logging is ready";

static unsigned Length(const char* text) {
    unsigned n = 0;
    while (text[n] != '\0') {
        ++n;
    }
    return n;
}

static int Same(const void* a, const void* b, unsigned size) {
    const unsigned char* x = (const unsigned char*)a;
    const unsigned char* y = (const unsigned char*)b;
    unsigned i;
    for (i = 0; i < size; ++i) {
        if (x[i] != y[i]) {
            return 0;
        }
    }
    return 1;
}

static int EndsWith(const char* text, const char* tail) {
    const unsigned n = Length(text);
    const unsigned m = Length(tail);
    return n >= m && Same(text + n - m, tail, m);
}

static void Copy(char* field, const char* text) {
    memcpy(field, text, Length(text) + 1);
}

static void Print(const char* text) {
    unsigned long done = 0;
    WriteFile(GetStdHandle((unsigned long)-11), text, Length(text), &done, 0);
}

static int g_failures = 0;

static void Check(int ok, const char* what) {
    if (!ok) {
        ++g_failures;
        Print("msvc host: FAILED ");
        Print(what);
        Print("\n");
    }
}

/* The log sink: counts lines and remembers whether the announcement came through. */
struct SinkState {
    int lines;
    int ready;
    int level;
};

static void Sink(int level, const char* text, void* user) {
    struct SinkState* state = (struct SinkState*)user;
    ++state->lines;
    if (Length(text) == sizeof kReady - 1 && Same(text, kReady, sizeof kReady - 1)) {
        state->ready = 1;
        state->level = level;
    }
}

/* The package file's bytes at offset, compared with the content the host gave. */
static int FileHolds(unsigned offset, const char* content, unsigned size) {
    static char bytes[256];
    unsigned long done = 0;
    int same;
    void* file = CreateFileA(kPackage, 0x80000000ul /* read */, 1 /* share read */, 0,
                             3 /* existing */, 0x80 /* normal */, 0);
    if (file == (void*)(long long)-1) {
        return 0;
    }
    same = size <= sizeof bytes && SetFilePointer(file, (long)offset, 0, 0) == offset &&
           ReadFile(file, bytes, size, &done, 0) && done == size && Same(bytes, content, size);
    CloseHandle(file);
    return same;
}

struct Expected {
    const char* name; /* the host's file name */
    const char* tail; /* how the path inside the package ends */
    const char* content;
    const char* id;
    unsigned reserve;
};

static const struct Expected kRaw = {"IMG_0001.CR3", "IMG_0001.CR3", "raw image bytes", "", 0};
static const struct Expected kSettings = {"edit.xmp", ".xmp", "<settings version=\"2\"/>", "",
                                          4096};
static const struct Expected kProxy = {"proxy.jpg", ".jpg", "proxy preview bytes", "", 0};
static const struct Expected kLccs[2] = {{"a.lcc", ".lcc", "first lcc", "LCC-A", 64},
                                         {"b.lcc", ".lcc", "second lcc profile", "LCC-B", 0}};
static const struct Expected kIcc = {"display.icc", "", "icc profile", "ICC-1", 0};
static const struct Expected kMask = {"mask.msk", ".msk", "mask bits", "", 0};
static const struct Expected kHair = {"hair.hmk", ".hmk", "hair mask bits", "", 0};

static void FromMemory(QOB_EntryInfo* entry, const struct Expected* expected) {
    Copy(entry->szPath, expected->name);
    Copy(entry->szIdentifier, expected->id);
    entry->ePackingType = QOB_PACK_FROM_MEMORY;
    entry->pBuffer = expected->content;
    entry->uBufferLength = Length(expected->content);
    entry->uStoredSize = entry->uBufferLength;
    entry->uReservedSpace = expected->reserve;
}

/* Every field of an entry read back from the package. */
static void CheckEntry(const QOB_EntryInfo* entry, const struct Expected* expected, int profile) {
    const unsigned size = Length(expected->content);
    Print("msvc host: checking ");
    Print(expected->name);
    Print("\n");
    Check(entry->szPath[0] != '\0' && EndsWith(entry->szPath, expected->tail), "szPath");
    Check(!profile ||
              (entry->szSecondPath[0] != '\0' && EndsWith(entry->szPath, entry->szSecondPath)),
          "szSecondPath, the file name of szPath");
    Check(!profile || EndsWith(entry->szIdentifier, expected->id), "szIdentifier");
    Check(entry->uReservedSpace == expected->reserve, "uReservedSpace");
    Check(entry->uStoredSize == size, "uStoredSize");
    Check(entry->uBufferLength == size, "uBufferLength");
    Check(entry->uDataOffset > 0 && FileHolds(entry->uDataOffset, expected->content, size),
          "uDataOffset and the bytes there");
    Check(entry->uTime != 0, "uTime");
}

static QOB_CreateArgs g_create;
static QOB_PackageInfo g_info;
static QOB_EntryInfo g_lccs[2];
static QOB_EntryInfo g_iccs[1];
static QOB_EntryInfo g_found;
static QOB_ExtractArgs g_extract;
static char g_buffer[64];

static void Run(void) {
    struct SinkState state = {0, 0, 0};
    unsigned i;

    QOB_SetLogFn(&Sink, &state);
    Check(state.ready && state.level == 5, "the sink receives \"logging is ready\" at level 5");

    Check(QOB_Constructor(&g_create, QOB_OBJECT_CREATE_ARGS) == SUCCESS, "constructor");
    Copy(g_create.szPackagePath, kPackage);
    FromMemory(&g_create.files.raw, &kRaw);
    FromMemory(&g_create.files.settings, &kSettings);
    FromMemory(&g_create.files.proxy, &kProxy);
    FromMemory(&g_lccs[0], &kLccs[0]);
    FromMemory(&g_lccs[1], &kLccs[1]);
    FromMemory(&g_iccs[0], &kIcc);
    FromMemory(&g_create.files.mask, &kMask);
    FromMemory(&g_create.files.hair, &kHair);
    g_create.files.uLccCount = 2;
    g_create.files.pLccs = g_lccs;
    g_create.files.uIccCount = 1;
    g_create.files.pIccs = g_iccs;
    Check(QOB_Create(&g_create) == SUCCESS, "QOB_Create");
    Check(state.lines > 1, "the library logs the call through the sink");
    Check(QOB_IsQob(kPackage) == SUCCESS, "QOB_IsQob");

    Check(QOB_Constructor(&g_info, QOB_OBJECT_PACKAGE_INFO) == SUCCESS, "constructor");
    Copy(g_info.szPackagePath, kPackage);
    Check(QOB_GetPackageInfo(&g_info) == SUCCESS, "QOB_GetPackageInfo");
    Check(Same(g_info.szPackagePath, kPackage, sizeof kPackage), "szPackagePath");
    for (i = 0; i < QOB_MANIFEST_COUNT; ++i) {
        Check(g_info.szManifests[i][0] == '<', "every manifest text");
    }
    CheckEntry(&g_info.files.raw, &kRaw, 0);
    CheckEntry(&g_info.files.settings, &kSettings, 0);
    CheckEntry(&g_info.files.proxy, &kProxy, 0);
    CheckEntry(&g_info.files.mask, &kMask, 0);
    CheckEntry(&g_info.files.hair, &kHair, 0);
    Check(g_info.files.uLccCount == 2 && g_info.files.pLccs != 0, "uLccCount and pLccs");
    Check(g_info.files.uIccCount == 1 && g_info.files.pIccs != 0, "uIccCount and pIccs");
    if (g_failures == 0) {
        CheckEntry(&g_info.files.pLccs[0], &kLccs[0], 1);
        CheckEntry(&g_info.files.pLccs[1], &kLccs[1], 1);
        CheckEntry(&g_info.files.pIccs[0], &kIcc, 1);
    }

    Check(QOB_GetLensCastCalibInfo(kPackage, "LCC-B", &g_found) == SUCCESS,
          "QOB_GetLensCastCalibInfo");
    Check(g_failures == 0 && g_found.uDataOffset == g_info.files.pLccs[1].uDataOffset &&
              Same(g_found.szIdentifier, "LCC-B", 6),
          "the LCC found is the second one");
    Check(QOB_GetLensCastCalibInfo(kPackage, "LCC-C", &g_found) == FILE_NOT_IN_PACKAGE,
          "an unknown LCC is not in the package");

    Check(QOB_Constructor(&g_extract, QOB_OBJECT_EXTRACT_ARGS) == SUCCESS, "constructor");
    Copy(g_extract.szPackagePath, kPackage);
    Copy(g_extract.szEntryPath, g_info.files.proxy.szPath);
    g_extract.eMode = QOB_EXTRACT_TO_BUFFER;
    g_extract.pBuffer = g_buffer;
    g_extract.uBufferSize = sizeof g_buffer;
    Check(QOB_Extract(&g_extract) == SUCCESS, "QOB_Extract to a buffer");
    Check(Same(g_buffer, kProxy.content, Length(kProxy.content)), "the extracted bytes");

    Check(QOB_Destructor(&g_info, QOB_OBJECT_PACKAGE_INFO) == SUCCESS, "destructor");
    Check(g_info.files.pLccs == 0 && g_info.files.pIccs == 0, "the lists are freed");
}

static int Equal(const char* a, const char* b) {
    return Length(a) == Length(b) && Same(a, b, Length(a));
}

struct Progress {
    unsigned calls;
    unsigned long long done;
    unsigned long long total;
};

static void OnProgress(uint64_t done, uint64_t total, void* user) {
    struct Progress* progress = (struct Progress*)user;
    ++progress->calls;
    progress->done = done;
    progress->total = total;
}

static QOBX_EntryStat g_entries[40];
static QOBX_Error g_error;

static void RunExtensions(void) {
    struct SinkState state = {0, 0, 0};
    struct Progress progress = {0, 0, 0};
    uint32_t count = 0;
    uint32_t read = 0;
    uint32_t i;
    int proxyListed = 0;

    Check(QOB_Constructor(&g_info, QOB_OBJECT_PACKAGE_INFO) == SUCCESS, "constructor");
    Copy(g_info.szPackagePath, kPackage);
    Check(QOB_GetPackageInfo(&g_info) == SUCCESS, "QOB_GetPackageInfo");
    Check(Equal(QOBX_Version(), QOB_VERSION_STRING), "QOBX_Version is the header's");
    Check(Equal(QOBX_CodeName(QOB_INTERNAL_INCONSISTENCY), "INTERNAL_INCONSISTENCY") &&
              Equal(QOBX_CodeName(-16), "UNKNOWN"),
          "QOBX_CodeName");

    /* 8 files and 23 manifests; each file where its record says. */
    Check(QOBX_ListEntries(kPackage, 0, 0, &count) == SUCCESS && count == 31,
          "QOBX_ListEntries counts 31 entries");
    Check(QOBX_ListEntries(kPackage, g_entries, 40, &count) == SUCCESS && count == 31,
          "QOBX_ListEntries");
    for (i = 0; i < count && i < 40; ++i) {
        if (Equal(g_entries[i].name, g_info.files.proxy.szPath)) {
            proxyListed = g_entries[i].contentSize == Length(kProxy.content) &&
                          g_entries[i].dataOffset == g_info.files.proxy.uDataOffset &&
                          g_entries[i].dosTime == g_info.files.proxy.uTime &&
                          g_entries[i].unixTime > 0;
        }
    }
    Check(proxyListed, "the proxy's listing matches its record");

    Check(QOBX_ReadEntry(kPackage, g_info.files.proxy.szPath, 6, g_buffer, 7, &read) == SUCCESS &&
              read == 7 && Same(g_buffer, "preview", 7),
          "QOBX_ReadEntry of a range");

    Check(QOBX_ReadEntry(kPackage, "nope", 0, g_buffer, 4, &read) == FILE_NOT_IN_PACKAGE &&
              QOBX_LastError(&g_error) == FILE_NOT_IN_PACKAGE && Equal(g_error.subject, "nope") &&
              Equal(g_error.codeName, "FILE_NOT_IN_PACKAGE") && g_error.systemError == 0,
          "the last-error record of a missing entry");
    Check(QOB_IsQob("msvc_missing.qob") == PACKAGE_NOT_FOUND &&
              QOBX_LastError(&g_error) == PACKAGE_NOT_FOUND &&
              Equal(g_error.message, "no such archive") &&
              Equal(g_error.subject, "msvc_missing.qob") && g_error.systemError != 0 &&
              g_error.systemMessage[0] != '\0',
          "the last-error record of a missing package carries the system's reason");
    Check(QOB_IsQob(kPackage) == SUCCESS && QOBX_LastError(&g_error) == SUCCESS &&
              g_error.message[0] == '\0' && g_error.subject[0] == '\0',
          "a success resets the record");

    /* The host's own sink gets every line whatever the built-in sink's level. */
    QOB_SetLogFn(&Sink, &state);
    QOBX_SetLogLevel(0);
    QOB_IsQob(kPackage);
    QOBX_SetLogLevel(5);
    Check(state.lines > 2, "a host's sink ignores the built-in sink's level");

    QOBX_SetProgressFn(&OnProgress, &progress);
    Copy(g_create.szPackagePath, "msvc_progress.qob");
    Check(QOB_Create(&g_create) == SUCCESS && progress.calls > 0 &&
              progress.done == progress.total && progress.total > 0,
          "progress of a create ends with done == total");
    QOBX_SetProgressFn(0, 0);
    Check(QOB_Destructor(&g_info, QOB_OBJECT_PACKAGE_INFO) == SUCCESS, "destructor");
}

int HostMain(void) {
    Run();
    RunExtensions();
    Print(g_failures == 0 ? "msvc host: all checks passed\n" : "msvc host: checks failed\n");
    ExitProcess((unsigned)g_failures);
    return g_failures;
}
