// The system's reason for an archive failure that the zip layer and the handle report only
// by their fixed messages: asked of the system right after the step that failed.
#pragma once

#include "platform/platform.hpp"
#include "support/exception.hpp"

#include <filesystem>
#include <system_error>

namespace QOB {

// Completes a failure to open or create the package at path: the path, and for a package
// that is not there why (no such file, a folder on the way that may not be searched), for a
// folder that it is one, for a file that could not be opened or made the system's error. The
// system's last error must have been cleared before the attempt.
void ExplainOpenFailure(Exception& failure, const std::filesystem::path& path, bool should_exist);

// Runs one step of the handle (opening a side, flushing) with the system's last error cleared,
// so that an I/O failure it reports only by its fixed message (-15) carries the system's
// reason from that step, never an older one.
template <class Step> auto WithSystemCause(Step&& step) -> decltype(step()) {
    Platform::ClearSystemError();
    try {
        return step();
    } catch (Exception& e) {
        const std::error_code cause = Platform::LastSystemError();
        if (e.code() == INTERNAL_INCONSISTENCY && cause.value() != 0) {
            e.AddContext(cause, {});
        }
        throw;
    }
}

// Throws a copy's failure (-15): the file it read or wrote, and the system's reason when it
// gave one.
[[noreturn]] void CopyFailed(const char* text, std::error_code cause,
                             const std::filesystem::path& file);

} // namespace QOB
