// Process-wide log sink and the six level writers. Every line reaches the sink; only the
// built-in one may be told to drop the lines above a level.
#pragma once

#include <qob/qob.h>

#include <string>

namespace QOB {

enum class LogLevel : int { Fatal = 0, Error = 1, Warn = 2, Info = 3, Debug = 4, Trace = 5 };

// Installs fn (or the built-in stdout sink when fn is null) and announces it.
void SetLogSink(QobLogFn fn, void* user);
// The highest level the built-in sink prints (Trace, every line, unless told otherwise).
void SetDefaultSinkLevel(int level) noexcept;

void Log(LogLevel level, const std::string& message);
void LogFatal(const std::string& message);
void LogError(const std::string& message);
void LogWarn(const std::string& message);
void LogInfo(const std::string& message);
void LogDebug(const std::string& message);
void LogTrace(const std::string& message);

} // namespace QOB
