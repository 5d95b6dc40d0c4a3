// QOBX_Version, QOBX_SetLogLevel and QOBX_SetProgressFn: what a host asks or sets once,
// outside any package call (no frame, no lock, the last-error record untouched).
#include "support/log.hpp"
#include "support/progress.hpp"

#include <qob/qob_ext.h>

#ifndef QOB_VERSION_TEXT
#error "the build gives the library's version"
#endif

extern "C" {

QOB_API const char* QOBX_Version(void) {
    return QOB_VERSION_TEXT;
}

QOB_API void QOBX_SetLogLevel(int32_t level) {
    QOB::SetDefaultSinkLevel(level);
}

QOB_API void QOBX_SetProgressFn(QOBX_ProgressFn fn, void* user) {
    QOB::SetProgressFunction(fn, user);
}

} // extern "C"
