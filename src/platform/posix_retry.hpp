// System calls that a signal may interrupt are simply made again.
#pragma once

#include <cerrno>

namespace QOB::Platform {

// Calls call() until it does not fail with EINTR; returns its last result (negative on
// failure, errno set).
template <class Call> int Retrying(Call call) noexcept {
    int result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

} // namespace QOB::Platform
