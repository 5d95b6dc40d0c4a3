#include "support/xml/xml_parser.hpp"

#include "support/xml/xml_element.hpp"

#include <algorithm>
#include <climits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace QOB::Xml {

namespace {

bool IsSpace(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Anything but the bytes that end a tag or attribute name. Lenient on purpose: names are
// compared, never validated, and whatever is read here is written back unchanged.
bool IsNameByte(char c) noexcept {
    switch (c) {
    case ' ':
    case '\t':
    case '\r':
    case '\n':
    case '<':
    case '>':
    case '/':
    case '=':
    case '"':
    case '\'':
    case '&':
    case '?':
    case '!':
    case '\0':
        return false;
    default:
        return true;
    }
}

int DigitValue(char c, bool hex) noexcept {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (hex && c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (hex && c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// The byte that the entity name (what stands between '&' and ';') denotes. Characters are
// single bytes here, so a numeric reference above 255 has no representation; &#0; is refused
// as well because the texts are handed out as C strings.
Error DecodeEntity(std::string_view name, char& out) noexcept {
    static constexpr std::pair<std::string_view, char> kNamed[] = {
        {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    for (const auto& [entity, value] : kNamed) {
        if (name == entity) {
            out = value;
            return Error::None;
        }
    }
    if (name.size() < 2 || name[0] != '#') {
        return Error::UnknownEntity;
    }
    const bool hex = name[1] == 'x' || name[1] == 'X';
    const std::string_view digits = name.substr(hex ? 2 : 1);
    if (digits.empty()) {
        return Error::UnknownEntity;
    }
    unsigned value = 0;
    for (const char c : digits) {
        const int digit = DigitValue(c, hex);
        if (digit < 0) {
            return Error::UnknownEntity;
        }
        // Saturates: any number of digits stays within range.
        value = std::min(value * (hex ? 16U : 10U) + static_cast<unsigned>(digit), 256U);
    }
    if (value == 0) {
        return Error::UnknownEntity;
    }
    if (value > 255) {
        return Error::CharacterCodeAbove255;
    }
    out = static_cast<char>(static_cast<unsigned char>(value));
    return Error::None;
}

// One pass over the text, without recursion: the open elements are an explicit stack, so
// nesting depth is bounded by memory only. Every search is bounded by the token it ends, which
// keeps the whole parse linear in the size of the text.
class Parser {
public:
    Parser(std::string_view text, std::string_view wanted, const Limits& limits) noexcept
        : text_(text), wanted_(wanted), limits_(limits) {}

    void Run();
    // Records a failure at byte offset at; returns false so that callers can unwind with it.
    bool Fail(Error error, std::size_t at) noexcept {
        error_ = error;
        at_ = at;
        return false;
    }
    std::size_t Offset() const noexcept { return pos_; }
    ParseResult Finish() noexcept;

private:
    bool Markup();
    bool CharacterData();
    bool StartTag();
    bool EndTag();
    bool ClearText();
    bool SkipPast(std::size_t from, std::string_view terminator) noexcept;
    bool SkipDoctype() noexcept;
    // Appends the decoded bytes of text_[from, to) to out.
    bool Decode(std::size_t from, std::size_t to, std::string& out);
    void TopLevelDone(std::shared_ptr<Element> element) noexcept;

    std::size_t SkipSpace(std::size_t at) const noexcept {
        while (at < text_.size() && IsSpace(text_[at])) {
            ++at;
        }
        return at;
    }
    // The name starting at `at`, which moves behind it; empty when there is none.
    std::string_view NameAt(std::size_t& at) const noexcept {
        const std::size_t start = at;
        while (at < text_.size() && IsNameByte(text_[at])) {
            ++at;
        }
        return text_.substr(start, at - start);
    }

    std::string_view text_;
    std::string_view wanted_;
    Limits limits_;
    std::size_t elements_ = 0;
    std::size_t pos_ = 0;
    Error error_ = Error::None;
    std::size_t at_ = 0;
    bool sawElement_ = false;
    std::vector<Element*> open_;
    std::shared_ptr<Element> top_;   // the open top-level element, owner of open_
    std::shared_ptr<Element> found_; // the first closed top-level element called wanted_
};

void Parser::Run() {
    if (text_.starts_with("\xEF\xBB\xBF")) {
        pos_ = 3;
    }
    if (text_.find_first_not_of(" \t\r\n", pos_) == std::string_view::npos) {
        Fail(Error::NoXmlData, text_.size());
        return;
    }
    while (pos_ < text_.size()) {
        if (!(text_[pos_] == '<' ? Markup() : CharacterData())) {
            return;
        }
    }
    // An element still open at the end has met the end of the text instead of its end tag.
    if (!open_.empty()) {
        Fail(Error::UnmatchedEndTag, text_.size());
    } else if (!sawElement_) {
        Fail(Error::NoElements, text_.size());
    } else if (!found_) {
        Fail(Error::FirstTagNotFound, text_.size());
    } else {
        at_ = text_.size();
    }
}

ParseResult Parser::Finish() noexcept {
    ParseResult result;
    result.error = error_;
    if (error_ == Error::None) {
        result.element = Node(std::move(found_));
    }
    const std::size_t end = std::min(at_, text_.size());
    const std::string_view before = text_.substr(0, end);
    const std::size_t lines =
        static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n'));
    const std::size_t lastBreak = before.rfind('\n');
    const std::size_t lineStart = lastBreak == std::string_view::npos ? 0 : lastBreak + 1;
    result.row = static_cast<int>(std::min<std::size_t>(lines + 1, INT_MAX));
    result.column = static_cast<int>(std::min<std::size_t>(end - lineStart + 1, INT_MAX));
    return result;
}

bool Parser::Markup() {
    const std::string_view rest = text_.substr(pos_);
    if (rest.starts_with("<?")) {
        return SkipPast(pos_ + 2, "?>");
    }
    if (rest.starts_with("<!--")) {
        return SkipPast(pos_ + 4, "-->");
    }
    if (rest.starts_with("<![CDATA[")) {
        return ClearText();
    }
    if (rest.starts_with("<!DOCTYPE")) {
        return SkipDoctype();
    }
    if (rest.starts_with("<!")) {
        return Fail(Error::UnexpectedToken, pos_);
    }
    if (rest.starts_with("</")) {
        return EndTag();
    }
    return StartTag();
}

bool Parser::SkipPast(std::size_t from, std::string_view terminator) noexcept {
    const std::size_t end = text_.find(terminator, from);
    if (end == std::string_view::npos) {
        return Fail(Error::UnmatchedClearTagEnd, pos_);
    }
    pos_ = end + terminator.size();
    return true;
}

// An internal subset in brackets may hold '>' of its own.
bool Parser::SkipDoctype() noexcept {
    std::size_t brackets = 0;
    for (std::size_t i = pos_ + 9; i < text_.size(); ++i) {
        if (text_[i] == '[') {
            ++brackets;
        } else if (text_[i] == ']' && brackets > 0) {
            --brackets;
        } else if (text_[i] == '>' && brackets == 0) {
            pos_ = i + 1;
            return true;
        }
    }
    return Fail(Error::UnmatchedClearTagEnd, pos_);
}

bool Parser::ClearText() {
    const std::size_t start = pos_ + 9;
    const std::size_t end = text_.find("]]>", start);
    if (end == std::string_view::npos) {
        return Fail(Error::UnmatchedClearTagEnd, pos_);
    }
    if (open_.empty()) {
        return Fail(Error::UnexpectedToken, pos_);
    }
    open_.back()->text.append(text_.substr(start, end - start));
    pos_ = end + 3;
    return true;
}

bool Parser::StartTag() {
    std::size_t at = pos_ + 1;
    const std::string_view name = NameAt(at);
    if (name.empty()) {
        return Fail(Error::MissingStartTagName, at);
    }
    if (elements_ >= limits_.elements || open_.size() >= limits_.depth) {
        return Fail(Error::UnexpectedToken, pos_);
    }
    ++elements_;
    auto element = std::make_shared<Element>(name);
    bool empty = false;
    while (true) {
        at = SkipSpace(at);
        if (at >= text_.size()) {
            return Fail(Error::UnexpectedToken, at);
        }
        if (text_[at] == '>') {
            ++at;
            break;
        }
        if (text_[at] == '/') {
            if (at + 1 < text_.size() && text_[at + 1] == '>') {
                at += 2;
                empty = true;
                break;
            }
            return Fail(Error::UnexpectedToken, at);
        }
        const std::string_view attributeName = NameAt(at);
        if (attributeName.empty()) {
            return Fail(Error::UnexpectedToken, at);
        }
        at = SkipSpace(at);
        if (at >= text_.size() || text_[at] != '=') {
            return Fail(Error::UnexpectedToken, at);
        }
        at = SkipSpace(at + 1);
        if (at >= text_.size() || (text_[at] != '"' && text_[at] != '\'')) {
            return Fail(Error::UnexpectedToken, at);
        }
        const std::size_t close = text_.find(text_[at], at + 1);
        if (close == std::string_view::npos) {
            return Fail(Error::UnexpectedToken, at);
        }
        // Duplicate names are kept as they come; lookups see the first.
        NameValue attribute{std::string(attributeName), std::string()};
        if (!Decode(at + 1, close, attribute.value)) {
            return false;
        }
        element->attributes.push_back(std::move(attribute));
        at = close + 1;
    }
    pos_ = at;
    sawElement_ = true;
    if (open_.empty()) {
        if (empty) {
            TopLevelDone(std::move(element));
        } else {
            open_.push_back(element.get());
            top_ = std::move(element);
        }
        return true;
    }
    Element* const raw = element.get();
    open_.back()->Append(std::move(element));
    if (!empty) {
        open_.push_back(raw);
    }
    return true;
}

bool Parser::EndTag() {
    const std::size_t tagStart = pos_;
    std::size_t at = pos_ + 2;
    const std::string_view name = NameAt(at);
    if (name.empty()) {
        return Fail(Error::MissingEndTagName, at);
    }
    at = SkipSpace(at);
    if (at >= text_.size() || text_[at] != '>') {
        return Fail(Error::UnexpectedToken, at);
    }
    if (open_.empty() || open_.back()->name != name) {
        return Fail(Error::UnmatchedEndTag, tagStart);
    }
    open_.pop_back();
    pos_ = at + 1;
    if (open_.empty()) {
        TopLevelDone(std::move(top_));
    }
    return true;
}

bool Parser::CharacterData() {
    std::size_t end = text_.find('<', pos_);
    if (end == std::string_view::npos) {
        end = text_.size();
    }
    std::size_t first = pos_;
    while (first < end && IsSpace(text_[first])) {
        ++first;
    }
    if (first == end) {
        // Layout between tags (line breaks, indentation) is not content: dropping it lets a
        // formatted text parse into the same tree as a one-line one.
        pos_ = end;
        return true;
    }
    if (open_.empty()) {
        return Fail(Error::UnexpectedToken, first);
    }
    if (!Decode(pos_, end, open_.back()->text)) {
        return false;
    }
    pos_ = end;
    return true;
}

bool Parser::Decode(std::size_t from, std::size_t to, std::string& out) {
    const std::string_view piece = text_.substr(from, to - from);
    std::size_t i = 0;
    while (i < piece.size()) {
        const std::size_t amp = piece.find('&', i);
        if (amp == std::string_view::npos) {
            out.append(piece.substr(i));
            return true;
        }
        out.append(piece.substr(i, amp - i));
        const std::size_t semicolon = piece.find(';', amp + 1);
        if (semicolon == std::string_view::npos) {
            return Fail(Error::UnknownEntity, from + amp);
        }
        char value = 0;
        const Error error = DecodeEntity(piece.substr(amp + 1, semicolon - amp - 1), value);
        if (error != Error::None) {
            return Fail(error, from + amp);
        }
        out.push_back(value);
        i = semicolon + 1;
    }
    return true;
}

// Top-level elements other than the one asked for are not kept.
void Parser::TopLevelDone(std::shared_ptr<Element> element) noexcept {
    if (!found_ && element->name == wanted_) {
        found_ = std::move(element);
    }
}

} // namespace

ParseResult Parse(std::string_view text, std::string_view firstElementName,
                  const Limits& limits) noexcept {
    Parser parser(text, firstElementName, limits);
    try {
        parser.Run();
    } catch (...) {
        // Only memory exhaustion gets here. No code of the table fits it; "no elements found"
        // at least says that no tree came out.
        parser.Fail(Error::NoElements, parser.Offset());
    }
    return parser.Finish();
}

} // namespace QOB::Xml
