// Text to tree.
#pragma once

#include "support/xml/xml_errors.hpp"
#include "support/xml/xml_node.hpp"

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace QOB::Xml {

struct ParseResult {
    // The element asked for; empty unless error is Error::None.
    Node element;
    Error error = Error::None;
    // Where parsing stopped, both from 1 (columns count bytes): the offending token on failure,
    // the end of the text on success and for failures only the end reveals.
    int row = 1;
    int column = 1;
};

// A budget for untrusted text: parsing stops with UnexpectedToken at the start tag that would
// exceed it, before the element is built. The defaults set no limit.
struct Limits {
    std::size_t elements = SIZE_MAX; // elements in the whole text
    std::size_t depth = SIZE_MAX;    // elements open at once
};

// Parses text (8-bit, UTF-8 passes through untouched) and returns its first top-level element
// called firstElementName. Never throws; every failure, memory exhaustion included, is reported
// through the result.
//
// Accepted: start, end and empty-element tags; attributes in either quote style; the entities
// &amp; &lt; &gt; &quot; &apos; and &#NN; / &#xNN; up to 255 (one byte each), in text and in
// attribute values. CDATA content joins the text verbatim. The XML declaration, processing
// instructions, comments and DOCTYPE are skipped. Text pieces of an element (around its
// children) are joined; a piece made of raw whitespace only is layout and is dropped.
//
// Failures: NoXmlData (empty or blank text); NoElements (no element at all); FirstTagNotFound;
// MissingStartTagName ("<" without a name); MissingEndTagName ("</" without one);
// UnmatchedEndTag (an end tag that closes nothing open, or the text ends inside an element);
// UnmatchedClearTagEnd (a comment, CDATA, DOCTYPE or "<?" section never closed);
// UnknownEntity (also "&" without ";" and &#0;); CharacterCodeAbove255; UnexpectedToken for
// anything else out of place (bad attribute syntax, an unclosed tag, text or CDATA outside the
// elements, an unknown "<!" section). Nothing recurses: depth costs no stack.
ParseResult Parse(std::string_view text, std::string_view firstElementName,
                  const Limits& limits = {}) noexcept;

} // namespace QOB::Xml
