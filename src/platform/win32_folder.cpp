// Files beside a package on Windows. Windows has no descriptor-relative opens, so a folder is
// its path; every open refuses reparse points (links and junctions) by opening the name itself
// (FILE_FLAG_OPEN_REPARSE_POINT) and checking its attributes through the handle, and every
// later step (facts, flush, rename, deletion) works on that handle.
#include "platform/platform.hpp"
#include "platform/win32_stream.hpp"

#include <atomic>
#include <cstdio>
#include <new>
#include <random>
#include <string>
#include <windows.h>

namespace QOB::Platform {

struct Folder {
    std::filesystem::path path;
};

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

bool Describe(HANDLE handle, FileFacts& facts, int& error) noexcept {
    BY_HANDLE_FILE_INFORMATION info{};
    if (!::GetFileInformationByHandle(handle, &info)) {
        error = static_cast<int>(::GetLastError());
        return false;
    }
    facts = FileFacts{};
    facts.regular =
        ::GetFileType(handle) == FILE_TYPE_DISK &&
        (info.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) == 0;
    facts.links = info.nNumberOfLinks;
    facts.size = (std::uint64_t{info.nFileSizeHigh} << 32) | info.nFileSizeLow;
    facts.device = info.dwVolumeSerialNumber;
    facts.inode = (std::uint64_t{info.nFileIndexHigh} << 32) | info.nFileIndexLow;
    return true;
}

// Folders open only for their facts (FILE_FLAG_BACKUP_SEMANTICS): a folder is never a file to
// read or write.
HANDLE OpenName(const Folder* folder, const std::string& name, DWORD access, DWORD disposition,
                int& error, DWORD folders = 0) noexcept {
    try {
        const std::filesystem::path full = folder->path / std::filesystem::u8path(name);
        const HANDLE handle =
            ::CreateFileW(full.c_str(), access, kShareAll, nullptr, disposition,
                          FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT | folders, nullptr);
        if (handle == INVALID_HANDLE_VALUE) {
            error = static_cast<int>(::GetLastError());
            if (error == ERROR_PATH_NOT_FOUND) {
                error = ERROR_FILE_NOT_FOUND;
            }
        }
        return handle;
    } catch (...) {
        error = ERROR_NOT_ENOUGH_MEMORY;
        return INVALID_HANDLE_VALUE;
    }
}

std::atomic<bool> g_unnamedFiles{true};

} // namespace

