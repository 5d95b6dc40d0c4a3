#include "library_log.hpp"

#include "core/package_audit.hpp"
#include "host_platform.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace qobtool {
namespace {

struct SinkState {
    int verbosity = 0;
    bool quiet = false;
    std::string lastErrors; // the ERROR and FATAL lines of the current call, one per line
};

SinkState g_state;

// "[QOB][WARN ] time: ...": a slow call's timing, which is for whoever tunes a host, not for
// the person at the prompt (a busy machine would otherwise print it after any command).
bool IsTiming(const char* text) {
    const char* close = std::strchr(text, ']');
    close = close != nullptr ? std::strchr(close + 1, ']') : nullptr;
    return close != nullptr && std::string_view(close + 1).starts_with(" time: ");
}

void Sink(int level, const char* text, void* user) {
    auto* state = static_cast<SinkState*>(user);
    if (level <= 1) {
        state->lastErrors.append(text).push_back('\n');
    }
    const int shownFrom = level == 2 && IsTiming(text) ? 1 : 0; // verbosity that shows a WARN
    const bool show = (level == 2 && !state->quiet && state->verbosity >= shownFrom) ||
                      (level <= 1 && state->verbosity >= 1) ||
                      (level >= 3 && level <= 2 + state->verbosity);
    if (show) {
        std::fprintf(stderr, "%s\n", text);
    }
}

} // namespace

void InstallLogSink(int verbosity, bool quiet) {
    g_state.verbosity = verbosity;
    g_state.quiet = quiet;
    QOB_SetLogFn(&Sink, &g_state);
    QOB::Inspect::SetLogSink(&Sink, &g_state);
    BeginCall();
}

void BeginCall() {
    g_state.lastErrors.clear();
}

// The call frame's last line reads "[QOB][ERROR] <function>: [<NAME>] <message>".
std::string LastMessage(const char* function) {
    const std::string lead = std::string("] ") + function + ": ";
    std::string_view text = g_state.lastErrors;
    std::string found;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
        const std::size_t at = line.find(lead);
        if (at == std::string_view::npos) {
            continue;
        }
        std::string_view message = line.substr(at + lead.size());
        if (message.starts_with('[')) {
            const std::size_t close = message.find("] ");
            if (close != std::string_view::npos) {
                message.remove_prefix(close + 2);
            }
        }
        found.assign(message);
    }
    return found;
}

std::string Describe(QobErrorCode_e result, const char* function) {
    std::string message = LastMessage(function);
    if (message.empty()) {
        message = std::string(function) + " failed";
    }
    return std::string(QOB::Inspect::ResultName(result)) + ": " + message;
}

int StatusFor(QobErrorCode_e result, const std::string& package) {
    switch (result) {
    case PACKAGE_NOT_FOUND:
        return kExitNotFound;
    case CANNOT_OPEN_FILE_PCK:
    case CANNOT_READ_FILE_PCK:
    case PACKAGEVERSION_NOT_SUPPORTED:
    case FILE_COUNT_EXCEEDS_MAX:
        return kExitNotPackage;
    case FILE_NOT_IN_PACKAGE:
        // A missing manifest makes a zip that is no package; otherwise an entry is missing.
        BeginCall();
        return QOB_IsQob(package.c_str()) == SUCCESS ? kExitNotFound : kExitNotPackage;
    default:
        return kExitFailure;
    }
}

void Check(QobErrorCode_e result, const char* function, const std::string& file) {
    if (result == SUCCESS) {
        return;
    }
    const std::string message = file + ": " + Describe(result, function);
    throw ToolError(message, StatusFor(result, file));
}

void RequireFile(const std::string& file, bool write) {
    int error = 0;
    if (IsDirectory(file)) {
        error = EISDIR;
    } else if (std::FILE* stream = OpenFile(file, write ? "r+b" : "rb")) {
        std::fclose(stream);
        return;
    } else {
        error = errno;
    }
    throw ToolError(file + ": " + std::strerror(error),
                    error == ENOENT ? kExitNotFound : kExitFailure);
}

} // namespace qobtool
