// Handles to the elements of an in-memory XML tree, with the searches and edits the manifest
// code needs. Not thread-safe: a tree belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <utility>

namespace QOB::Xml {

class Element;

// A counted reference to one element. Copies share the element; an element and its subtree go
// when the last handle to it (or to an ancestor still holding it) goes. An empty handle answers
// every query with nothing (0, nullptr, an empty handle, false) and never fails.
//
// Returned strings stay valid until the element is edited or freed. Name comparisons are exact
// unless the function says otherwise. Positions count all children, in document order.
// Edits throw nothing but std::bad_alloc.
class Node {
public:
    Node() noexcept = default;
    // For the model's own parser and renderer; Element is opaque to everyone else.
    explicit Node(std::shared_ptr<Element> element) noexcept : element_(std::move(element)) {}
    Element* Get() const noexcept { return element_.get(); }

    bool IsEmpty() const noexcept { return element_ == nullptr; }
    explicit operator bool() const noexcept { return element_ != nullptr; }
    // True when both handles refer to the same element (or both are empty).
    friend bool operator==(const Node&, const Node&) noexcept = default;

    const char* Name() const noexcept;
    // nullptr when the element has no text.
    const char* Text() const noexcept;

    // Value of the attribute called name; nullptr when absent.
    const char* Attribute(std::string_view name) const noexcept;
    std::size_t AttributeCount() const noexcept;
    // nullptr when position is out of range.
    const char* AttributeNameAt(std::size_t position) const noexcept;
    const char* AttributeValueAt(std::size_t position) const noexcept;

    std::size_t ChildCount() const noexcept;
    std::size_t ChildCount(std::string_view name) const noexcept;
    Node ChildAt(std::size_t position) const noexcept;
    // The index-th child called name (index counts only children of that name).
    Node Child(std::string_view name, std::size_t index = 0) const noexcept;
    // The first child called name at or after position *from (0 when from is null). When one
    // is found and from is not null, *from is set to its position; otherwise *from is kept.
    Node FindChild(std::string_view name, std::size_t* from = nullptr) const noexcept;
    // As FindChild, comparing names without regard to ASCII case.
    Node FindChildIgnoreCase(std::string_view name, std::size_t* from = nullptr) const noexcept;
    // The first child called name whose attribute has exactly value.
    Node ChildWithAttribute(std::string_view name, std::string_view attribute,
                            std::string_view value) const noexcept;
    // Empty for a top-level element and for one that was removed.
    Node Parent() const noexcept;

    // Appends a new, empty child called name and returns it.
    Node AppendChild(std::string_view name);
    // Replaces the text; an empty text removes it. False on an empty handle.
    bool SetText(std::string_view text);
    // Replaces the value in place, or adds the attribute at the end. False on an empty handle.
    bool SetAttribute(std::string_view name, std::string_view value);
    // Detaches the element, with its subtree, from its parent. This handle keeps it alive.
    // False when there is no parent.
    bool Remove() noexcept;

private:
    std::shared_ptr<Element> element_;
};

// A new tree whose root is an element called rootName.
Node CreateDocument(std::string_view rootName);

// Equality of names without regard to ASCII case.
bool EqualsIgnoreCase(std::string_view a, std::string_view b) noexcept;

} // namespace QOB::Xml
