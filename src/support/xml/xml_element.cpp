#include "support/xml/xml_element.hpp"

#include <utility>

namespace QOB::Xml {

// A plain member-wise destructor would free a chain of children through nested shared_ptr
// destructors, one stack frame per level: a hostile document a hundred thousand levels deep
// would overflow the stack. Instead this walks down to a childless descendant, drops it (its own
// destructor then has nothing to do), and climbs back through the parent links. Children that
// another handle still holds are only unlinked. No allocation, so nothing can throw here.
Element::~Element() {
    Element* node = this;
    while (true) {
        if (node->children.empty()) {
            if (node == this) {
                return;
            }
            Element* up = node->parent;
            up->children.pop_back(); // frees node, which no longer has children
            node = up;
            continue;
        }
        std::shared_ptr<Element>& last = node->children.back();
        if (last.use_count() > 1) {
            last->parent = nullptr;
            node->children.pop_back();
            continue;
        }
        node = last.get();
    }
}

void Element::Append(std::shared_ptr<Element> child) {
    children.push_back(std::move(child));
    children.back()->parent = this;
    children.back()->position = children.size() - 1;
}

void Element::RemoveChildAt(std::size_t at) noexcept {
    if (at >= children.size()) {
        return;
    }
    children[at]->parent = nullptr;
    children.erase(children.begin() + static_cast<std::ptrdiff_t>(at));
    for (std::size_t i = at; i < children.size(); ++i) {
        children[i]->position = i;
    }
}

} // namespace QOB::Xml
