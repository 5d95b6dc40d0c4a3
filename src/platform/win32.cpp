// Win32 implementation of the platform interface.
#include "platform/platform.hpp"

#include "platform/win32_stream.hpp"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
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

bool ProcessLockAcquire(std::string& /*problem*/) noexcept {
    if (g_mutex != nullptr) {
        // An abandoned mutex counts as acquired; a failed wait lets the call run unlocked.
        ::WaitForSingleObject(g_mutex, INFINITE);
    }
    return true;
}

void ProcessLockRelease() noexcept {
    if (g_mutex != nullptr) {
        ::ReleaseMutex(g_mutex);
    }
}

// The file stream record: the file handle, whether closing the stream closes it (streams
// shared from another hold it only), the stream's own position, and the last Win32 error (0
// when none). Reads and writes name their offset, so that streams sharing a handle never move
// each other.
struct FileStream {
    HANDLE handle;
    bool owns;
    std::uint64_t position;
    std::int32_t error;
};

namespace {

// UTF-8 to UTF-16 into a heap buffer; null on failure.
std::unique_ptr<wchar_t[]> Widen(const char* utf8) noexcept {
    const int count = ::MultiByteToWideChar(CP_UTF8, 0, utf8, -1, nullptr, 0);
    if (count <= 0) {
        return nullptr;
    }
    std::unique_ptr<wchar_t[]> wide(new (std::nothrow) wchar_t[static_cast<std::size_t>(count)]);
    if (wide && ::MultiByteToWideChar(CP_UTF8, 0, utf8, -1, wide.get(), count) != count) {
        wide.reset();
    }
    return wide;
}

FileStream* OpenWith(const char* utf8Name, DWORD access, DWORD share, DWORD disposition) noexcept {
    if (utf8Name == nullptr) {
        return nullptr;
    }
    const std::unique_ptr<wchar_t[]> name = Widen(utf8Name);
    if (!name) {
        return nullptr;
    }
    const HANDLE handle = ::CreateFileW(name.get(), access, share, nullptr, disposition,
                                        FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        return nullptr;
    }
    auto* stream = new (std::nothrow) FileStream{handle, true, 0, 0};
    if (stream == nullptr) {
        ::CloseHandle(handle);
    }
    return stream;
}

void StoreError(FileStream* stream) noexcept {
    const DWORD error = ::GetLastError();
    stream->error = error == ERROR_HANDLE_EOF ? 0 : static_cast<std::int32_t>(error);
}

bool HasHandle(const FileStream* stream) noexcept {
    return stream->handle != nullptr && stream->handle != INVALID_HANDLE_VALUE;
}

} // namespace

