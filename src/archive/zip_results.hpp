// Turns the zip layer's integer results into QOB::Exception with fixed messages.
#pragma once

#include "platform/platform.hpp"

#include <system_error>

namespace QOB::MiniZip {

// Writer results: returns for 0, throws for anything else. cause, when given, is the system's
// reason for an I/O failure (ZIP_ERRNO); the failure carries it beside the fixed message.
void CheckZipResult(int result, std::error_code cause = {});
// Reader results likewise (UNZ_ERRNO).
void CheckUnzipResult(int result, std::error_code cause = {});

// Runs one zip-layer call with the system's last error cleared, so that an I/O failure it
// reports carries the cause the system gave during that call, never an older one.
template <class Call> void CheckZipCall(Call&& call) {
    Platform::ClearSystemError();
    const int result = call();
    if (result != 0) {
        const std::error_code cause = Platform::LastSystemError();
        CheckZipResult(result, cause.value() != 0 ? cause : std::error_code());
    }
}
template <class Call> void CheckUnzipCall(Call&& call) {
    Platform::ClearSystemError();
    const int result = call();
    if (result < 0) {
        const std::error_code cause = Platform::LastSystemError();
        CheckUnzipResult(result, cause.value() != 0 ? cause : std::error_code());
    }
}

} // namespace QOB::MiniZip
