// Tree to text.
#pragma once

#include "support/xml/xml_node.hpp"

#include <cstddef>
#include <string>

namespace QOB::Xml {

// The rendering of element and its subtree, starting at its own start tag (nothing outside it
// is written). An element with neither text nor children takes the empty-element form <a/>.
// The five characters & < > " ' are written as entities in text and attribute values.
//
// Unformatted, the result is one line with nothing added between elements. Formatted, elements
// whose content is children only put each child on a line of its own, indented by one tab per
// level (at most 32 tabs, which keeps the output linear in the tree's size); an element with
// text keeps its whole content on its line, so that both forms parse into the same tree.
//
// An empty handle renders as "".

// The length of the rendering, without a terminating NUL.
std::size_t RenderLength(const Node& element, bool formatted = false) noexcept;

// Writes the rendering and a NUL into buffer, which needs RenderLength() + 1 bytes. Returns the
// length written; 0 (and buffer[0] = NUL when capacity allows) when it does not fit.
std::size_t Render(const Node& element, char* buffer, std::size_t capacity,
                   bool formatted = false) noexcept;

// Throws only std::bad_alloc.
std::string RenderToString(const Node& element, bool formatted = false);

} // namespace QOB::Xml