FileStream* FileOpen(const char* utf8Name, int mode) noexcept {
    if ((mode & 3) == 1) {
        return OpenWith(utf8Name, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
    }
    if ((mode & 4) != 0) {
        return OpenWith(utf8Name, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                        OPEN_EXISTING);
    }
    if ((mode & 8) != 0) {
        return OpenWith(utf8Name, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                        CREATE_ALWAYS);
    }
    return nullptr;
}

FileStream* FileOpenReadOnly(const char* utf8Name) noexcept {
    return OpenWith(utf8Name, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING);
}

std::uint32_t FileRead(FileStream* stream, void* buffer, std::uint32_t size) noexcept {
    if (stream == nullptr || !HasHandle(stream)) {
        return 0;
    }
    OVERLAPPED at{};
    at.Offset = static_cast<DWORD>(stream->position);
    at.OffsetHigh = static_cast<DWORD>(stream->position >> 32);
    DWORD done = 0;
    if (!::ReadFile(stream->handle, buffer, size, &done, &at)) {
        StoreError(stream);
    }
    stream->position += done;
    return done;
}

std::uint32_t FileWrite(FileStream* stream, const void* buffer, std::uint32_t size) noexcept {
    if (stream == nullptr || !HasHandle(stream)) {
        return 0;
    }
    OVERLAPPED at{};
    at.Offset = static_cast<DWORD>(stream->position);
    at.OffsetHigh = static_cast<DWORD>(stream->position >> 32);
    DWORD done = 0;
    if (!::WriteFile(stream->handle, buffer, size, &done, &at)) {
        StoreError(stream);
    }
    stream->position += done;
    return done;
}

long FileTell(FileStream* stream) noexcept {
    if (stream == nullptr) {
        return -1;
    }
    if (stream->position >= 0xFFFFFFFFu) {
        stream->error = ERROR_ARITHMETIC_OVERFLOW; // past what 32-bit positions can name
        return -1;
    }
    // Positions from 2 GiB up arrive negative in a 32-bit long; the zip layer reads the
    // value back as unsigned.
    return static_cast<long>(static_cast<std::uint32_t>(stream->position));
}

// The offset is a 32-bit value: unsigned from the start, signed from the current position
// or the end.
long FileSeek(FileStream* stream, std::uint32_t offset, int origin) noexcept {
    if (stream == nullptr) {
        return -1;
    }
    std::int64_t base = 0;
    std::int64_t distance = static_cast<std::int32_t>(offset);
    if (origin == 0) {
        distance = offset;
    } else if (origin == 1) {
        base = static_cast<std::int64_t>(stream->position);
    } else if (origin == 2) {
        LARGE_INTEGER size{};
        if (!::GetFileSizeEx(stream->handle, &size)) {
            StoreError(stream);
            return -1;
        }
        base = size.QuadPart;
    } else {
        return -1;
    }
    const std::int64_t target = base + distance;
    if (target < 0 || target > 0xFFFFFFFF) {
        stream->error = ERROR_NEGATIVE_SEEK;
        return -1;
    }
    stream->position = static_cast<std::uint64_t>(target);
    return 0;
}

int FileClose(FileStream* stream) noexcept {
    if (stream == nullptr) {
        return -1;
    }
    const int result = HasHandle(stream) ? 0 : -1;
    if (result == 0 && stream->owns) {
        ::CloseHandle(stream->handle);
    }
    delete stream;
    return result;
}

int FileError(FileStream* stream) noexcept {
    return stream != nullptr ? stream->error : -1;
}

int FileTruncate(FileStream* stream, std::uint32_t newSize) noexcept {
    if (stream == nullptr) {
        return -7;
    }
    if (!HasHandle(stream)) {
        return -2;
    }
    FILE_END_OF_FILE_INFO end{};
    end.EndOfFile.QuadPart = newSize;
    if (!::SetFileInformationByHandle(stream->handle, FileEndOfFileInfo, &end, sizeof end)) {
        StoreError(stream);
        return -5;
    }
    return 0;
}

FileStream* FileShare(FileStream* stream) noexcept {
    if (stream == nullptr || !HasHandle(stream)) {
        return nullptr;
    }
    return new (std::nothrow) FileStream{stream->handle, false, 0, 0};
}

HANDLE StreamHandle(FileStream* stream) noexcept {
    return stream != nullptr ? stream->handle : INVALID_HANDLE_VALUE;
}

FileStream* StreamFromHandle(HANDLE handle) noexcept {
    auto* stream = new (std::nothrow) FileStream{handle, true, 0, 0};
    if (stream == nullptr) {
        ::CloseHandle(handle);
    }
    return stream;
}

ErrorKind KindOf(int error) noexcept {
    switch (static_cast<DWORD>(error)) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_DIRECTORY:
        return ErrorKind::NotFound;
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
        return ErrorKind::Exists;
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_WRITE_PROTECT:
        return ErrorKind::Denied;
    default:
        return ErrorKind::Other;
    }
}

bool FileModificationTime(const std::filesystem::path& path, std::int64_t& seconds) noexcept {
    struct _stat64 status {};
    if (::_wstat64(path.c_str(), &status) != 0) {
        return false;
    }
    seconds = static_cast<std::int64_t>(status.st_mtime);
    return true;
}

std::int64_t CurrentTime() noexcept {
    return static_cast<std::int64_t>(::_time64(nullptr));
}

std::tm LocalTime(std::int64_t seconds) noexcept {
    std::tm result{};
    const __time64_t value = seconds;
    if (const std::tm* local = ::_localtime64(&value); local != nullptr) {
        result = *local;
    }
    return result;
}

} // namespace QOB::Platform
