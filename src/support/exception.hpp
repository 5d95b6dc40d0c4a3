// The one way failures travel inside the library; only the exports turn it into a code.
#pragma once

#include <qob/qob.h>

#include <exception>
#include <string>
#include <system_error>

namespace QOB {

// Name string of a result code; "invalid error code" for any value outside the table.
const char* ErrorName(int code) noexcept;
// The same, null for a value outside the table.
const char* KnownErrorName(int code) noexcept;

// A failure: its result code, its message, the system's error behind it (none when the system
// gave none) and the path or entry it concerns (empty when none). The message never includes
// the system's reason: hosts read that from the last-error record.
class Exception : public std::exception {
public:
    // Logs "Exception: <text>" at ERROR; what() is "[<code name>] <text>".
    Exception(QobErrorCode_e code, const std::string& text);
    Exception(QobErrorCode_e code, const std::string& text, std::error_code cause,
              const std::string& subject);
    // The same without the log line, for a failure that is usually retried (its final
    // occurrence is logged where it is reported).
    struct Unlogged {};
    Exception(Unlogged, QobErrorCode_e code, const std::string& text, std::error_code cause,
              const std::string& subject);

    QobErrorCode_e code() const noexcept { return code_; }
    const char* what() const noexcept override { return message_.c_str(); }
    // The message without the code's name.
    const char* text() const noexcept { return message_.c_str() + textStart_; }
    const std::error_code& cause() const noexcept { return cause_; }
    const std::string& subject() const noexcept { return subject_; }

    // Completes a failure on its way out with what an outer layer knows: each part is taken
    // only where the thrower left it unset. Logs nothing.
    void AddContext(std::error_code cause, const std::string& subject);

private:
    QobErrorCode_e code_;
    std::string message_;
    std::size_t textStart_;
    std::error_code cause_;
    std::string subject_;
};

} // namespace QOB
