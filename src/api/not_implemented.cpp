// Exports whose work is not built yet: they check their arguments like the real ones and
// then fail with FUNC_NOT_IMPL, so that no export pretends to succeed.
#include "api/operations.hpp"

#include "archive/defer.hpp"
#include "support/exception.hpp"
#include "support/log.hpp"

namespace QOB {
namespace {

[[noreturn]] void NotImplemented() { throw Exception(FUNC_NOT_IMPL, "not implemented"); }

void RequirePointer(const void* pointer) {
    if (pointer == nullptr) {
        throw Exception(INVALID_POINTER, "argument is null");
    }
}

} // namespace

void QOB_Create_Unlocked(const QOB_CreateArgs* args) {
    QOB_FAILURE_TRAIL("in QOB_Create_Unlocked");
    RequirePointer(args);
    NotImplemented();
}

void QOB_Extract_Unlocked(QOB_ExtractArgs* args) {
    QOB_FAILURE_TRAIL("in QOB_Extract_Unlocked");
    RequirePointer(args);
    NotImplemented();
}

void QOB_Update_Unlocked(QOB_UpdateArgs* args) {
    QOB_FAILURE_TRAIL("in QOB_Update_Unlocked");
    RequirePointer(args);
    NotImplemented();
}

void QOB_GetPackageInfo_Unlocked(QOB_PackageInfo* info) {
    QOB_FAILURE_TRAIL("in QOB_GetPackageInfo_Unlocked");
    RequirePointer(info);
    NotImplemented();
}

void QOB_GetLensCastCalibInfo_Unlocked(const char* szPackagePath, const char* szLccId,
                                       QOB_EntryInfo* entry) {
    QOB_FAILURE_TRAIL("in QOB_GetLensCastCalibInfo_Unlocked");
    if (szPackagePath == nullptr || szLccId == nullptr || entry == nullptr) {
        throw Exception(INVALID_POINTER, "argument is null");
    }
    NotImplemented();
}

void QOB_IsQob_Unlocked(const char* szPackagePath) {
    QOB_FAILURE_TRAIL("in QOB_IsQob_Unlocked");
    RequirePointer(szPackagePath);
    NotImplemented();
}

void QOB_RemoveEntry_Unlocked(const char* szPackageFullPath, const char* szFilePathInPackage) {
    QOB_FAILURE_TRAIL("in QOB_RemoveEntry_Unlocked");
    if (szPackageFullPath == nullptr) {
        throw Exception(INVALID_POINTER, "argument szPackageFullPath is null");
    }
    if (szFilePathInPackage == nullptr) {
        throw Exception(INVALID_POINTER, "argument szFilePathInPackage is null");
    }
    NotImplemented();
}

} // namespace QOB
