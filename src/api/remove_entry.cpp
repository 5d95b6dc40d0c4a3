// QOB_RemoveEntry: deletes one entry from a package, then every reference to it from the
// manifests, so that they keep describing exactly what the zip holds.
#include "api/operations.hpp"
#include "api/package_info_ptr.hpp"

#include "archive/archive.hpp"
#include "archive/defer.hpp"
#include "archive/path.hpp"
#include "archive/transaction.hpp"
#include "package/manifest_format.hpp"
#include "package/manifest_writer.hpp"
#include "support/exception.hpp"
#include "support/fixed_string.hpp"
#include "support/format.hpp"
#include "support/log.hpp"
#include "support/utf8_path.hpp"

namespace QOB {

void QOB_RemoveEntry_Unlocked(const char* szPackageFullPath, const char* szFilePathInPackage) {
    QOB_FAILURE_TRAIL("in QOB_RemoveEntry_Unlocked");
    if (szPackageFullPath == nullptr) {
        throw Exception(INVALID_POINTER, "argument szPackageFullPath is null");
    }
    if (szFilePathInPackage == nullptr) {
        throw Exception(INVALID_POINTER, "argument szFilePathInPackage is null");
    }
    Transaction transaction(PathFromUtf8(szPackageFullPath), Transaction::Kind::Change);
    Archive archive(PathFromUtf8(szPackageFullPath), true);
    // The manifests name entries as the zip stores them, so references are matched by the
    // stored spelling ("a\\b" and "a/b" are one entry).
    const Path entry(szFilePathInPackage);
    archive.Remove(entry);
    // Only this one manifest name ends the call here; other manifests are ordinary entries.
    if (entry.Sanitized() == kManifestNames[kLastManifestRow]) {
        archive.Close();
        transaction.Commit();
        return;
    }

    PackageInfoPtr info = MakeEmptyPackageInfo();
    if (!CopyToField(info->szPackagePath, szPackageFullPath)) {
        throw Exception(INVALID_PARAMETER, "failed to copy package path");
    }
    QOB_GetPackageInfo_Unlocked(info.get());
    GenerateManifestInMem(info.get());
    for (std::size_t row = 0; row < kManifestNames.size(); ++row) {
        char* text = ManifestText(*info, row);
        if (DeleteFileFromManifest(text, entry.CStr()) != SUCCESS) {
            LogWarn(
                Format("QOB_RemoveEntry: failed to delete manifest \"%s\"", kManifestNames[row]));
            continue;
        }
        PutManifestInZip(archive, text, kManifestNames[row], false);
    }
    archive.Close();
    transaction.Commit();
}

} // namespace QOB
