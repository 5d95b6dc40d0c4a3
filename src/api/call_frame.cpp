#include "api/call_frame.hpp"

#include <chrono>

namespace QOB {

std::int64_t NowTicks() noexcept {
    using Ticks = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;
    return std::chrono::duration_cast<Ticks>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void LogTiming(std::int64_t startTicks, float thresholdSeconds, const char* label,
               const char* name) {
    const float seconds = static_cast<float>(NowTicks() - startTicks) / 10'000'000.0f;
    const std::string line =
        Format("time: %s %.03f seconds: %s", label, static_cast<double>(seconds), name);
    if (seconds > thresholdSeconds) {
        LogWarn(line);
    } else {
        LogTrace(line);
    }
}

} // namespace QOB
