#include "archive/path.hpp"

#include "support/exception.hpp"
#include "support/format.hpp"
#include "support/log.hpp"

#include <cstring>
#include <system_error>
#include <vector>

namespace QOB {
namespace {

bool IsAsciiLetter(char c) noexcept {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// Leading separator or a drive prefix ("c:", also "c:relative"). With backslashes already
// folded, this covers everything either platform's path type calls absolute, and it is
// the only test that sees drive letters where the platform knows none.
bool IsAbsolute(const std::string& text) noexcept {
    if (!text.empty() && (text[0] == '/' || text[0] == '\\')) {
        return true;
    }
    return text.size() >= 2 && IsAsciiLetter(text[0]) && text[1] == ':';
}

// Strict UTF-8, as a conversion to UTF-16 accepts it: no overlong forms, no surrogates,
// nothing above U+10FFFF, no truncated sequences.
bool IsValidUtf8(const std::string& text) noexcept {
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

// The generic lexical normal form of a relative, "/"-separated path. A trailing separator
// is kept as an empty last element, which is how "a/." becomes "a/".
std::string LexicallyNormal(const std::string& text) {
    if (text.empty()) {
        return text;
    }
    std::vector<std::string> elements;
    std::size_t begin = 0;
    while (begin <= text.size()) {
        const std::size_t slash = text.find('/', begin);
        const std::size_t end = slash == std::string::npos ? text.size() : slash;
        if (end > begin || end == text.size()) {
            elements.emplace_back(text, begin, end - begin);
        }
        if (slash == std::string::npos) {
            break;
        }
        begin = slash + 1;
    }

    std::vector<std::string> normal;
    for (std::size_t i = 0; i < elements.size(); ++i) {
        const std::string& element = elements[i];
        const bool last = i + 1 == elements.size();
        if (element == ".") {
            if (last) {
                normal.emplace_back();
            }
        } else if (element == "..") {
            if (!normal.empty() && normal.back() != "..") {
                normal.pop_back();
                if (last) {
                    normal.emplace_back();
                }
            } else {
                normal.push_back(element);
            }
        } else {
            normal.push_back(element);
        }
    }
    if (normal.size() >= 2 && normal.back().empty() && normal[normal.size() - 2] == "..") {
        normal.pop_back();
    }

    std::string result;
    for (std::size_t i = 0; i < normal.size(); ++i) {
        if (i > 0) {
            result += '/';
        }
        result += normal[i];
    }
    return result.empty() ? "." : result;
}

} // namespace

Path::Path(const std::string& text) : given_(text) {
    std::string work = text;
    for (auto& c : work) {
        if (c == '\\') {
            c = '/';
        }
    }
    if (IsAbsolute(work)) {
        throw Exception(INVALID_PARAMETER, "cannot use absolute path inside archive");
    }
    if (!IsValidUtf8(work)) {
        throw std::system_error(std::make_error_code(std::errc::illegal_byte_sequence),
                                "entry path is not UTF-8");
    }
    sanitized_ = LexicallyNormal(work);
    if (sanitized_ != text) {
        LogWarn(Format("Path: sanitized to \"%s\"", sanitized_.c_str()));
    }
}

void CheckEntryPathField(const char* field) {
    if (field == nullptr) {
        throw Exception(INVALID_PARAMETER, "entry path is null");
    }
    if (std::memchr(field, '\0', QOB_MAX_PATH) == nullptr) {
        throw Exception(INVALID_PARAMETER, "missing null terminator in entry path");
    }
}

} // namespace QOB
