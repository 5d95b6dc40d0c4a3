// Small helpers shared by the tests: scratch directories, whole-file I/O, captured log lines.
#pragma once

#include <qob/qob.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace qobtest {

// A fresh directory under the system temp directory, removed with its content at scope end.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

void WriteFile(const std::filesystem::path& path, const std::string& bytes);
std::string ReadFile(const std::filesystem::path& path);
// Deterministic pseudo-random bytes.
std::string RandomBytes(std::size_t size, std::uint32_t seed);

struct LogLine {
    int level;
    std::string text;
};

using SetSinkFn = void (*)(QobLogFn, void*);

// Drops every line: the sink test programs run with, so that their output stays readable.
void SilentSink(int level, const char* text, void* user);

// Installs itself as the log sink for its lifetime and records every line; then silence.
class LogCapture {
public:
    explicit LogCapture(SetSinkFn set);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    void Clear() { lines.clear(); }
    bool Contains(const std::string& text) const;
    std::size_t Count(const std::string& text) const;

    std::vector<LogLine> lines;

private:
    static void Sink(int level, const char* text, void* user);
    SetSinkFn set_;
};

// Runs a command through the shell; returns its exit status (-1 when it could not run).
int Run(const std::string& command);
// The Python interpreter found at configure time, or empty.
std::string Python();

} // namespace qobtest
