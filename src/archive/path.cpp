#include "archive/path.hpp"

#include "archive/minizip/entry_name.hpp"
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
    if (!MiniZip::IsValidUtf8(work)) {
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
