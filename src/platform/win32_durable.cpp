// Win32 durability: FlushFileBuffers, and a move that never replaces. Directory entries
// need no flush of their own on Windows.
#include "platform/platform.hpp"

#include <windows.h>

namespace QOB::Platform {

namespace {
bool g_syncEnabled = true;
}

void SetSyncEnabled(bool enabled) noexcept {
    g_syncEnabled = enabled;
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

MoveResult MoveNoReplace(const std::filesystem::path& from,
                         const std::filesystem::path& to) noexcept {
    if (::MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_WRITE_THROUGH) != 0) {
        return MoveResult::Moved;
    }
    const DWORD error = ::GetLastError();
    return error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS ? MoveResult::TargetExists
                                                                       : MoveResult::Failed;
}

} // namespace QOB::Platform
