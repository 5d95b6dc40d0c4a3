// The one way failures travel inside the library; only the exports turn it into a code.
#pragma once

#include <qob/qob.h>

#include <exception>
#include <string>

namespace QOB {

// Name string of a result code; "invalid error code" for any value outside the table.
const char* ErrorName(int code) noexcept;

class Exception : public std::exception {
public:
    // Logs "Exception: <text>" at ERROR; what() is "[<code name>] <text>".
    Exception(QobErrorCode_e code, const std::string& text);

    QobErrorCode_e code() const noexcept { return code_; }
    const char* what() const noexcept override { return message_.c_str(); }

private:
    QobErrorCode_e code_;
    std::string message_;
};

} // namespace QOB
