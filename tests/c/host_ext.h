/* The C host's checks of the extension interface (host_ext.c) and of failures only a prepared
 * system shows (host_system.c). Each returns its number of failures. */
#ifndef QOB_TESTS_HOST_EXT_H
#define QOB_TESTS_HOST_EXT_H

#include <qob/qob.h>

/* host_names.c: the prefixed codes, with the short ones hidden; true when they agree. */
int HostNamesAgree(void);
/* In the current directory. */
int CheckExtensions(void);
/* dir is a file system too small for the package the check writes. */
int CheckDiskFull(const char* dir);
/* Run by a user who may not read dir/private.qob nor write into dir. */
int CheckDenied(const char* dir);

/* Shared by the checks: a package of one raw image from memory; a failure counted. */
QobErrorCode_e MakePackage(const char* path, const void* raw, uint32_t size);
void Fail(const char* what, const char* detail);
int Failures(void);

/* What the last-error record must hold after a call. systemError: the number expected, 0 for
 * none, -1 for any the system gives (its text then only has to be there). */
struct Want {
    QobErrorCode_e code;
    const char* message;
    int systemError;
    const char* subject;
};
/* Compares the call's result and the record with want; a difference is a failure. */
void ExpectRecord(const char* what, QobErrorCode_e result, const struct Want* want);

#endif
