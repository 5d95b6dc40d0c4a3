// The cross-process lock held for one scope, shared by the call frame and by the tool's
// inspections, which must not read a package while another call changes it.
#pragma once

#include "platform/platform.hpp"
#include "support/exception.hpp"
#include "support/format.hpp"

#include <string>

namespace QOB {

// Holds the cross-process lock for one scope. A lock that exists but cannot be trusted or
// taken fails the call: running unlocked because of it would let whoever caused it switch
// serialisation off.
class ProcessLockScope {
public:
    ProcessLockScope() {
        std::string problem;
        if (!Platform::ProcessLockAcquire(problem)) {
            throw Exception(INTERNAL_INCONSISTENCY,
                            Format("cannot take the cross-process lock: %s", problem.c_str()));
        }
    }
    ~ProcessLockScope() { Platform::ProcessLockRelease(); }
    ProcessLockScope(const ProcessLockScope&) = delete;
    ProcessLockScope& operator=(const ProcessLockScope&) = delete;
};

} // namespace QOB
