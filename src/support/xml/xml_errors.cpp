#include "support/xml/xml_errors.hpp"

#include <array>

namespace QOB::Xml {

namespace {

constexpr std::array<const char*, 21> kMessages = {
    "No error",
    "Warning: Unmatched end tag",
    "Warning: No XML tag found",
    "Error: No XML data",
    "Error: Missing start tag name",
    "Error: Missing end tag name",
    "Error: Unmatched end tag",
    "Error: Unmatched clear tag end",
    "Error: Unexpected token found",
    "Error: No elements found",
    "Error: File not found",
    "Error: First Tag not found",
    "Error: Unknown character entity",
    "Error: Character code above 255 is forbidden in MultiByte char mode.",
    "Error: unable to convert between WideChar and MultiByte chars",
    "Error: unable to open file for writing",
    "Error: cannot write into file",
    "Warning: Base64-string length is not a multiple of 4",
    "Warning: Base64-string is truncated",
    "Error: Base64-string contains an illegal character",
    "Error: Base64 decode output buffer is too small",
};

} // namespace

const char* ErrorText(int code) noexcept {
    if (code < 0 || static_cast<unsigned>(code) >= kMessages.size()) {
        return "Unknown";
    }
    return kMessages[static_cast<unsigned>(code)];
}

} // namespace QOB::Xml
