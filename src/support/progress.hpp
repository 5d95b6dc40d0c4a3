// Progress of long copies, reported to the function the host installed for the calling
// thread. An operation opens a scope with the bytes it will copy; the copies advance it.
#pragma once

#include <qob/qob_ext.h>

#include <cstdint>

namespace QOB {

void SetProgressFunction(QOBX_ProgressFn fn, void* user) noexcept;
// True when a scope opened now would reach a host: worth measuring the work for.
bool ProgressWanted() noexcept;

// One piece of long work of known size. Scopes do not nest: an inner one (an operation
// reused by another) leaves the outer one in charge.
class ProgressScope {
public:
    explicit ProgressScope(std::uint64_t total) noexcept;
    ~ProgressScope();
    ProgressScope(const ProgressScope&) = delete;
    ProgressScope& operator=(const ProgressScope&) = delete;

    // Reports the work complete (done equal to total), once, whatever the pace.
    void Finish() noexcept;

private:
    bool owner_;
};

// Counts bytes done; the host hears of it at most a few times a second.
void ProgressAdvance(std::uint64_t bytes) noexcept;

} // namespace QOB
