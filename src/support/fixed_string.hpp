// Reading the fixed character arrays of the public records.
#pragma once

#include <cstddef>
#include <cstring>

namespace QOB {

// A field is a string only if a NUL occurs inside its array.
template <std::size_t N> bool IsTerminated(const char (&field)[N]) noexcept {
    return std::memchr(field, '\0', N) != nullptr;
}

// The field itself when terminated; otherwise "" after a WARN line. Never throws.
const char* ToCString(const char (&field)[260]) noexcept;

// Copies text with its terminator into field; false (field untouched) when it does not fit.
template <std::size_t N> bool CopyToField(char (&field)[N], const char* text) noexcept {
    const std::size_t length = std::strlen(text);
    if (length >= N) {
        return false;
    }
    std::memcpy(field, text, length + 1);
    return true;
}

} // namespace QOB
