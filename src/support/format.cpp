#include "support/format.hpp"

#include "support/exception.hpp"

#include <cstdarg>
#include <cstdio>

namespace QOB {

std::string Format(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    std::va_list again;
    va_copy(again, args);
    // Most messages are short: one pass into a small buffer, a second only for long ones.
    char small[256];
    const int length = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (length < 0) {
        va_end(again);
        throw Exception(INTERNAL_INCONSISTENCY, "string format failed");
    }
    if (static_cast<std::size_t>(length) < sizeof small) {
        va_end(again);
        return std::string(small, static_cast<std::size_t>(length));
    }
    std::string text(static_cast<std::size_t>(length), '\0');
    const int written = std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    if (written != length) {
        throw Exception(INTERNAL_INCONSISTENCY, "string format failed");
    }
    return text;
}

} // namespace QOB
