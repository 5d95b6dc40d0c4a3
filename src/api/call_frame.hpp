// The frame every export but QOB_SetLogFn runs in: the cross-process lock, bounded waits for
// busy packages, trace and timing lines, and the mapping of every exception to a result code.
#pragma once

#include "api/last_error.hpp"
#include "api/process_lock.hpp"
#include "archive/defer.hpp"
#include "archive/package_busy.hpp"
#include "platform/platform.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/log.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace QOB {

// Monotonic time in 100-nanosecond ticks.
std::int64_t NowTicks() noexcept;

// "time: <label> <seconds> seconds: <name>", at WARN above threshold, else at TRACE.
// The labels are twelve characters each so that the numbers line up.
void LogTiming(std::int64_t startTicks, float thresholdSeconds, const char* label,
               const char* name);

inline constexpr float kSlowCallSeconds = 0.5f;

// What a failure concerns when it names nothing itself: the package the call was given (a
// host's text, read up to its first NUL but never past size bytes). Null for none.
struct CallSubject {
    const char* text = nullptr;
    std::size_t size = QOB_MAX_PATH;
};

// Logs the exception being handled, as the call's failure, fills the thread's last-error
// record from it and returns its code. Only from inside a catch block.
QobErrorCode_e ReportFailure(const char* name, CallSubject subject) noexcept;

// The depth of call frames on this thread, for as long as a frame lives.
class FrameDepth {
public:
    FrameDepth() noexcept;
    ~FrameDepth();
    FrameDepth(const FrameDepth&) = delete;
    FrameDepth& operator=(const FrameDepth&) = delete;
    bool Outermost() const noexcept { return outermost_; }

private:
    bool outermost_;
};

// Runs body under the cross-process lock. A package that another holder refuses
// (PackageBusy) makes the outermost frame let go of everything, back off and run body again
// from the top, until the bound of package_busy.hpp is spent; the last refusal is then the
// call's failure. So body must leave what the host gave it untouched until it holds its
// packages. A nested frame never waits: its caller holds locks.
template <class Body>
QobErrorCode_e CallGuarded(const char* name, Body&& body, CallSubject subject = {}) noexcept {
    try {
        const FrameDepth depth;
        const std::int64_t start = NowTicks();
        const auto deadline = std::chrono::steady_clock::now() + BusyBound();
        Deferred onSuccess(DeferCondition::OnSuccess,
                           [&] { LogTiming(start, kSlowCallSeconds, "executed for", name); });
        Deferred onFailure(DeferCondition::OnFailure,
                           [&] { LogTiming(start, kSlowCallSeconds, "failed   in ", name); });
        for (int attempt = 1;; ++attempt) {
            try {
                LogTrace(Format("lock: %s", name));
                ProcessLockScope lock;
                LogTiming(start, kSlowCallSeconds, "locked   for", name);
                LogDebug(Format("call: %s", name));
                body();
                ClearLastError();
                return SUCCESS;
            } catch (const PackageBusy& busy) {
                if (!depth.Outermost() || std::chrono::steady_clock::now() >= deadline) {
                    throw;
                }
                LogDebug(Format("%s: %s, trying again", name, busy.text()));
            }
            BusyBackOff(attempt, deadline);
        }
    } catch (...) {
        return ReportFailure(name, subject);
    }
}

} // namespace QOB
