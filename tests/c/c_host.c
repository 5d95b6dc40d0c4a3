/* A C11 host: the header compiles as C, and every record type goes through the lifecycle. */
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

int main(void) {
    int failures = 0;
    failures += Check(QOB_OBJECT_PACKAGE_INFO, sizeof(QOB_PackageInfo));
    failures += Check(QOB_OBJECT_IMAGE_FILES, sizeof(QOB_ImageFiles));
    failures += Check(QOB_OBJECT_UPDATE_ARGS, sizeof(QOB_UpdateArgs));
    failures += Check(QOB_OBJECT_ENTRY_INFO, sizeof(QOB_EntryInfo));
    failures += Check(QOB_OBJECT_CREATE_ARGS, sizeof(QOB_CreateArgs));
    failures += Check(QOB_OBJECT_EXTRACT_ARGS, sizeof(QOB_ExtractArgs));
    if (QOB_Constructor(NULL, QOB_OBJECT_ENTRY_INFO) != INVALID_POINTER) {
        ++failures;
    }
    printf("c host: %d failures\n", failures);
    return failures == 0 ? 0 : 1;
}
