// The element record behind a Node. Only the model's own sources see it; everyone else goes
// through Node.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace QOB::Xml {

struct NameValue {
    std::string name;
    std::string value;
};

class Element : public std::enable_shared_from_this<Element> {
public:
    explicit Element(std::string_view elementName) : name(elementName) {}
    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;
    // Frees the subtree without recursion, however deep it is.
    ~Element();

    // Adds child as the last child and links it back to this element.
    void Append(std::shared_ptr<Element> child);
    // Unlinks the child at position; the children behind it move up one place.
    void RemoveChildAt(std::size_t position) noexcept;

    std::string name;
    // Empty means "no text".
    std::string text;
    std::vector<NameValue> attributes;
    std::vector<std::shared_ptr<Element>> children;
    // Not owning. Set only while the parent is alive and holds this element: a parent that
    // lets go of a child (removal, destruction) clears it. With position it lets the renderer
    // walk the tree without a stack of its own.
    Element* parent = nullptr;
    std::size_t position = 0;
};

} // namespace QOB::Xml
