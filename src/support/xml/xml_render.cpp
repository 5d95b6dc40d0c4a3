#include "support/xml/xml_render.hpp"

#include "support/xml/xml_element.hpp"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace QOB::Xml {

namespace {

constexpr std::size_t kMaxIndent = 32;

// Counts always; copies only while there is a buffer with room left.
class Writer {
public:
    Writer(char* buffer, std::size_t room) noexcept : buffer_(buffer), room_(room) {}

    void Put(std::string_view bytes) noexcept {
        if (buffer_ != nullptr && !overflow_) {
            if (bytes.size() > room_ - length_) {
                overflow_ = true;
            } else {
                std::memcpy(buffer_ + length_, bytes.data(), bytes.size());
            }
        }
        length_ += bytes.size();
    }
    void Put(char byte) noexcept { Put(std::string_view(&byte, 1)); }

    std::size_t Length() const noexcept { return length_; }
    bool Overflow() const noexcept { return overflow_; }

private:
    char* buffer_;
    std::size_t room_;
    std::size_t length_ = 0;
    bool overflow_ = false;
};

std::string_view EntityOf(char c) noexcept {
    switch (c) {
    case '&':
        return "&amp;";
    case '<':
        return "&lt;";
    case '>':
        return "&gt;";
    case '"':
        return "&quot;";
    case '\'':
        return "&apos;";
    default:
        return {};
    }
}

void PutEscaped(Writer& out, std::string_view text) noexcept {
    std::size_t start = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::string_view entity = EntityOf(text[i]);
        if (!entity.empty()) {
            out.Put(text.substr(start, i - start));
            out.Put(entity);
            start = i + 1;
        }
    }
    out.Put(text.substr(start));
}

// The parser drops text made of raw whitespace only, taking it for layout. Such a text must
// survive a round trip all the same, so its first byte goes out as a character reference.
void PutText(Writer& out, std::string_view text) noexcept {
    if (!text.empty() && text.find_first_not_of(" \t\r\n") == std::string_view::npos) {
        static constexpr std::string_view kReferences[] = {"&#32;", "&#9;", "&#13;", "&#10;"};
        out.Put(kReferences[std::string_view(" \t\r\n").find(text[0])]);
        text.remove_prefix(1);
    }
    PutEscaped(out, text);
}

void PutLineBreak(Writer& out, std::size_t depth) noexcept {
    out.Put('\n');
    for (std::size_t i = 0; i < std::min(depth, kMaxIndent); ++i) {
        out.Put('\t');
    }
}

// Writes the start tag, and the text behind it; for an element without content, the whole
// empty-element form.
void PutStart(Writer& out, const Element& element) noexcept {
    out.Put('<');
    out.Put(element.name);
    for (const NameValue& attribute : element.attributes) {
        out.Put(' ');
        out.Put(attribute.name);
        out.Put("=\"");
        PutEscaped(out, attribute.value);
        out.Put('"');
    }
    if (element.text.empty() && element.children.empty()) {
        out.Put("/>");
        return;
    }
    out.Put('>');
    PutText(out, element.text);
}

void PutEnd(Writer& out, const Element& element) noexcept {
    out.Put("</");
    out.Put(element.name);
    out.Put('>');
}

// Depth-first walk through the children and parent links, so that depth costs no stack.
void Walk(Writer& out, const Element& root, bool formatted) noexcept {
    const Element* node = &root;
    std::size_t depth = 0;
    // Set while inside an element with text: its content stays on one line.
    const Element* inlineFrom = nullptr;
    while (true) {
        if (formatted && inlineFrom == nullptr && node != &root) {
            PutLineBreak(out, depth);
        }
        PutStart(out, *node);
        if (!node->children.empty()) {
            if (formatted && inlineFrom == nullptr && !node->text.empty()) {
                inlineFrom = node;
            }
            node = node->children.front().get();
            ++depth;
            continue;
        }
        if (!node->text.empty()) {
            PutEnd(out, *node);
        }
        // Climb until a next sibling turns up, closing each parent passed.
        while (true) {
            if (node == &root) {
                return;
            }
            const Element* parent = node->parent;
            if (node->position + 1 < parent->children.size()) {
                node = parent->children[node->position + 1].get();
                break;
            }
            node = parent;
            --depth;
            if (formatted && inlineFrom == nullptr) {
                PutLineBreak(out, depth);
            }
            PutEnd(out, *node);
            if (node == inlineFrom) {
                inlineFrom = nullptr;
            }
        }
    }
}

} // namespace

std::size_t RenderLength(const Node& element, bool formatted) noexcept {
    Writer out(nullptr, 0);
    if (element) {
        Walk(out, *element.Get(), formatted);
    }
    return out.Length();
}

std::size_t Render(const Node& element, char* buffer, std::size_t capacity,
                   bool formatted) noexcept {
    if (buffer == nullptr || capacity == 0) {
        return 0;
    }
    // One byte stays free for the terminator.
    Writer out(buffer, capacity - 1);
    if (element) {
        Walk(out, *element.Get(), formatted);
    }
    if (out.Overflow()) {
        buffer[0] = '\0';
        return 0;
    }
    buffer[out.Length()] = '\0';
    return out.Length();
}

std::string RenderToString(const Node& element, bool formatted) {
    std::string text(RenderLength(element, formatted), '\0');
    Render(element, text.data(), text.size() + 1, formatted);
    return text;
}

} // namespace QOB::Xml
