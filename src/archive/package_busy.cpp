#include "archive/package_busy.hpp"

#include "support/format.hpp"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>

namespace QOB {
namespace {

constexpr std::chrono::milliseconds kDefaultBound{5000};
constexpr std::chrono::milliseconds kLongestNap{64};

std::chrono::milliseconds::rep FromEnvironment() noexcept {
    const char* text = std::getenv("QOB_TEST_BUSY_MS");
    if (text == nullptr || *text == '\0') {
        return kDefaultBound.count();
    }
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return *end == '\0' && value >= 0 && value <= kDefaultBound.count() ? value
                                                                        : kDefaultBound.count();
}

std::atomic<std::chrono::milliseconds::rep>& Bound() noexcept {
    static std::atomic<std::chrono::milliseconds::rep> bound{FromEnvironment()};
    return bound;
}

} // namespace

PackageBusy::PackageBusy(const std::string& shown, std::error_code cause)
    : Exception(Unlogged{}, CANNOT_OPEN_FILE_PCK, Format("package is busy: %s", shown.c_str()),
                cause, shown) {}

std::chrono::milliseconds BusyBound() noexcept {
    return std::chrono::milliseconds(Bound().load(std::memory_order_relaxed));
}

void SetBusyBound(std::chrono::milliseconds bound) noexcept {
    Bound().store(bound.count(), std::memory_order_relaxed);
}

void BusyBackOff(int attempt, std::chrono::steady_clock::time_point deadline) noexcept {
    const auto nap = std::chrono::milliseconds(1 << std::clamp(attempt - 1, 0, 6));
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left > std::chrono::steady_clock::duration::zero()) {
        std::this_thread::sleep_for(
            std::min<std::chrono::steady_clock::duration>(std::min(nap, kLongestNap), left));
    }
}

} // namespace QOB
