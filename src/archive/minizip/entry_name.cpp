#include "archive/minizip/entry_name.hpp"

#include "archive/minizip/bytes.hpp"
#include "archive/minizip/crc32.hpp"

#include <algorithm>
#include <array>

namespace QOB::MiniZip {
namespace {

constexpr std::uint16_t kUnicodePathField = 0x7075;
constexpr std::size_t kContentSizeFieldSize = 4;

// Code page 437, bytes 0x80 to 0xFF (the lower half is ASCII).
constexpr std::array<char16_t, 128> kCp437 = {
    0x00C7, 0x00FC, 0x00E9, 0x00E2, 0x00E4, 0x00E0, 0x00E5, 0x00E7, 0x00EA, 0x00EB, 0x00E8, 0x00EF,
    0x00EE, 0x00EC, 0x00C4, 0x00C5, 0x00C9, 0x00E6, 0x00C6, 0x00F4, 0x00F6, 0x00F2, 0x00FB, 0x00F9,
    0x00FF, 0x00D6, 0x00DC, 0x00A2, 0x00A3, 0x00A5, 0x20A7, 0x0192, 0x00E1, 0x00ED, 0x00F3, 0x00FA,
    0x00F1, 0x00D1, 0x00AA, 0x00BA, 0x00BF, 0x2310, 0x00AC, 0x00BD, 0x00BC, 0x00A1, 0x00AB, 0x00BB,
    0x2591, 0x2592, 0x2593, 0x2502, 0x2524, 0x2561, 0x2562, 0x2556, 0x2555, 0x2563, 0x2551, 0x2557,
    0x255D, 0x255C, 0x255B, 0x2510, 0x2514, 0x2534, 0x252C, 0x251C, 0x2500, 0x253C, 0x255E, 0x255F,
    0x255A, 0x2554, 0x2569, 0x2566, 0x2560, 0x2550, 0x256C, 0x2567, 0x2568, 0x2564, 0x2565, 0x2559,
    0x2558, 0x2552, 0x2553, 0x256B, 0x256A, 0x2518, 0x250C, 0x2588, 0x2584, 0x258C, 0x2590, 0x2580,
    0x03B1, 0x00DF, 0x0393, 0x03C0, 0x03A3, 0x03C3, 0x00B5, 0x03C4, 0x03A6, 0x0398, 0x03A9, 0x03B4,
    0x221E, 0x03C6, 0x03B5, 0x2229, 0x2261, 0x00B1, 0x2265, 0x2264, 0x2320, 0x2321, 0x00F7, 0x2248,
    0x00B0, 0x2219, 0x00B7, 0x221A, 0x207F, 0x00B2, 0x25A0, 0x00A0};

void AppendUtf8(std::string& out, char16_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// The UTF-8 name of a Unicode Path field that belongs to these stored bytes, if there is one.
// The extra field is a sequence of tagged blocks (ID, data size, data); a block that runs
// past the end ends the walk.
bool UnicodePath(std::string_view stored, const std::uint8_t* extra, std::size_t extraSize,
                 std::string& name) {
    for (std::size_t at = 0; at + 4 <= extraSize;) {
        const std::uint16_t id = Bytes::Get16(extra + at);
        const std::uint16_t size = Bytes::Get16(extra + at + 2);
        if (extraSize - at - 4 < size) {
            return false;
        }
        const std::uint8_t* data = extra + at + 4;
        // Version 1, then the CRC-32 of the stored name, then the name in UTF-8.
        if (id == kUnicodePathField && size >= 5 && data[0] == 1 &&
            Bytes::Get32(data + 1) == Crc32(0, stored.data(), stored.size())) {
            const std::string_view utf8(reinterpret_cast<const char*>(data + 5), size - 5u);
            if (IsValidUtf8(utf8)) {
                name.assign(utf8);
                return true;
            }
        }
        at += 4u + size;
    }
    return false;
}

bool HasUnicodePathBlock(const std::uint8_t* extra, std::size_t extraSize) noexcept {
    for (std::size_t at = 0; at + 4 <= extraSize;) {
        if (Bytes::Get16(extra + at) == kUnicodePathField) {
            return true;
        }
        at += 4u + Bytes::Get16(extra + at + 2);
    }
    return false;
}

// Flagged UTF-8; or ASCII, which reads the same either way; or framed as ours, whose writer
// stores UTF-8 without the flag.
bool IsUtf8Name(const StoredName& name) noexcept {
    if ((name.flags & kFlagUtf8Name) != 0) {
        return true;
    }
    const bool ascii = std::all_of(name.bytes.begin(), name.bytes.end(),
                                   [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    return ascii ||
           (name.method == 0 && name.extraSize == kContentSizeFieldSize && IsValidUtf8(name.bytes));
}

} // namespace

bool IsPlainName(const StoredName& name) noexcept {
    for (const char c : name.bytes) {
        if (c == '\0' || c == '\\') {
            return false;
        }
    }
    return IsUtf8Name(name) && !HasUnicodePathBlock(name.extra, name.extraSize);
}

std::string DecodeName(const StoredName& stored) {
    std::string name;
    if (!UnicodePath(stored.bytes, stored.extra, stored.extraSize, name)) {
        if (IsUtf8Name(stored)) {
            name.assign(stored.bytes);
        } else {
            name.reserve(stored.bytes.size());
            for (const char c : stored.bytes) {
                const auto byte = static_cast<unsigned char>(c);
                if (byte < 0x80) {
                    name += c;
                } else {
                    AppendUtf8(name, kCp437[byte - 0x80]);
                }
            }
        }
    }
    // A NUL ends the name, as the other readers cut it.
    if (const std::size_t nul = name.find('\0'); nul != std::string::npos) {
        name.resize(nul);
    }
    return name;
}

std::string LookupKey(std::string decoded) {
    std::replace(decoded.begin(), decoded.end(), '\\', '/');
    return decoded;
}

bool IsValidUtf8(std::string_view text) noexcept {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* end = p + text.size();
    while (p < end) {
        const unsigned lead = *p++;
        if (lead < 0x80) {
            continue;
        }
        int follow = 0;
        unsigned low = 0x80;
        unsigned high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            follow = 1;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            follow = 2;
            low = lead == 0xE0 ? 0xA0 : 0x80;
            high = lead == 0xED ? 0x9F : 0xBF;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            follow = 3;
            low = lead == 0xF0 ? 0x90 : 0x80;
            high = lead == 0xF4 ? 0x8F : 0xBF;
        } else {
            return false;
        }
        if (end - p < follow) {
            return false;
        }
        for (int i = 0; i < follow; ++i, ++p) {
            const unsigned byte = *p;
            if (byte < (i == 0 ? low : 0x80u) || byte > (i == 0 ? high : 0xBFu)) {
                return false;
            }
        }
    }
    return true;
}

} // namespace QOB::MiniZip
