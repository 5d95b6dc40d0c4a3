// Whether a host's package description is still the package as it stands: the guard that
// turns an update from a stale or foreign description into a clean, retryable refusal.
#pragma once

#include "archive/archive.hpp"

#include <qob/qob.h>

namespace QOB {

// True when info's 23 manifest texts are exactly what reading the package now would put
// there, and info's raw image is the one the primary manifest names. A description that was
// read, or returned by an update, passes; one of another package, one built by hand, or one
// read before another host changed the package does not.
bool DescribesPackage(Archive& archive, const QOB_PackageInfo& info);

} // namespace QOB
