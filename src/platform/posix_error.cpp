// The system's error numbers on POSIX systems: errno, read through the standard's system
// category, whose messages are strerror's.
#include "platform/platform.hpp"

#include <cerrno>

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

} // namespace QOB::Platform
