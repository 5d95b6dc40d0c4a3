#include "library_log.hpp"

#include <cstdio>
#include <string_view>

namespace qobtool {
namespace {

struct SinkState {
    int verbosity = 0;
    std::string lastErrors; // the ERROR and FATAL lines of the current call, one per line
};

SinkState g_state;

void Sink(int level, const char* text, void* user) {
    auto* state = static_cast<SinkState*>(user);
    if (level <= 1) {
        state->lastErrors.append(text).push_back('\n');
    }
    const bool show = level == 2 || (level <= 1 && state->verbosity >= 1) ||
                      (level >= 3 && level <= 2 + state->verbosity);
    if (show) {
        std::fprintf(stderr, "%s\n", text);
    }
}

} // namespace

void InstallLogSink(int verbosity) {
    g_state.verbosity = verbosity;
    QOB_SetLogFn(&Sink, &g_state);
}

const char* ResultName(int code) noexcept {
    switch (code) {
    case SUCCESS:
        return "SUCCESS";
    case FILE_NOT_FOUND:
        return "FILE_NOT_FOUND";
    case FILE_NOT_IN_PACKAGE:
        return "FILE_NOT_IN_PACKAGE";
    case DIRECTORY_DOESNOT_EXIST:
        return "DIRECTORY_DOESNOT_EXIST";
    case CREATE_DIRECTORY:
        return "CREATE_DIRECTORY";
    case EXTRACT_FILE:
        return "EXTRACT_FILE";
    case INVALID_POINTER:
        return "INVALID_POINTER";
    case INVALID_PARAMETER:
        return "INVALID_PARAMETER";
    case PACKAGE_NOT_FOUND:
        return "PACKAGE_NOT_FOUND";
    case CANNOT_OPEN_FILE_PCK:
        return "CANNOT_OPEN_FILE_PCK";
    case CANNOT_READ_FILE_PCK:
        return "CANNOT_READ_FILE_PCK";
    case FILE_COUNT_EXCEEDS_MAX:
        return "FILE_COUNT_EXCEEDS_MAX";
    case PACKAGEVERSION_NOT_SUPPORTED:
        return "PACKAGEVERSION_NOT_SUPPORTED";
    case CANNOT_DELETE_INTERNAL_FILE:
        return "CANNOT_DELETE_INTERNAL_FILE";
    case CANNOT_REMOVE_FILE:
        return "CANNOT_REMOVE_FILE";
    case INTERNAL_INCONSISTENCY:
        return "INTERNAL_INCONSISTENCY";
    case FUNC_NOT_IMPL:
        return "FUNC_NOT_IMPL";
    default:
        return "UNKNOWN_RESULT";
    }
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

void Check(QobErrorCode_e result, const char* function) {
    if (result == SUCCESS) {
        return;
    }
    std::string message = LastMessage(function);
    if (message.empty()) {
        message = "no message from the library";
    }
    throw ToolError(std::string(function) + " failed: " + ResultName(result) + " (" +
                    std::to_string(static_cast<int>(result)) + "): " + message);
}

} // namespace qobtool
