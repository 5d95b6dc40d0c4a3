// The frame every export but QOB_SetLogFn runs in: machine-wide lock, trace and timing
// lines, and the mapping of every exception to a result code.
#pragma once

#include "api/process_lock.hpp"
#include "archive/defer.hpp"
#include "platform/platform.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/log.hpp"

#include <cstdint>
#include <new>
#include <stdexcept>
#include <string>

namespace QOB {

// Monotonic time in 100-nanosecond ticks.
std::int64_t NowTicks() noexcept;

// "time: <label> <seconds> seconds: <name>", at WARN above threshold, else at TRACE.
// The labels are twelve characters each so that the numbers line up.
void LogTiming(std::int64_t startTicks, float thresholdSeconds, const char* label,
               const char* name);

inline constexpr float kSlowCallSeconds = 0.5f;

template <class Body> QobErrorCode_e CallGuarded(const char* name, Body&& body) noexcept {
    try {
        const std::int64_t start = NowTicks();
        Deferred onSuccess(DeferCondition::OnSuccess,
                           [&] { LogTiming(start, kSlowCallSeconds, "executed for", name); });
        Deferred onFailure(DeferCondition::OnFailure,
                           [&] { LogTiming(start, kSlowCallSeconds, "failed   in ", name); });
        LogTrace(Format("lock: %s", name));
        ProcessLockScope lock;
        LogTiming(start, kSlowCallSeconds, "locked   for", name);
        LogDebug(Format("call: %s", name));
        body();
        return SUCCESS;
    } catch (const Exception& e) {
        try {
            LogError(Format("%s: %s", name, e.what()));
        } catch (...) {
        }
        return e.code();
    } catch (const std::bad_alloc& e) {
        try {
            LogFatal(Format("%s: failed to allocate memory: %s", name, e.what()));
        } catch (...) {
        }
        return INTERNAL_INCONSISTENCY;
    } catch (const std::exception& e) {
        try {
            LogError(Format("%s: caught std: %s", name, e.what()));
        } catch (...) {
        }
        return INTERNAL_INCONSISTENCY;
    } catch (...) {
        try {
            LogError(Format("%s: caught unknown exception", name));
        } catch (...) {
        }
        return INTERNAL_INCONSISTENCY;
    }
}

} // namespace QOB
