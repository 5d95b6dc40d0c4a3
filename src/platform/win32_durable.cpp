// Win32 durability: FlushFileBuffers. Directory entries need no flush of their own on Windows.
#include "platform/platform.hpp"

#include <windows.h>

namespace QOB::Platform {

namespace {
bool g_syncEnabled = true;
}

void SetSyncEnabled(bool enabled) noexcept {
    g_syncEnabled = enabled;
}

bool SyncEnabled() noexcept {
    return g_syncEnabled;
}

bool SyncFile(const std::filesystem::path& path) noexcept {
    if (!g_syncEnabled) {
        return true;
    }
    const HANDLE handle =
        ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        return false;
    }
    const bool flushed = ::FlushFileBuffers(handle) != 0;
    ::CloseHandle(handle);
    return flushed;
}

bool SyncDirectory(const std::filesystem::path&) noexcept {
    return true;
}

} // namespace QOB::Platform
