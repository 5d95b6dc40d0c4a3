#include "library.hpp"

#include "host_platform.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace qobtool {
namespace {

int g_verbosity = 0;

void Sink(int level, const char* text, void* /*user*/) {
    if (g_verbosity > 0 && level <= 2 + g_verbosity && text != nullptr) {
        std::fprintf(stderr, "%s\n", text);
    }
}

char AsciiLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

bool SameIgnoringCase(std::string_view a, std::string_view b) {
    return std::ranges::equal(a, b, [](char x, char y) { return AsciiLower(x) == AsciiLower(y); });
}

bool IsManifestName(std::string_view name) {
    return std::ranges::any_of(kManifestNames,
                               [&](std::string_view m) { return SameIgnoringCase(name, m); });
}

void InstallLogSink(int verbosity) {
    g_verbosity = verbosity;
    QOB_SetLogFn(&Sink, nullptr);
}

QOBX_Error LastError() {
    QOBX_Error error{};
    QOBX_LastError(&error);
    return error;
}

std::string Describe(const QOBX_Error& error) {
    std::string text = std::string(error.codeName) + ": " + error.message;
    if (error.systemError != 0 && error.systemMessage[0] != '\0') {
        text += std::string(" (") + error.systemMessage + ")";
    }
    return text;
}

int StatusFor(const QOBX_Error& error, const std::string& package) {
    if (IsDiskFull(error.systemError)) {
        return kExitDiskFull;
    }
    switch (error.code) {
    case PACKAGE_NOT_FOUND:
        return kExitNotFound;
    case CANNOT_OPEN_FILE_PCK:
    case CANNOT_READ_FILE_PCK:
    case PACKAGEVERSION_NOT_SUPPORTED:
    case FILE_COUNT_EXCEEDS_MAX:
        return kExitNotPackage;
    case FILE_NOT_IN_PACKAGE:
        // A missing manifest makes a zip that is no package; otherwise an entry is missing.
        return QOB_IsQob(package.c_str()) == SUCCESS ? kExitNotFound : kExitNotPackage;
    default:
        return kExitFailure;
    }
}

void Check(QobErrorCode_e result, const std::string& package) {
    if (result == SUCCESS) {
        return;
    }
    const QOBX_Error error = LastError();
    // "<package>: [<file or entry concerned>: ]<what happened>": the system's words first where
    // it refused, as they say the most.
    std::string text = package + ": ";
    if (error.subject[0] != '\0' && package != error.subject) {
        text += std::string(error.subject) + ": ";
    }
    if (IsDiskFull(error.systemError)) {
        // The library's code for it is a generic one, kept for the hosts of the ten calls.
        throw LibraryError(text + error.systemMessage, kExitDiskFull, error);
    }
    if (error.systemError != 0 && error.systemMessage[0] != '\0') {
        text +=
            std::string(error.systemMessage) + " (" + error.codeName + ": " + error.message + ")";
    } else {
        text += std::string(error.codeName) + ": " + error.message;
    }
    throw LibraryError(text, StatusFor(error, package), error);
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

std::vector<QOBX_EntryStat> ListEntries(const std::string& package) {
    std::vector<QOBX_EntryStat> entries;
    for (;;) {
        std::uint32_t count = 0;
        Check(QOBX_ListEntries(package.c_str(), entries.data(),
                               static_cast<std::uint32_t>(entries.size()), &count),
              package);
        if (count <= entries.size()) {
            entries.resize(count);
            return entries;
        }
        entries.resize(count); // first call, or the package grew between the two
    }
}

void StreamEntry(const std::string& package, const std::string& name,
                 const std::function<void(const char*, std::size_t)>& sink) {
    // Large enough that a deflated entry (whose reads restart from its beginning) is read in few
    // calls, small enough to keep the tool's memory low.
    constexpr std::uint32_t kChunk = 4 << 20;
    const auto buffer = std::make_unique<char[]>(kChunk);
    std::uint64_t offset = 0;
    for (;;) {
        std::uint32_t read = 0;
        Check(QOBX_ReadEntry(package.c_str(), name.c_str(), offset, buffer.get(), kChunk, &read),
              package);
        if (read == 0) {
            return;
        }
        sink(buffer.get(), read);
        offset += read;
    }
}

} // namespace qobtool
