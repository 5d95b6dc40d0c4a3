// Parses arbitrary bytes, renders what came out and checks that the rendering is a fixed point:
// parsed again, it renders the same, formatted or not.
#include "support/xml/xml.hpp"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

namespace {

using namespace QOB::Xml;

void Check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// The name of the first start tag in text, as the parser would read it (roughly: a wrong guess
// only means a FirstTagNotFound).
std::string_view FirstTagName(std::string_view text) {
    for (std::size_t at = text.find('<'); at != std::string_view::npos;
         at = text.find('<', at + 1)) {
        const std::size_t end = text.find_first_of(" \t\r\n<>/=\"'&?!", at + 1);
        const std::string_view name =
            text.substr(at + 1, (end == std::string_view::npos ? text.size() : end) - at - 1);
        if (!name.empty() && name.find('\0') == std::string_view::npos) {
            return name;
        }
    }
    return {};
}

void RoundTrip(std::string_view text, std::string_view name) {
    const ParseResult first = Parse(text, name);
    Check(first.row >= 1 && first.column >= 1);
    Check(ErrorText(first.error) != nullptr);
    Check((first.error == Error::None) != first.element.IsEmpty());
    if (first.error != Error::None) {
        return;
    }
    Check(first.element.Parent().IsEmpty());
    Check(first.element.ChildCount(name) <= first.element.ChildCount());
    for (std::size_t i = 0; i < first.element.ChildCount(); ++i) {
        Check(first.element.ChildAt(i).Parent() == first.element);
    }

    const std::string once = RenderToString(first.element);
    Check(once.size() == RenderLength(first.element));
    const ParseResult second = Parse(once, name);
    Check(second.error == Error::None);
    Check(RenderToString(second.element) == once);

    const ParseResult formatted = Parse(RenderToString(first.element, true), name);
    Check(formatted.error == Error::None);
    Check(RenderToString(formatted.element) == once);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    RoundTrip(text, "Manifest");
    RoundTrip(text, FirstTagName(text));
    return 0;
}
