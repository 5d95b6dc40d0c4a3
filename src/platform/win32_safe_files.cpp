// Creating extracted files below a destination without ever going through a reparse point
// (symbolic link, junction, mount point) below it. Each directory on the way is opened with
// FILE_FLAG_OPEN_REPARSE_POINT and checked, and its handle is held without delete sharing until
// the file has its final name, so that it cannot be swapped for a link while we work.
#include "platform/platform.hpp"

#include <atomic>
#include <memory>
#include <new>
#include <string>
#include <vector>
#include <windows.h>

namespace QOB::Platform {

namespace {

class Handle {
public:
    explicit Handle(HANDLE handle = INVALID_HANDLE_VALUE) noexcept : handle_(handle) {}
    ~Handle() {
        if (handle_ != INVALID_HANDLE_VALUE) {
            ::CloseHandle(handle_);
        }
    }
    Handle(Handle&& other) noexcept : handle_(other.Release()) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    Handle& operator=(Handle&& other) noexcept {
        if (this != &other) {
            if (handle_ != INVALID_HANDLE_VALUE) {
                ::CloseHandle(handle_);
            }
            handle_ = other.Release();
        }
        return *this;
    }
    HANDLE Get() const noexcept { return handle_; }
    HANDLE Release() noexcept {
        const HANDLE handle = handle_;
        handle_ = INVALID_HANDLE_VALUE;
        return handle;
    }

private:
    HANDLE handle_;
};

constexpr DWORD kNoSuchAttributes = INVALID_FILE_ATTRIBUTES;

// ".<name>.<pid>-<n>.qobtmp": hidden by its dot for the tools that hide such names, beside the
// final name, distinct between processes and attempts; CREATE_NEW settles any collision left.
std::wstring TemporaryName(const std::wstring& name) {
    static std::atomic<unsigned> counter{0};
    return L"." + name.substr(0, 200) + L"." + std::to_wstring(::GetCurrentProcessId()) + L"-" +
           std::to_wstring(counter.fetch_add(1)) + L".qobtmp";
}

} // namespace

struct OutputFile {
    Handle file;              // the temporary file
    std::wstring temp;        // its full path
    std::wstring path;        // the final name's full path
    std::vector<Handle> held; // the directories on the way, held until the commit
};

namespace {

bool IsReparsePoint(DWORD attributes) noexcept {
    return attributes != kNoSuchAttributes && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

bool UsableName(const std::filesystem::path& name) noexcept {
    const std::wstring& text = name.native();
    return !text.empty() && text != L"." && text != L".." &&
           text.find_first_of(L"/\\:") == std::wstring::npos;
}

// The directory itself, not what a reparse point there would lead to; held against deletion
// and renaming.
Handle OpenDirectory(const std::wstring& path) noexcept {
    return Handle(::CreateFileW(
        path.c_str(), FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

DWORD HandleAttributes(HANDLE handle) noexcept {
    BY_HANDLE_FILE_INFORMATION info{};
    return ::GetFileInformationByHandle(handle, &info) ? info.dwFileAttributes : kNoSuchAttributes;
}

} // namespace

CreateBelowResult CreateFileBelow(const std::filesystem::path& root,
                                  const std::vector<std::filesystem::path>& components) {
    using Status = CreateBelowResult::Status;
    CreateBelowResult result;
    const auto fail = [&](Status status, DWORD error) {
        result.status = status;
        result.error = static_cast<int>(error);
        return std::move(result);
    };
    if (components.empty()) {
        return fail(Status::Failed, ERROR_INVALID_NAME);
    }
    std::wstring path = root.native();
    std::vector<Handle> held; // every directory below the root, until the file exists
    for (std::size_t i = 0; i < components.size(); ++i) {
        const std::filesystem::path& part = components[i];
        result.at /= part;
        if (!UsableName(part)) {
            return fail(Status::Failed, ERROR_INVALID_NAME);
        }
        if (!path.empty() && path.back() != L'\\' && path.back() != L'/') {
            path += L'\\';
        }
        path += part.native();
        const DWORD attributes = ::GetFileAttributesW(path.c_str());
        if (IsReparsePoint(attributes)) {
            return fail(Status::ThroughLink, ERROR_CANT_ACCESS_FILE);
        }
        if (i + 1 < components.size()) {
            if (attributes == kNoSuchAttributes) {
                if (::CreateDirectoryW(path.c_str(), nullptr)) {
                    result.createdDirectory = true;
                } else if (::GetLastError() != ERROR_ALREADY_EXISTS) {
                    return fail(Status::Failed, ::GetLastError());
                }
            }
            Handle dir = OpenDirectory(path);
            if (dir.Get() == INVALID_HANDLE_VALUE) {
                return fail(Status::Failed, ::GetLastError());
            }
            const DWORD held_attributes = HandleAttributes(dir.Get());
            if (IsReparsePoint(held_attributes)) {
                return fail(Status::ThroughLink, ERROR_CANT_ACCESS_FILE);
            }
            if (held_attributes == kNoSuchAttributes ||
                (held_attributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
                return fail(Status::Failed, ERROR_DIRECTORY);
            }
            held.push_back(std::move(dir));
            continue;
        }
        if (attributes != kNoSuchAttributes && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
            return fail(Status::Failed, ERROR_DIRECTORY);
        }
        // A new file under a temporary name, renamed over the final name once its content
        // is checked: never a write into whatever the name stands for now (a hard link would
        // carry the write out of the destination), and never wrong bytes under the name.
        if (attributes != kNoSuchAttributes) {
            result.replaced = true;
        }
        const std::size_t slash = path.find_last_of(L"\\/");
        const std::wstring folder = slash == std::wstring::npos ? L"" : path.substr(0, slash + 1);
        for (int attempt = 0; attempt < 100; ++attempt) {
            const std::wstring temp = folder + TemporaryName(part.native());
            Handle file(::CreateFileW(
                temp.c_str(), GENERIC_WRITE | DELETE, FILE_SHARE_READ, nullptr, CREATE_NEW,
                FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
            if (file.Get() == INVALID_HANDLE_VALUE) {
                if (::GetLastError() == ERROR_FILE_EXISTS) {
                    continue;
                }
                return fail(Status::Failed, ::GetLastError());
            }
            try {
                result.file = new OutputFile{Handle(), temp, path, {}};
            } catch (const std::bad_alloc&) {
                file = Handle();
                ::DeleteFileW(temp.c_str());
                return fail(Status::Failed, ERROR_NOT_ENOUGH_MEMORY);
            }
            result.file->file = std::move(file);
            result.file->held = std::move(held);
            result.status = Status::Created;
            return result;
        }
        return fail(Status::Failed, ERROR_FILE_EXISTS);
    }
    return fail(Status::Failed, ERROR_INVALID_NAME);
}

std::error_code OutputWrite(OutputFile* file, const void* data, std::size_t size) noexcept {
    if (file == nullptr) {
        return SystemError(ERROR_INVALID_HANDLE);
    }
    const auto* bytes = static_cast<const unsigned char*>(data);
    while (size > 0) {
        const DWORD round = size > 0x40000000 ? 0x40000000 : static_cast<DWORD>(size);
        DWORD written = 0;
        if (!::WriteFile(file->file.Get(), bytes, round, &written, nullptr)) {
            return LastSystemError();
        }
        if (written == 0) { // nothing written and no reason given: the device took no more
            return SystemError(ERROR_DISK_FULL);
        }
        bytes += written;
        size -= written;
    }
    return {};
}

int OutputCommit(OutputFile* file) noexcept {
    if (file == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    const std::unique_ptr<OutputFile> owned(file);
    DWORD error = ::CloseHandle(file->file.Release()) ? 0 : ::GetLastError();
    // Checked again at the rename: a link planted under the final name meanwhile is refused.
    if (error == 0 && IsReparsePoint(::GetFileAttributesW(file->path.c_str()))) {
        error = ERROR_CANT_ACCESS_FILE;
    }
    if (error == 0 &&
        !::MoveFileExW(file->temp.c_str(), file->path.c_str(), MOVEFILE_REPLACE_EXISTING)) {
        error = ::GetLastError();
    }
    if (error != 0) {
        ::DeleteFileW(file->temp.c_str());
    }
    return static_cast<int>(error);
}

void OutputDiscard(OutputFile* file) noexcept {
    if (file == nullptr) {
        return;
    }
    const std::unique_ptr<OutputFile> owned(file);
    file->file = Handle();
    ::DeleteFileW(file->temp.c_str());
}

// Win32 compares names without regard to case and drops trailing dots and blanks of each
// component, so "IMG.CR3", "img.cr3" and "img.cr3." all name one file.
std::string OutputNameKey(const std::string& utf8) {
    const int count =
        ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), nullptr, 0);
    if (count <= 0) {
        return utf8;
    }
    std::wstring wide(static_cast<std::size_t>(count), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()), wide.data(),
                          count);
    ::CharUpperBuffW(wide.data(), static_cast<DWORD>(wide.size()));
    std::wstring folded;
    std::size_t start = 0;
    while (start <= wide.size()) {
        std::size_t end = wide.find_first_of(L"/\\", start);
        if (end == std::wstring::npos) {
            end = wide.size();
        }
        std::wstring part = wide.substr(start, end - start);
        while (!part.empty() && (part.back() == L'.' || part.back() == L' ')) {
            part.pop_back();
        }
        if (!folded.empty() || start > 0) {
            folded += L'/';
        }
        folded += part;
        start = end + 1;
    }
    const int size = ::WideCharToMultiByte(
        CP_UTF8, 0, folded.data(), static_cast<int>(folded.size()), nullptr, 0, nullptr, nullptr);
    if (size <= 0) {
        return utf8;
    }
    std::string key(static_cast<std::size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, folded.data(), static_cast<int>(folded.size()), key.data(),
                          size, nullptr, nullptr);
    return key;
}

} // namespace QOB::Platform
