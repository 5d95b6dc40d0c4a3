#include "api/call_frame.hpp"

#include "platform/platform.hpp"
#include "support/utf8_path.hpp"

#include <chrono>
#include <cstring>
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

thread_local int t_frameDepth = 0;

// The log line's text, which is also the record's message.
void Report(LogLevel level, const char* name, const std::string& text) noexcept {
    try {
        Log(level, Format("%s: %s", name, text.c_str()));
    } catch (...) {
    }
}

std::string Given(CallSubject subject) noexcept {
    if (subject.text == nullptr) {
        return {};
    }
    try {
        const std::size_t length = strnlen(subject.text, subject.size);
        // Unterminated within its field: not a path the call could have used.
        return length < subject.size ? std::string(subject.text, length) : std::string();
    } catch (...) {
        return {};
    }
}

void Record(QobErrorCode_e code, const std::string& text, const std::error_code& cause,
            const std::string& subject, CallSubject given) {
    SetLastError(code, text, cause.value(), cause ? cause.message() : std::string(),
                 subject.empty() ? Given(given) : subject);
}

} // namespace

FrameDepth::FrameDepth() noexcept : outermost_(t_frameDepth++ == 0) {}

FrameDepth::~FrameDepth() {
    --t_frameDepth;
}

QobErrorCode_e ReportFailure(const char* name, CallSubject given) noexcept {
    // Running out of memory while reporting must still return the code: the outer try
    // keeps what was learnt before.
    QobErrorCode_e code = INTERNAL_INCONSISTENCY;
    try {
        try {
            throw;
        } catch (const Exception& e) {
            code = e.code();
            Report(LogLevel::Error, name, e.what());
            Record(code, e.text(), e.cause(), e.subject(), given);
            return code;
        } catch (const std::bad_alloc& e) {
            const std::string text = std::string("failed to allocate memory: ") + e.what();
            Report(LogLevel::Fatal, name, text);
            Record(INTERNAL_INCONSISTENCY, text, {}, {}, given);
        } catch (const std::filesystem::filesystem_error& e) {
            const std::string text = std::string("caught std: ") + e.what();
            Report(LogLevel::Error, name, text);
            Record(INTERNAL_INCONSISTENCY, text, e.code(), PathToUtf8(e.path1()), given);
        } catch (const std::system_error& e) {
            const std::string text = std::string("caught std: ") + e.what();
            Report(LogLevel::Error, name, text);
            Record(INTERNAL_INCONSISTENCY, text, e.code(), {}, given);
        } catch (const std::exception& e) {
            const std::string text = std::string("caught std: ") + e.what();
            Report(LogLevel::Error, name, text);
            Record(INTERNAL_INCONSISTENCY, text, {}, {}, given);
        } catch (...) {
            const std::string text = "caught unknown exception";
            Report(LogLevel::Error, name, text);
            Record(INTERNAL_INCONSISTENCY, text, {}, {}, given);
        }
    } catch (...) {
        SetLastError(code, {}, 0, {}, {});
        return code;
    }
    return INTERNAL_INCONSISTENCY;
}

} // namespace QOB
