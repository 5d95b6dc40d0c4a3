// The tool's side of the library's log: which lines reach standard error, and the library's
// own message for the call that failed.
#pragma once

#include <qob/qob.h>

#include <stdexcept>
#include <string>

namespace qobtool {

// A failure the user should read about: one line, exit status 1.
class ToolError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Installs the sink. Warnings are always shown; verbosity 1 adds the error trail and INFO,
// 2 DEBUG, 3 TRACE. Without it, the error lines of a failed call are folded into the one
// line that Check prints.
void InstallLogSink(int verbosity);

// The name of a result code, as the header spells it.
const char* ResultName(int code) noexcept;

// Call right before an export: forgets the message of an earlier call.
void BeginCall();

// Throws ToolError "<function> failed: <NAME> (<code>): <message>" unless result is SUCCESS.
void Check(QobErrorCode_e result, const char* function);

// The message that the library gave for the last failure of function ("" when none).
std::string LastMessage(const char* function);

} // namespace qobtool
