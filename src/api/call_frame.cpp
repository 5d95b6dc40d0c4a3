#include "api/call_frame.hpp"

#include "platform/platform.hpp"
#include "support/utf8_path.hpp"

#include <chrono>
#include <filesystem>
#include <new>
#include <system_error>

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

namespace {

// The log line's text, which is also the record's message.
void Report(LogLevel level, const char* name, const std::string& text) noexcept {
    try {
        Log(level, Format("%s: %s", name, text.c_str()));
    } catch (...) {
    }
}

std::string SystemText(int error) noexcept {
    try {
        return Platform::SystemErrorText(error);
    } catch (...) {
        return {};
    }
}

} // namespace

QobErrorCode_e ReportFailure(const char* name) noexcept {
    // Running out of memory while reporting must still return the code: the outer try
    // keeps what was learnt before.
    QobErrorCode_e code = INTERNAL_INCONSISTENCY;
    try {
        try {
            throw;
        } catch (const Exception& e) {
            code = e.code();
            Report(LogLevel::Error, name, e.what());
            SetLastError(e.code(), e.text(), e.systemError(), SystemText(e.systemError()),
                         e.subject());
            return code;
        } catch (const std::bad_alloc& e) {
            const std::string text = std::string("failed to allocate memory: ") + e.what();
            Report(LogLevel::Fatal, name, text);
            SetLastError(INTERNAL_INCONSISTENCY, text, 0, {}, {});
        } catch (const std::filesystem::filesystem_error& e) {
            const std::string text = std::string("caught std: ") + e.what();
            Report(LogLevel::Error, name, text);
            SetLastError(INTERNAL_INCONSISTENCY, text, e.code().value(), e.code().message(),
                         PathToUtf8(e.path1()));
        } catch (const std::system_error& e) {
            const std::string text = std::string("caught std: ") + e.what();
            Report(LogLevel::Error, name, text);
            SetLastError(INTERNAL_INCONSISTENCY, text, e.code().value(), e.code().message(), {});
        } catch (const std::exception& e) {
            const std::string text = std::string("caught std: ") + e.what();
            Report(LogLevel::Error, name, text);
            SetLastError(INTERNAL_INCONSISTENCY, text, 0, {}, {});
        } catch (...) {
            const std::string text = "caught unknown exception";
            Report(LogLevel::Error, name, text);
            SetLastError(INTERNAL_INCONSISTENCY, text, 0, {}, {});
        }
    } catch (...) {
        SetLastError(code, {}, 0, {}, {});
        return code;
    }
    return INTERNAL_INCONSISTENCY;
}

} // namespace QOB
