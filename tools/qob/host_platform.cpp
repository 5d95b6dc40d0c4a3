#include "host_platform.hpp"

#include <cerrno>
#include <system_error>

#ifdef _WIN32
// windows.h first: shellapi.h builds on it.
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <cstring>
#else
#include <unistd.h>
#endif

namespace qobtool {

#ifdef _WIN32

namespace {

std::string ToUtf8(const wchar_t* text) {
    const int length = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (length <= 1) {
        return {};
    }
    std::string result(static_cast<std::size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, result.data(), length, nullptr, nullptr);
    result.resize(static_cast<std::size_t>(length - 1));
    return result;
}

} // namespace

// The narrow argv uses the ANSI code page and loses other characters: ask for UTF-16.
std::vector<std::string> Utf8Arguments(int argc, char** argv) {
    int count = 0;
    wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), &count);
    std::vector<std::string> result;
    if (wide == nullptr) {
        result.assign(argv, argv + argc);
        return result;
    }
    for (int i = 0; i < count; ++i) {
        result.push_back(ToUtf8(wide[i]));
    }
    LocalFree(wide);
    return result;
}

void PrepareStandardStreams() {
    _setmode(_fileno(stdout), _O_BINARY);
    SetConsoleOutputCP(CP_UTF8);
}

std::filesystem::path PathOf(const std::string& utf8Name) {
    if (utf8Name.empty()) {
        return {};
    }
    const int size = static_cast<int>(utf8Name.size());
    const int length = MultiByteToWideChar(CP_UTF8, 0, utf8Name.data(), size, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(length > 0 ? length : 0), L'\0');
    if (length > 0) {
        MultiByteToWideChar(CP_UTF8, 0, utf8Name.data(), size, wide.data(), length);
    }
    return std::filesystem::path(wide);
}

std::FILE* OpenFile(const std::string& utf8Name, const char* mode) {
    const std::wstring wideMode(mode, mode + std::strlen(mode));
    return _wfopen(PathOf(utf8Name).c_str(), wideMode.c_str());
}

bool IsTerminal(std::FILE* stream) {
    return _isatty(_fileno(stream)) != 0;
}

bool LocalTime(std::int64_t utcSeconds, std::tm& local) {
    const auto instant = static_cast<__time64_t>(utcSeconds);
    return _localtime64_s(&local, &instant) == 0;
}

bool IsDiskFull(int systemError) {
    return systemError == ERROR_DISK_FULL || systemError == ERROR_HANDLE_DISK_FULL;
}

#else

std::vector<std::string> Utf8Arguments(int argc, char** argv) {
    return std::vector<std::string>(argv, argv + argc);
}

void PrepareStandardStreams() {}

std::filesystem::path PathOf(const std::string& utf8Name) {
    return std::filesystem::path(utf8Name);
}

std::FILE* OpenFile(const std::string& utf8Name, const char* mode) {
    return std::fopen(utf8Name.c_str(), mode);
}

bool IsTerminal(std::FILE* stream) {
    return isatty(fileno(stream)) != 0;
}

bool LocalTime(std::int64_t utcSeconds, std::tm& local) {
    const auto instant = static_cast<std::time_t>(utcSeconds);
    return localtime_r(&instant, &local) != nullptr;
}

bool IsDiskFull(int systemError) {
    return systemError == ENOSPC || systemError == EDQUOT;
}

#endif

bool IsDirectory(const std::string& utf8Name) {
    std::error_code error;
    return std::filesystem::is_directory(PathOf(utf8Name), error);
}

} // namespace qobtool
