#include "support/format.hpp"

#include "support/exception.hpp"

#include <cstdarg>
#include <cstdio>

namespace QOB {

std::string Format(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    std::va_list measure;
    va_copy(measure, args);
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length < 0) {
        va_end(args);
        throw Exception(INTERNAL_INCONSISTENCY, "string format failed");
    }
    std::string text(static_cast<size_t>(length), '\0');
    const int written = std::vsnprintf(text.data(), text.size() + 1, format, args);
    va_end(args);
    if (written != length) {
        throw Exception(INTERNAL_INCONSISTENCY, "string format failed");
    }
    return text;
}

} // namespace QOB
