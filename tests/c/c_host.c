/* A C11 host: the header compiles as C, the host installs its own log sink, and every record
 * type goes through the lifecycle. Given a directory (as the install tests do, built against
 * the installed package), it also writes a package there and asks whether it is one.
 * --ext runs the extension interface's checks in the current directory; --disk-full DIR and
 * --denied DIR the checks of a prepared system; --make PATH writes a package for them. */
#include "host_ext.h"

#include <qob/qob.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int Check(QOB_ObjectType type, size_t size) {
    unsigned char* record = malloc(size);
    size_t i;
    int failures = 0;
    if (record == NULL) {
        return 1;
    }
    memset(record, 0xCD, size);
    if (QOB_Constructor(record, type) != SUCCESS) {
        ++failures;
    }
    for (i = 0; i < size; ++i) {
        if (record[i] != 0) {
            ++failures;
            break;
        }
    }
    if (QOB_Destructor(record, type) != SUCCESS) {
        ++failures;
    }
    free(record);
    return failures;
}

struct Sink {
    int lines;
    int ready;
    int calls;
};

static void CountLine(int level, const char* text, void* user) {
    struct Sink* sink = user;
    ++sink->lines;
    if (level == 5 && strcmp(text, "[QOB][TRACE] logging is ready") == 0) {
        ++sink->ready;
    }
    if (strstr(text, "QOB_IsQob") != NULL) {
        ++sink->calls;
    }
}

/* The sink gets the announcement at once, then the lines of every call. */
static int CheckSink(void) {
    static struct Sink sink; /* stays installed after this function returns */
    int failures = 0;
    QOB_SetLogFn(&CountLine, &sink);
    if (sink.lines != 1 || sink.ready != 1) {
        fprintf(stderr, "c host: the sink did not receive the announcement alone\n");
        ++failures;
    }
    if (QOB_IsQob("no such package.qob") != PACKAGE_NOT_FOUND || sink.calls == 0) {
        fprintf(stderr, "c host: the call's lines did not reach the sink\n");
        ++failures;
    }
    return failures;
}

/* A package of one raw image from memory, in dir. */
static int CheckCreate(const char* dir) {
    static QOB_CreateArgs args;
    static const char raw[] = "raw image bytes";
    QOB_Constructor(&args, QOB_OBJECT_CREATE_ARGS);
    strcpy(args.files.raw.szPath, "IMG_0001.CR3");
    args.files.raw.ePackingType = QOB_PACK_FROM_MEMORY;
    args.files.raw.pBuffer = raw;
    args.files.raw.uBufferLength = sizeof raw;
    snprintf(args.szPackagePath, sizeof args.szPackagePath, "%s/c_host.qob", dir);
    remove(args.szPackagePath);
    if (QOB_Create(&args) != SUCCESS || QOB_IsQob(args.szPackagePath) != SUCCESS) {
        fprintf(stderr, "c host: the package was not written\n");
        return 1;
    }
    printf("c host: wrote %s\n", args.szPackagePath);
    return 0;
}

int main(int argc, char** argv) {
    int failures;
    if (argc == 3 && strcmp(argv[1], "--ext") != 0) {
        if (strcmp(argv[1], "--disk-full") == 0) {
            failures = CheckDiskFull(argv[2]);
        } else if (strcmp(argv[1], "--denied") == 0) {
            failures = CheckDenied(argv[2]);
        } else {
            failures = MakePackage(argv[2], "raw image bytes", 15) != SUCCESS;
        }
        printf("c host: %d failures\n", failures);
        return failures == 0 ? 0 : 1;
    }
    failures = CheckSink();
    failures += Check(QOB_OBJECT_PACKAGE_INFO, sizeof(QOB_PackageInfo));
    failures += Check(QOB_OBJECT_IMAGE_FILES, sizeof(QOB_ImageFiles));
    failures += Check(QOB_OBJECT_UPDATE_ARGS, sizeof(QOB_UpdateArgs));
    failures += Check(QOB_OBJECT_ENTRY_INFO, sizeof(QOB_EntryInfo));
    failures += Check(QOB_OBJECT_CREATE_ARGS, sizeof(QOB_CreateArgs));
    failures += Check(QOB_OBJECT_EXTRACT_ARGS, sizeof(QOB_ExtractArgs));
    if (QOB_Constructor(NULL, QOB_OBJECT_ENTRY_INFO) != INVALID_POINTER) {
        ++failures;
    }
    if (argc == 2 && strcmp(argv[1], "--ext") == 0) {
        failures += CheckExtensions();
    } else if (argc == 2) {
        failures += CheckCreate(argv[1]);
    }
    printf("c host: %d failures\n", failures);
    return failures == 0 ? 0 : 1;
}
