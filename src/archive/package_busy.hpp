// How long a call comes back for a package another call or process holds. Package locks are
// only ever tried: a refusal throws PackageBusy, and the outermost call frame lets go of
// everything it holds, sleeps a little longer each time and runs the call again, until the
// bound is spent. So a lock held by someone else (another user who can read the package
// among them) delays a call by at most the bound, and never holds up calls on other packages.
#pragma once

#include "support/exception.hpp"

#include <chrono>
#include <string>

namespace QOB {

// CANNOT_OPEN_FILE_PCK "package is busy: <path>", with the system's refusal as its cause.
class PackageBusy : public Exception {
public:
    PackageBusy(const std::string& shown, std::error_code cause);
};

// The bound: a few seconds; QOB_TEST_BUSY_MS (read once) or SetBusyBound shorten it for tests.
std::chrono::milliseconds BusyBound() noexcept;
void SetBusyBound(std::chrono::milliseconds bound) noexcept;

// Sleeps before attempt number attempt (1, 2, ...) comes back: 1 ms doubling up to 64 ms,
// never past deadline.
void BusyBackOff(int attempt, std::chrono::steady_clock::time_point deadline) noexcept;

} // namespace QOB
