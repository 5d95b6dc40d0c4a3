// The system's error numbers and texts on POSIX systems.
#include "platform/platform.hpp"

#include <cerrno>
#include <cstring>

namespace QOB::Platform {

int LastSystemError() noexcept {
    return errno;
}

std::string SystemErrorText(int error) {
    if (error == 0) {
        return {};
    }
    char buffer[256] = {};
    // The GNU variant may return a static text instead of filling the buffer; the XSI one
    // fills it and returns a status.
#if defined(__GLIBC__) && defined(_GNU_SOURCE)
    return ::strerror_r(error, buffer, sizeof buffer);
#else
    if (::strerror_r(error, buffer, sizeof buffer) != 0) {
        return "error " + std::to_string(error);
    }
    return buffer;
#endif
}

} // namespace QOB::Platform
