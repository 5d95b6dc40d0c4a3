// QOBX_LastError and QOBX_CodeName, and the per-thread record behind them.
#include "api/last_error.hpp"

#include "support/exception.hpp"

#include <cstring>

namespace QOB {
namespace {

// Per thread, as errno is: one host thread's failure never shows through another's call.
thread_local QOBX_Error t_lastError{};

// Copies text into a field of size bytes, cut so that no UTF-8 sequence is split.
template <std::size_t N> void CopyCut(char (&field)[N], const std::string& text) noexcept {
    std::size_t length = text.size() < N ? text.size() : N - 1;
    if (length < text.size()) {
        while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) {
            --length; // text[length] continues a sequence: cut before the sequence starts
        }
    }
    std::memcpy(field, text.data(), length);
    field[length] = '\0';
}

} // namespace

const char* CodeName(int code) noexcept {
    const char* name = KnownErrorName(code);
    return name != nullptr ? name : "UNKNOWN";
}

void ClearLastError() noexcept {
    t_lastError = QOBX_Error{};
    CopyCut(t_lastError.codeName, CodeName(SUCCESS));
}

void SetLastError(QobErrorCode_e code, const std::string& message, int systemError,
                  const std::string& systemMessage, const std::string& subject) noexcept {
    t_lastError.code = code;
    t_lastError.systemError = systemError;
    CopyCut(t_lastError.codeName, CodeName(code));
    CopyCut(t_lastError.message, message);
    CopyCut(t_lastError.systemMessage, systemError != 0 ? systemMessage : std::string());
    CopyCut(t_lastError.subject, subject);
}

} // namespace QOB

extern "C" {

QOB_API QobErrorCode_e QOBX_LastError(QOBX_Error* error) {
    // Before any call the record reads as a success.
    if (QOB::t_lastError.codeName[0] == '\0') {
        QOB::ClearLastError();
    }
    if (error != nullptr) {
        *error = QOB::t_lastError;
    }
    return static_cast<QobErrorCode_e>(QOB::t_lastError.code);
}

QOB_API const char* QOBX_CodeName(int32_t code) {
    return QOB::CodeName(code);
}

} // extern "C"
