// Working QOB_PackageInfo records of the operations: on the heap (they are 381176 bytes),
// zero-filled, and released through the exported destructor (a nested call that re-enters the
// lock on this thread) before their memory goes.
#pragma once

#include <qob/qob.h>

#include <memory>

namespace QOB {

struct PackageInfoDeleter {
    void operator()(QOB_PackageInfo* info) const noexcept {
        QOB_Destructor(info, QOB_OBJECT_PACKAGE_INFO);
        delete info;
    }
};
using PackageInfoPtr = std::unique_ptr<QOB_PackageInfo, PackageInfoDeleter>;

// A new record, emptied with the exported constructor.
PackageInfoPtr MakeEmptyPackageInfo();

} // namespace QOB