Folder* FolderOpen(const std::filesystem::path& folder, int& error) noexcept {
    try {
        const std::filesystem::path path = folder.empty() ? std::filesystem::path(L".") : folder;
        const DWORD attributes = ::GetFileAttributesW(path.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES) {
            error = static_cast<int>(::GetLastError());
            if (error == ERROR_PATH_NOT_FOUND) {
                error = ERROR_FILE_NOT_FOUND;
            }
            return nullptr;
        }
        if ((attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
            error = ERROR_DIRECTORY;
            return nullptr;
        }
        return new Folder{path};
    } catch (...) {
        error = ERROR_NOT_ENOUGH_MEMORY;
        return nullptr;
    }
}

void FolderClose(Folder* folder) noexcept {
    delete folder;
}

bool FolderSync(Folder*, int&) noexcept {
    return true; // directory entries need no flush of their own on Windows
}

FileStream* FileOpenIn(Folder* folder, const std::string& name, OpenAs how, int& error) noexcept {
    DWORD access = GENERIC_READ;
    DWORD disposition = OPEN_EXISTING;
    if (how != OpenAs::Read) {
        access |= GENERIC_WRITE;
    }
    if (how == OpenAs::CreateNew) {
        disposition = CREATE_NEW;
    }
    const HANDLE handle = OpenName(folder, name, access, disposition, error);
    if (handle == INVALID_HANDLE_VALUE) {
        if (error == ERROR_FILE_EXISTS || error == ERROR_ALREADY_EXISTS) {
            error = ERROR_FILE_EXISTS;
        }
        return nullptr;
    }
    return StreamFromHandle(handle);
}

bool FileFactsOf(FileStream* stream, FileFacts& facts, int& error) noexcept {
    return Describe(StreamHandle(stream), facts, error);
}

bool FileFactsIn(Folder* folder, const std::string& name, FileFacts& facts, int& error) noexcept {
    const HANDLE handle = OpenName(folder, name, FILE_READ_ATTRIBUTES, OPEN_EXISTING, error,
                                   FILE_FLAG_BACKUP_SEMANTICS);
    if (handle == INVALID_HANDLE_VALUE) {
        return false;
    }
    const bool described = Describe(handle, facts, error);
    ::CloseHandle(handle);
    return described;
}

bool FileSetPermissions(FileStream*, const FileFacts&, int&) noexcept {
    return true; // a new file inherits its folder's access rules, as the package did
}

bool FileRemoveIn(Folder* folder, const std::string& name, const FileFacts& expected,
                  int& error) noexcept {
    const HANDLE handle = OpenName(folder, name, DELETE | FILE_READ_ATTRIBUTES, OPEN_EXISTING,
                                   error, FILE_FLAG_BACKUP_SEMANTICS);
    if (handle == INVALID_HANDLE_VALUE) {
        return false;
    }
    FileFacts now;
    bool removed = false;
    if (Describe(handle, now, error)) {
        if (now.device != expected.device || now.inode != expected.inode) {
            error = ERROR_FILE_INVALID; // someone put another file under the name
        } else {
            FILE_DISPOSITION_INFO disposition{};
            disposition.DeleteFile = TRUE;
            removed = ::SetFileInformationByHandle(handle, FileDispositionInfo, &disposition,
                                                   sizeof disposition) != 0;
            if (!removed) {
                error = static_cast<int>(::GetLastError());
            }
        }
    }
    ::CloseHandle(handle);
    return removed;
}

bool FileSyncData(FileStream* stream, int& error) noexcept {
    if (!SyncEnabled()) {
        return true;
    }
    if (!::FlushFileBuffers(StreamHandle(stream))) {
        error = static_cast<int>(::GetLastError());
        return false;
    }
    return true;
}

void SetUnnamedFilesEnabled(bool enabled) noexcept {
    g_unnamedFiles = enabled; // Windows has no unnamed files: always the named way
}

FileStream* FileCreateStaged(Folder* folder, const std::string& name, std::string& staging,
                             int& error) noexcept {
    try {
        std::random_device device;
        for (int attempt = 0; attempt < 8; ++attempt) {
            char suffix[17];
            std::snprintf(suffix, sizeof suffix, "%08x%08x", device(), device());
            staging = "." + name + "." + suffix + ".partial";
            // Renamed through this handle later, so it asks for DELETE (only staged files do:
            // it would shut out every program that opens a package without sharing that).
            const HANDLE handle =
                OpenName(folder, staging, GENERIC_READ | GENERIC_WRITE | DELETE, CREATE_NEW, error);
            if (handle != INVALID_HANDLE_VALUE) {
                return StreamFromHandle(handle);
            }
            if (error != ERROR_FILE_EXISTS && error != ERROR_ALREADY_EXISTS) {
                staging.clear();
                return nullptr;
            }
        }
    } catch (...) {
        error = ERROR_NOT_ENOUGH_MEMORY;
    }
    staging.clear();
    return nullptr;
}

MoveResult FileGiveName(FileStream* stream, Folder* folder, const std::string& staging,
                        const std::string& name, int& error) noexcept {
    if (staging.empty()) {
        error = ERROR_INVALID_PARAMETER;
        return MoveResult::Failed;
    }
    try {
        // Renamed through the handle that wrote it, never by name, and never over a file.
        const std::wstring target = (folder->path / std::filesystem::u8path(name)).wstring();
        const std::size_t bytes = sizeof(FILE_RENAME_INFO) + target.size() * sizeof(wchar_t);
        std::string storage(bytes, '\0');
        auto* rename = reinterpret_cast<FILE_RENAME_INFO*>(storage.data());
        rename->ReplaceIfExists = FALSE;
        rename->RootDirectory = nullptr;
        rename->FileNameLength = static_cast<DWORD>(target.size() * sizeof(wchar_t));
        std::copy(target.begin(), target.end(), rename->FileName);
        if (::SetFileInformationByHandle(StreamHandle(stream), FileRenameInfo, rename,
                                         static_cast<DWORD>(bytes))) {
            return MoveResult::Moved;
        }
        error = static_cast<int>(::GetLastError());
    } catch (...) {
        error = ERROR_NOT_ENOUGH_MEMORY;
    }
    return error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS ? MoveResult::TargetExists
                                                                       : MoveResult::Failed;
}

std::uint32_t CallerUser() noexcept {
    return 0;
}

bool CallerInGroup(std::uint32_t) noexcept {
    return true;
}

bool UserInGroup(std::uint32_t, std::uint32_t) noexcept {
    return false;
}

} // namespace QOB::Platform
