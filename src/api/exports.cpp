// The ten exported functions. Each hands its arguments to the call frame unchanged, and names
// the package it was given as what a failure concerns unless the failure names something else.
#include "api/call_frame.hpp"
#include "api/operations.hpp"

using QOB::CallGuarded;

extern "C" {

QOB_API QobErrorCode_e QOB_Create(const QOB_CreateArgs* args) {
    return CallGuarded("QOB_Create", [&] { QOB::QOB_Create_Unlocked(args); },
                       {args != nullptr ? args->szPackagePath : nullptr});
}

QOB_API QobErrorCode_e QOB_Extract(QOB_ExtractArgs* args) {
    return CallGuarded("QOB_Extract", [&] { QOB::QOB_Extract_Unlocked(args); },
                       {args != nullptr ? args->szPackagePath : nullptr});
}

QOB_API QobErrorCode_e QOB_Update(QOB_UpdateArgs* args) {
    return CallGuarded("QOB_Update", [&] { QOB::QOB_Update_Unlocked(args); },
                       {args != nullptr ? args->szPackagePath : nullptr});
}

QOB_API QobErrorCode_e QOB_GetPackageInfo(QOB_PackageInfo* info) {
    return CallGuarded("QOB_GetPackageInfo", [&] { QOB::QOB_GetPackageInfo_Unlocked(info); },
                       {info != nullptr ? info->szPackagePath : nullptr});
}

QOB_API QobErrorCode_e QOB_GetLensCastCalibInfo(const char* szPackagePath, const char* szLccId,
                                                QOB_EntryInfo* entry) {
    return CallGuarded(
        "QOB_GetLensCastCalibInfo",
        [&] { QOB::QOB_GetLensCastCalibInfo_Unlocked(szPackagePath, szLccId, entry); },
        {szPackagePath});
}

QOB_API QobErrorCode_e QOB_IsQob(const char* szPackagePath) {
    return CallGuarded("QOB_IsQob", [&] { QOB::QOB_IsQob_Unlocked(szPackagePath); },
                       {szPackagePath});
}

QOB_API QobErrorCode_e QOB_RemoveEntry(const char* szPackageFullPath,
                                       const char* szFilePathInPackage) {
    return CallGuarded(
        "QOB_RemoveEntry",
        [&] { QOB::QOB_RemoveEntry_Unlocked(szPackageFullPath, szFilePathInPackage); },
        {szPackageFullPath});
}

QOB_API QobErrorCode_e QOB_Constructor(void* record, QOB_ObjectType type) {
    return CallGuarded("QOB_Constructor", [&] { QOB::QOB_Constructor_Unlocked(record, type); });
}

QOB_API QobErrorCode_e QOB_Destructor(void* record, QOB_ObjectType type) {
    return CallGuarded("QOB_Destructor", [&] { QOB::QOB_Destructor_Unlocked(record, type); });
}

} // extern "C"

// On Windows qob.def exports it under the name MSVC gives it.
void QOB_SetLogFn(QobLogFn fn, void* user) {
    try {
        QOB::SetLogSink(fn, user);
    } catch (...) {
        // Cannot fail from the host's view; a line lost for lack of memory is all that happens.
    }
}
