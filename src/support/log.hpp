// Process-wide log sink and the six level writers. No filtering: every line reaches the sink.
#pragma once

#include <qob/qob.h>

#include <string>

namespace QOB {

enum class LogLevel : int { Fatal = 0, Error = 1, Warn = 2, Info = 3, Debug = 4, Trace = 5 };

// Installs fn (or the built-in stdout sink when fn is null) and announces it.
void SetLogSink(QobLogFn fn, void* user);

void Log(LogLevel level, const std::string& message);
void LogFatal(const std::string& message);
void LogError(const std::string& message);
void LogWarn(const std::string& message);
void LogInfo(const std::string& message);
void LogDebug(const std::string& message);
void LogTrace(const std::string& message);

} // namespace QOB
