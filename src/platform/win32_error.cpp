// The system's error numbers on Windows: GetLastError, with FormatMessage's text in UTF-8.
#include "platform/platform.hpp"

#include <windows.h>

#include <string>

namespace QOB::Platform {
namespace {

class Win32Category final : public std::error_category {
public:
    const char* name() const noexcept override { return "win32"; }

    std::string message(int error) const override {
        wchar_t* text = nullptr;
        const DWORD length = ::FormatMessageW(
            FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                FORMAT_MESSAGE_IGNORE_INSERTS,
            nullptr, static_cast<DWORD>(error), 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
        if (length == 0 || text == nullptr) {
            return "error " + std::to_string(error);
        }
        std::wstring wide(text, length);
        ::LocalFree(text);
        while (!wide.empty() && (wide.back() == L'\n' || wide.back() == L'\r' ||
                                 wide.back() == L' ' || wide.back() == L'.')) {
            wide.pop_back();
        }
        const int size = ::WideCharToMultiByte(
            CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), nullptr, 0, nullptr, nullptr);
        std::string utf8(static_cast<std::size_t>(size > 0 ? size : 0), '\0');
        if (size > 0) {
            ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()),
                                  utf8.data(), size, nullptr, nullptr);
        }
        return utf8;
    }
};

const Win32Category g_win32;

} // namespace

std::error_code CreateRefusedIn(const std::filesystem::path& /*folder*/) noexcept {
    return {}; // access is decided by ACLs that no cheap query answers
}

std::error_code LastSystemError() noexcept {
    return SystemError(static_cast<int>(::GetLastError()));
}

std::error_code SystemError(int value) noexcept {
    return {value, g_win32};
}

void ClearSystemError() noexcept {
    ::SetLastError(0);
}

} // namespace QOB::Platform
