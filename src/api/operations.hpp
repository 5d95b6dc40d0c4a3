// The implementations behind the exports. Each throws QOB::Exception on failure and leaves
// "in <name>" at ERROR on its way out; the call frame maps the exception to a code.
#pragma once

#include <qob/qob.h>

namespace QOB {

void QOB_Create_Unlocked(const QOB_CreateArgs* args);
void QOB_Extract_Unlocked(QOB_ExtractArgs* args);
void QOB_Update_Unlocked(QOB_UpdateArgs* args);
void QOB_GetPackageInfo_Unlocked(QOB_PackageInfo* info);
void QOB_GetLensCastCalibInfo_Unlocked(const char* szPackagePath, const char* szLccId,
                                       QOB_EntryInfo* entry);
void QOB_IsQob_Unlocked(const char* szPackagePath);
void QOB_RemoveEntry_Unlocked(const char* szPackageFullPath, const char* szFilePathInPackage);
void QOB_Constructor_Unlocked(void* record, QOB_ObjectType type);
void QOB_Destructor_Unlocked(void* record, QOB_ObjectType type);

} // namespace QOB
