// The system's error numbers on POSIX systems: errno, read through the standard's system
// category, whose messages are strerror's.
#include "platform/platform.hpp"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace QOB::Platform {

std::error_code LastSystemError() noexcept {
    return SystemError(errno);
}

std::error_code SystemError(int value) noexcept {
    return {value, std::system_category()};
}

void ClearSystemError() noexcept {
    errno = 0;
}

std::error_code CreateRefusedIn(const std::filesystem::path& folder) noexcept {
    const char* name = folder.empty() ? "." : folder.c_str();
    if (::faccessat(AT_FDCWD, name, W_OK | X_OK, AT_EACCESS) != 0) {
        return LastSystemError();
    }
    return {};
}

} // namespace QOB::Platform
