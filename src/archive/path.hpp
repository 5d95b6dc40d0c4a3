// An entry path as a caller gave it and its canonical spelling inside the zip: relative,
// "/"-separated and lexically normal. The same rules hold on every platform.
#pragma once

#include <string>

namespace QOB {

class Path {
public:
    // Throws QOB::Exception (INVALID_PARAMETER) for absolute paths, drive prefixes and a
    // leading separator, and std::system_error for text that is not UTF-8. Logs a WARN
    // line when the canonical spelling differs from the text.
    explicit Path(const std::string& text);

    // The zip entry name.
    const std::string& Sanitized() const noexcept { return sanitized_; }
    const char* CStr() const noexcept { return sanitized_.c_str(); }
    const std::string& Given() const noexcept { return given_; }

private:
    std::string given_;
    std::string sanitized_;
};

// Checks a fixed character field of a public record before it becomes a Path: not null,
// and NUL-terminated within its first 260 bytes. Throws QOB::Exception (INVALID_PARAMETER).
void CheckEntryPathField(const char* field);

} // namespace QOB
