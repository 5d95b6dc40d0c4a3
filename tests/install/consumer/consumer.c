/* A host built against an installed qob: writes a package and asks whether it is one. */
#include <qob/qob.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: consumer DIR\n");
        return 2;
    }
    static QOB_CreateArgs args;
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
    printf("consumer: wrote %s\n", args.szPackagePath);
    return 0;
}
