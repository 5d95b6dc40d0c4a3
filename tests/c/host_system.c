/* Failures only a prepared system shows (Linux): a full file system, and a user the files
 * refuse. The record must carry the system's reason beside the fixed message, and name the
 * file concerned. */
#include "host_ext.h"

#include <qob/qob_ext.h>

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kBigSize = 3 * 1024 * 1024 };

static QOB_ExtractArgs g_extract;

static QobErrorCode_e ExtractAll(const char* package, const char* destination) {
    QOB_Constructor(&g_extract, QOB_OBJECT_EXTRACT_ARGS);
    snprintf(g_extract.szPackagePath, sizeof g_extract.szPackagePath, "%s", package);
    snprintf(g_extract.szDestination, sizeof g_extract.szDestination, "%s", destination);
    g_extract.eMode = QOB_EXTRACT_ALL;
    return QOB_Extract(&g_extract);
}

int CheckDiskFull(const char* dir) {
    static char path[QOB_MAX_PATH];
    static char target[QOB_MAX_PATH];
    unsigned char* raw = calloc(1, kBigSize);
    if (raw == NULL) {
        return 1;
    }
    snprintf(path, sizeof path, "%s/full.qob", dir);
    {
        const struct Want full = {INTERNAL_INCONSISTENCY, "minizip returned ZIP_ERRNO", ENOSPC,
                                  path};
        ExpectRecord("a create on a full disk", MakePackage(path, raw, kBigSize), &full);
    }
    /* A package that fits, then an update that does not. */
    remove(path);
    snprintf(path, sizeof path, "%s/small.qob", dir);
    if (MakePackage(path, raw, 1000) != SUCCESS) {
        Fail("setup", "cannot create a small package on the small disk");
    }
    {
        static QOB_UpdateArgs update;
        const struct Want full = {INTERNAL_INCONSISTENCY, "minizip returned ZIP_ERRNO", ENOSPC,
                                  path};
        QOB_Constructor(&update, QOB_OBJECT_UPDATE_ARGS);
        strcpy(update.szPackagePath, path);
        strcpy(update.info.szPackagePath, path);
        QOB_GetPackageInfo(&update.info);
        strcpy(update.files.settings.szPath, "edit.xmp");
        update.files.settings.ePackingType = QOB_PACK_FROM_MEMORY;
        update.files.settings.pBuffer = raw;
        update.files.settings.uBufferLength = kBigSize;
        ExpectRecord("an update on a full disk", QOB_Update(&update), &full);
        QOB_Destructor(&update.info, QOB_OBJECT_PACKAGE_INFO);
    }
    remove(path);
    /* A package beside the host, extracted onto the full disk. */
    if (MakePackage("full_source.qob", raw, kBigSize) != SUCCESS) {
        Fail("setup", "cannot create the package to extract");
    }
    snprintf(target, sizeof target, "%s/out/IMG_0001.CR3", dir);
    {
        const struct Want full = {INTERNAL_INCONSISTENCY, "write error", ENOSPC, target};
        char out[QOB_MAX_PATH];
        snprintf(out, sizeof out, "%s/out", dir);
        ExpectRecord("an extraction onto a full disk", ExtractAll("full_source.qob", out), &full);
    }
    {
        const struct Want success = {SUCCESS, "", 0, ""};
        ExpectRecord("a success after it", QOB_IsQob("full_source.qob"), &success);
    }
    remove("full_source.qob");
    free(raw);
    return Failures();
}

int CheckDenied(const char* dir) {
    static char priv[QOB_MAX_PATH];
    static char created[QOB_MAX_PATH];
    static char out[QOB_MAX_PATH];
    static char pub[QOB_MAX_PATH];
    snprintf(priv, sizeof priv, "%s/private.qob", dir);
    snprintf(created, sizeof created, "%s/new.qob", dir);
    snprintf(out, sizeof out, "%s/out", dir);
    snprintf(pub, sizeof pub, "%s/public.qob", dir);
    {
        const struct Want denied = {INTERNAL_INCONSISTENCY, "failed to open archive", EACCES, priv};
        ExpectRecord("a package the user may not read", QOB_IsQob(priv), &denied);
    }
    {
        const struct Want denied = {INTERNAL_INCONSISTENCY, "failed to open archive", EACCES,
                                    created};
        ExpectRecord("a create in a folder the user may not write", MakePackage(created, "raw", 3),
                     &denied);
    }
    {
        const struct Want denied = {INTERNAL_INCONSISTENCY, "minizip returned ZIP_ERRNO", EACCES,
                                    pub};
        ExpectRecord("a removal from a package the user may only read",
                     QOB_RemoveEntry(pub, "IMG_0001.CR3"), &denied);
    }
    {
        const struct Want denied = {
            INTERNAL_INCONSISTENCY,
            "caught std: filesystem error: cannot create directories: Permission denied "
            "[denied/out]",
            EACCES, out};
        ExpectRecord("an extraction into a folder the user may not write", ExtractAll(pub, out),
                     &denied);
    }
    return Failures();
}
