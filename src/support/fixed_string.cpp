#include "support/fixed_string.hpp"

#include "support/log.hpp"

namespace QOB {

const char* ToCString(const char (&field)[260]) noexcept {
    if (IsTerminated(field)) {
        return field;
    }
    try {
        LogWarn("ToCString: missing null terminator, returning empty string");
    } catch (...) {
        // Logging must not turn a lenient read into a failure.
    }
    return "";
}

} // namespace QOB
