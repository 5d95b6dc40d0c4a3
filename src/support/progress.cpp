#include "support/progress.hpp"

#include <chrono>

namespace QOB {
namespace {

using Clock = std::chrono::steady_clock;
// A bar needs no more: the host's function may be slow (a terminal, a GUI's queue).
constexpr Clock::duration kInterval = std::chrono::milliseconds(250);

struct ProgressState {
    QOBX_ProgressFn fn = nullptr;
    void* user = nullptr;
    bool active = false;
    std::uint64_t done = 0;
    std::uint64_t total = 0;
    Clock::time_point next{};
};

thread_local ProgressState t_progress;

} // namespace

void SetProgressFunction(QOBX_ProgressFn fn, void* user) noexcept {
    t_progress.fn = fn;
    t_progress.user = fn != nullptr ? user : nullptr;
}

bool ProgressWanted() noexcept {
    return t_progress.fn != nullptr && !t_progress.active;
}

ProgressScope::ProgressScope(std::uint64_t total) noexcept : owner_(!t_progress.active) {
    if (owner_) {
        t_progress.active = true;
        t_progress.done = 0;
        t_progress.total = total;
        t_progress.next = Clock::now() + kInterval;
    }
}

ProgressScope::~ProgressScope() {
    if (owner_) {
        t_progress.active = false;
    }
}

void ProgressScope::Finish() noexcept {
    if (owner_ && t_progress.active && t_progress.fn != nullptr) {
        t_progress.fn(t_progress.total, t_progress.total, t_progress.user);
    }
    if (owner_) {
        t_progress.active = false;
    }
}

void ProgressAdvance(std::uint64_t bytes) noexcept {
    ProgressState& state = t_progress;
    if (!state.active) {
        return;
    }
    state.done += bytes;
    if (state.fn == nullptr) {
        return;
    }
    const Clock::time_point now = Clock::now();
    if (now < state.next) {
        return;
    }
    state.next = now + kInterval;
    // A host's total is never below its done, whatever the copies counted.
    const std::uint64_t done = state.done < state.total ? state.done : state.total;
    state.fn(done, state.total, state.user);
}

} // namespace QOB
