// Bounded printf-style formatting into an owned string.
#pragma once

#include <string>

#if defined(__MINGW32__)
#define QOB_PRINTF_FORMAT(f, a) __attribute__((format(gnu_printf, f, a)))
#else
#define QOB_PRINTF_FORMAT(f, a) __attribute__((format(printf, f, a)))
#endif

namespace QOB {

// Measures, then formats into a buffer of the measured size. Throws QOB::Exception
// (INTERNAL_INCONSISTENCY, "string format failed") when the format cannot be applied.
std::string Format(const char* format, ...) QOB_PRINTF_FORMAT(1, 2);

} // namespace QOB
