#include "support/exception.hpp"

#include "support/log.hpp"

namespace QOB {

const char* KnownErrorName(int code) noexcept {
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
        return nullptr;
    }
}

const char* ErrorName(int code) noexcept {
    const char* name = KnownErrorName(code);
    return name != nullptr ? name : "invalid error code";
}

Exception::Exception(QobErrorCode_e code, const std::string& text)
    : Exception(code, text, std::error_code(), std::string()) {}

Exception::Exception(QobErrorCode_e code, const std::string& text, std::error_code cause,
                     const std::string& subject)
    : code_(code), message_(std::string("[") + ErrorName(code) + "] "), textStart_(message_.size()),
      cause_(cause), subject_(subject) {
    message_ += text;
    LogError("Exception: " + text);
}

Exception::Exception(Unlogged, QobErrorCode_e code, const std::string& text, std::error_code cause,
                     const std::string& subject)
    : code_(code), message_(std::string("[") + ErrorName(code) + "] "), textStart_(message_.size()),
      cause_(cause), subject_(subject) {
    message_ += text;
}

void Exception::AddContext(std::error_code cause, const std::string& subject) {
    if (!cause_) {
        cause_ = cause;
    }
    if (subject_.empty()) {
        subject_ = subject;
    }
}

} // namespace QOB
