#include "support/log.hpp"

#include <atomic>
#include <cstdio>

namespace QOB {
namespace {

std::atomic<int> g_defaultSinkLevel{static_cast<int>(LogLevel::Trace)};

void DefaultSink(int level, const char* message, void* /*user*/) {
    if (level <= g_defaultSinkLevel.load(std::memory_order_relaxed)) {
        std::printf("%s\n", message);
    }
}

// Plain globals on purpose: hosts set the sink once, before other calls.
QobLogFn g_logFn = &DefaultSink;
void* g_logUser = nullptr;

constexpr const char* kPrefixes[] = {"[QOB][FATAL] ", "[QOB][ERROR] ", "[QOB][WARN ] ",
                                     "[QOB][INFO ] ", "[QOB][DEBUG] ", "[QOB][TRACE] "};

} // namespace

void SetLogSink(QobLogFn fn, void* user) {
    if (fn != nullptr) {
        g_logFn = fn;
        g_logUser = user;
    } else {
        g_logFn = &DefaultSink;
        g_logUser = nullptr;
    }
    Log(LogLevel::Trace, "logging is ready");
}

void SetDefaultSinkLevel(int level) noexcept {
    g_defaultSinkLevel.store(level, std::memory_order_relaxed);
}

void Log(LogLevel level, const std::string& message) {
    const int index = static_cast<int>(level);
    std::string line;
    line.reserve(13 + message.size());
    line.append(kPrefixes[index]).append(message);
    g_logFn(index, line.c_str(), g_logUser);
}

void LogFatal(const std::string& message) {
    Log(LogLevel::Fatal, message);
}
void LogError(const std::string& message) {
    Log(LogLevel::Error, message);
}
void LogWarn(const std::string& message) {
    Log(LogLevel::Warn, message);
}
void LogInfo(const std::string& message) {
    Log(LogLevel::Info, message);
}
void LogDebug(const std::string& message) {
    Log(LogLevel::Debug, message);
}
void LogTrace(const std::string& message) {
    Log(LogLevel::Trace, message);
}

} // namespace QOB
