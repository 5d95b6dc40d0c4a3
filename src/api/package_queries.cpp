// QOB_IsQob, QOB_GetPackageInfo and QOB_GetLensCastCalibInfo: read-only questions about a
// package file.
#include "api/operations.hpp"
#include "api/package_info_ptr.hpp"
#include "api/record_validation.hpp"

#include "archive/archive.hpp"
#include "archive/defer.hpp"
#include "archive/path.hpp"
#include "package/manifest_format.hpp"
#include "package/manifest_reader.hpp"
#include "support/exception.hpp"
#include "support/fixed_string.hpp"
#include "support/format.hpp"
#include "support/log.hpp"
#include "support/utf8_path.hpp"

#include <cstring>

namespace QOB {

PackageInfoPtr MakeEmptyPackageInfo() {
    PackageInfoPtr info(new QOB_PackageInfo());
    const QobErrorCode_e result = QOB_Constructor(info.get(), QOB_OBJECT_PACKAGE_INFO);
    if (result != SUCCESS) {
        throw Exception(result, "failed to construct package info");
    }
    return info;
}

void QOB_IsQob_Unlocked(const char* szPackagePath) {
    QOB_FAILURE_TRAIL("in QOB_IsQob_Unlocked");
    if (szPackagePath == nullptr) {
        throw Exception(INVALID_POINTER, "argument is null");
    }
    Archive archive(PathFromUtf8(szPackagePath), true);
    const char* primary = kManifestNames[kPrimaryManifestRow];
    if (!archive.Contains(Path(primary))) {
        throw Exception(FILE_NOT_IN_PACKAGE, Format("manifest \"%s\" not found in package \"%s\"",
                                                    primary, szPackagePath));
    }
    if (!IsPackageVersionSupported(archive)) {
        throw Exception(PACKAGEVERSION_NOT_SUPPORTED,
                        Format("version not supported of \"%s\"", szPackagePath));
    }
}

void QOB_GetPackageInfo_Unlocked(QOB_PackageInfo* info) {
    QOB_FAILURE_TRAIL("in QOB_GetPackageInfo_Unlocked");
    if (info == nullptr) {
        throw Exception(INVALID_POINTER, "argument is null");
    }
    RequireValid(*info);
    {
        // Opened (and locked) before the record is touched: a package that is busy leaves the
        // host's record as it was.
        Archive archive(PathFromUtf8(info->szPackagePath), true);
        // A record read before is emptied first: its lists are released rather than lost, and
        // nothing of the earlier package survives in the fields this package leaves unset.
        QOB_Destructor_Unlocked(info, QOB_OBJECT_PACKAGE_INFO);
        std::memset(&info->files, 0, sizeof(info->files));
        for (std::size_t row = 0; row < kManifestNames.size(); ++row) {
            ManifestText(*info, row)[0] = '\0';
        }
        GetPackageInfoInternal(archive, *info);
    }
    if (!IsValid(*info)) {
        throw Exception(INTERNAL_INCONSISTENCY, "result contains invalid path");
    }
}

void QOB_GetLensCastCalibInfo_Unlocked(const char* szPackagePath, const char* szLccId,
                                       QOB_EntryInfo* entry) {
    QOB_FAILURE_TRAIL("in QOB_GetLensCastCalibInfo_Unlocked");
    if (szPackagePath == nullptr || szLccId == nullptr || entry == nullptr) {
        throw Exception(INVALID_POINTER, "argument is null");
    }
    RequireValid(*entry);

    PackageInfoPtr info = MakeEmptyPackageInfo();
    const QobErrorCode_e reset = QOB_Constructor(entry, QOB_OBJECT_ENTRY_INFO);
    if (reset != SUCCESS) {
        throw Exception(reset, "failed to construct entry info");
    }
    if (!CopyToField(info->szPackagePath, szPackagePath)) {
        throw Exception(INVALID_PARAMETER, "argument szPackagePath too long");
    }
    QOB_GetPackageInfo_Unlocked(info.get());

    const QOB_ImageFiles& files = info->files;
    const std::size_t wanted = std::strlen(szLccId);
    for (std::uint32_t i = 0; i < files.uLccCount; ++i) {
        const QOB_EntryInfo& lcc = files.pLccs[i];
        // Exact match: same length, byte for byte, case-sensitive; the first one wins.
        if (std::strlen(lcc.szIdentifier) != wanted ||
            std::memcmp(lcc.szIdentifier, szLccId, wanted) != 0) {
            continue;
        }
        entry->uReservedSpace = lcc.uReservedSpace;
        entry->uStoredSize = lcc.uStoredSize;
        entry->uBufferLength = lcc.uBufferLength;
        entry->uDataOffset = lcc.uDataOffset;
        CopyToField(entry->szIdentifier, lcc.szIdentifier);
        CopyToField(entry->szSecondPath, lcc.szSecondPath);
        CopyToField(entry->szPath, lcc.szPath);
        return;
    }
    throw Exception(FILE_NOT_IN_PACKAGE, "LCC not found in package");
}

} // namespace QOB
