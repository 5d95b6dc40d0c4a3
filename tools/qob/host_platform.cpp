#include "host_platform.hpp"

#include "support/utf8_path.hpp"

#include <filesystem>

#ifdef _WIN32
// windows.h first: shellapi.h builds on it.
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <shellapi.h>

#include <cstdio>
#include <cstring>
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

std::FILE* OpenFile(const std::string& utf8Name, const char* mode) {
    const std::wstring wideMode(mode, mode + std::strlen(mode));
    return _wfopen(QOB::PathFromUtf8(utf8Name).c_str(), wideMode.c_str());
}

#else

std::vector<std::string> Utf8Arguments(int argc, char** argv) {
    return std::vector<std::string>(argv, argv + argc);
}

void PrepareStandardStreams() {}

std::FILE* OpenFile(const std::string& utf8Name, const char* mode) {
    return std::fopen(utf8Name.c_str(), mode);
}

#endif

bool IsDirectory(const std::string& utf8Name) {
    std::error_code error;
    return std::filesystem::is_directory(QOB::PathFromUtf8(utf8Name), error);
}

} // namespace qobtool
