// The tool's side of the library's log, its failures and exit statuses: which log lines reach
// standard error, the library's message for a call that failed, and the one-line errors that
// name the file involved.
#pragma once

#include <qob/qob.h>

#include <stdexcept>
#include <string>

namespace qobtool {

// Exit statuses, documented in 'qob --help' and the README.
enum ExitStatus : int {
    kExitSuccess = 0,
    kExitFailure = 1,    // anything else that went wrong, or a damaged package (verify)
    kExitUsage = 2,      // a mistake on the command line
    kExitNotPackage = 3, // the file is not an image package (or not one we can read)
    kExitNotFound = 4,   // the package, a named file, an entry or an identifier is missing
};

// A failure the user should read about: one line on standard error, then exit with status.
class ToolError : public std::runtime_error {
public:
    explicit ToolError(const std::string& message, int status = kExitFailure)
        : std::runtime_error(message), status_(status) {}
    int status() const noexcept { return status_; }

private:
    int status_;
};

// Installs the sink in the shared library and in the code the tool links itself. Warnings
// are shown unless quiet; verbosity 1 adds the error trail and INFO, 2 DEBUG, 3 TRACE.
void InstallLogSink(int verbosity, bool quiet);

// Call right before an export: forgets the message of an earlier call.
void BeginCall();

// The library's message for the last failed call of function: the text of the last ERROR line
// of that call ("" when none).
std::string LastMessage(const char* function);

// "<NAME>: <message>" for a failed call of function.
std::string Describe(QobErrorCode_e result, const char* function);

// The exit status for a library failure on package: not found, not a package, or failure.
// May call QOB_IsQob, so take the message (Describe) first.
int StatusFor(QobErrorCode_e result, const std::string& package);

// Throws ToolError "<file>: <NAME>: <message>" with StatusFor's status unless SUCCESS.
void Check(QobErrorCode_e result, const char* function, const std::string& file);

// The system's reason why file cannot be opened for reading (or, with write, for changing);
// throws ToolError "<file>: <reason>" (status 4 when it does not exist). A directory fails.
void RequireFile(const std::string& file, bool write);

} // namespace qobtool
