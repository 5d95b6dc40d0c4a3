// Win32 implementation of the platform interface.
#include "platform/platform.hpp"

#include <cstdlib>
#include <windows.h>

namespace QOB::Platform {
namespace {

// Named mutex shared by every process that loads the library. Null when it could not be
// created: calls then run without cross-process serialisation, silently.
HANDLE g_mutex = nullptr;

void CloseProcessLock() {
    if (g_mutex != nullptr) {
        ::CloseHandle(g_mutex);
        g_mutex = nullptr;
    }
}

struct ProcessLockSetup {
    ProcessLockSetup() noexcept {
        g_mutex = ::CreateMutexA(nullptr, FALSE, "ZT.XProcess.Lock");
        std::atexit(&CloseProcessLock);
    }
} g_lockSetup;

} // namespace

void ProcessLockAcquire() noexcept {
    if (g_mutex != nullptr) {
        // An abandoned mutex counts as acquired; a failed wait lets the call run unlocked.
        ::WaitForSingleObject(g_mutex, INFINITE);
    }
}

void ProcessLockRelease() noexcept {
    if (g_mutex != nullptr) {
        ::ReleaseMutex(g_mutex);
    }
}

} // namespace QOB::Platform
