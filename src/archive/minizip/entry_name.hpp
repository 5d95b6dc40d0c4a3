// Entry names as the standard readers show them. A stored name is UTF-8 when general purpose
// bit 11 is set, and code page 437 otherwise; an Info-ZIP Unicode Path extra field (0x7075)
// whose CRC-32 matches the stored bytes gives the name in UTF-8 instead. The name ends at its
// first NUL byte. This library writes UTF-8 names without the flag; an entry framed as ours
// (stored, with an extra field of exactly 4 bytes) whose name is UTF-8 therefore keeps it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace QOB::MiniZip {

inline constexpr std::uint16_t kFlagUtf8Name = 0x0800;

// True when the stored bytes are the name as shown and as looked up: ASCII (or flagged
// UTF-8) without NUL, backslash or Unicode Path field. Most names are; they are compared
// where they lie.
// What a central record says about its name.
struct StoredName {
    std::string_view bytes;
    std::uint16_t flags = 0;
    std::uint16_t method = 0;
    const std::uint8_t* extra = nullptr;
    std::size_t extraSize = 0;
};

bool IsPlainName(const StoredName& name) noexcept;

// The name decoded to UTF-8 (a flagged name that is not UTF-8 is kept byte for byte: it can
// be listed, never looked up). Backslashes are kept, as stored.
std::string DecodeName(const StoredName& name);

// The form a lookup compares: the decoded name with every "\" read as "/", since some
// Windows tools store "\" as the separator and names are looked up "/"-separated.
std::string LookupKey(std::string decoded);

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool IsValidUtf8(std::string_view text) noexcept;

} // namespace QOB::MiniZip
