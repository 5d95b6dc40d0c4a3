/* A host built against an installed qob: installs a log sink, writes a package and asks
 * whether it is one. */
#include <qob/qob.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void CountLine(int level, const char* text, void* user) {
    (void)level;
    (void)text;
    ++*(int*)user;
}

int main(int argc, char** argv) {
    static int lines;
    if (argc != 2) {
        fprintf(stderr, "usage: consumer DIR\n");
        return 2;
    }
    static QOB_CreateArgs args;
    QOB_SetLogFn(&CountLine, &lines);
    static const char raw[] = "raw image bytes";
    QOB_Constructor(&args, QOB_OBJECT_CREATE_ARGS);
    strcpy(args.files.raw.szPath, "IMG_0001.CR3");
    args.files.raw.ePackingType = QOB_PACK_FROM_MEMORY;
    args.files.raw.pBuffer = raw;
    args.files.raw.uBufferLength = sizeof raw;
    args.files.raw.uStoredSize = sizeof raw;
    snprintf(args.szPackagePath, sizeof args.szPackagePath, "%s/consumer.qob", argv[1]);
    remove(args.szPackagePath);
    if (QOB_Create(&args) != SUCCESS || QOB_IsQob(args.szPackagePath) != SUCCESS) {
        fprintf(stderr, "consumer: the package was not written\n");
        return 1;
    }
    if (lines < 2) {
        fprintf(stderr, "consumer: the log sink received %d lines\n", lines);
        return 1;
    }
    printf("consumer: wrote %s\n", args.szPackagePath);
    return 0;
}
