// Result codes of the XML parser and their fixed English texts.
#pragma once

namespace QOB::Xml {

// The numbering is fixed: callers log the number and the text. Codes 10 and 14 to 20 name
// facilities (files, wide characters, Base64) that this model does not have; they are never
// produced but keep their places.
enum class Error : int {
    None = 0,
    UnmatchedEndTagWarning = 1,
    NoXmlTagWarning = 2,
    NoXmlData = 3,
    MissingStartTagName = 4,
    MissingEndTagName = 5,
    UnmatchedEndTag = 6,
    UnmatchedClearTagEnd = 7,
    UnexpectedToken = 8,
    NoElements = 9,
    FileNotFound = 10,
    FirstTagNotFound = 11,
    UnknownEntity = 12,
    CharacterCodeAbove255 = 13,
    WideCharConversion = 14,
    CannotOpenForWriting = 15,
    CannotWrite = 16,
    Base64LengthWarning = 17,
    Base64TruncatedWarning = 18,
    Base64IllegalCharacter = 19,
    Base64BufferTooSmall = 20,
};

// The message of code, or "Unknown" for a number outside the table. Never null.
const char* ErrorText(int code) noexcept;
inline const char* ErrorText(Error code) noexcept {
    return ErrorText(static_cast<int>(code));
}

} // namespace QOB::Xml
