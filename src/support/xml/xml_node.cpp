#include "support/xml/xml_node.hpp"

#include "support/xml/xml_element.hpp"

namespace QOB::Xml {

namespace {

char LowerAscii(char c) noexcept {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
}

template <typename Match>
Node FindFrom(const Element* element, std::size_t* from, Match matches) noexcept {
    if (element == nullptr) {
        return Node();
    }
    for (std::size_t i = from != nullptr ? *from : 0; i < element->children.size(); ++i) {
        if (matches(*element->children[i])) {
            if (from != nullptr) {
                *from = i;
            }
            return Node(element->children[i]);
        }
    }
    return Node();
}

} // namespace

bool EqualsIgnoreCase(std::string_view a, std::string_view b) noexcept {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (LowerAscii(a[i]) != LowerAscii(b[i])) {
            return false;
        }
    }
    return true;
}

Node CreateDocument(std::string_view rootName) {
    return Node(std::make_shared<Element>(rootName));
}

const char* Node::Name() const noexcept {
    return element_ ? element_->name.c_str() : nullptr;
}

const char* Node::Text() const noexcept {
    return element_ && !element_->text.empty() ? element_->text.c_str() : nullptr;
}

const char* Node::Attribute(std::string_view name) const noexcept {
    if (!element_) {
        return nullptr;
    }
    for (const NameValue& attribute : element_->attributes) {
        if (attribute.name == name) {
            return attribute.value.c_str();
        }
    }
    return nullptr;
}

std::size_t Node::AttributeCount() const noexcept {
    return element_ ? element_->attributes.size() : 0;
}

const char* Node::AttributeNameAt(std::size_t position) const noexcept {
    if (position >= AttributeCount()) {
        return nullptr;
    }
    return element_->attributes[position].name.c_str();
}

const char* Node::AttributeValueAt(std::size_t position) const noexcept {
    if (position >= AttributeCount()) {
        return nullptr;
    }
    return element_->attributes[position].value.c_str();
}

std::size_t Node::ChildCount() const noexcept {
    return element_ ? element_->children.size() : 0;
}

std::size_t Node::ChildCount(std::string_view name) const noexcept {
    std::size_t count = 0;
    for (std::size_t i = 0; i < ChildCount(); ++i) {
        count += element_->children[i]->name == name ? 1 : 0;
    }
    return count;
}

Node Node::ChildAt(std::size_t position) const noexcept {
    if (position >= ChildCount()) {
        return Node();
    }
    return Node(element_->children[position]);
}

Node Node::Child(std::string_view name, std::size_t index) const noexcept {
    std::size_t seen = 0;
    return FindFrom(element_.get(), nullptr,
                    [&](const Element& child) { return child.name == name && seen++ == index; });
}

Node Node::FindChild(std::string_view name, std::size_t* from) const noexcept {
    return FindFrom(element_.get(), from, [&](const Element& child) { return child.name == name; });
}

Node Node::FindChildIgnoreCase(std::string_view name, std::size_t* from) const noexcept {
    return FindFrom(element_.get(), from,
                    [&](const Element& child) { return EqualsIgnoreCase(child.name, name); });
}

Node Node::ChildWithAttribute(std::string_view name, std::string_view attribute,
                              std::string_view value) const noexcept {
    return FindFrom(element_.get(), nullptr, [&](const Element& child) {
        if (child.name != name) {
            return false;
        }
        for (const NameValue& candidate : child.attributes) {
            if (candidate.name == attribute) {
                return candidate.value == value;
            }
        }
        return false;
    });
}

Node Node::Parent() const noexcept {
    if (!element_ || element_->parent == nullptr) {
        return Node();
    }
    return Node(element_->parent->shared_from_this());
}

Node Node::AppendChild(std::string_view name) {
    if (!element_) {
        return Node();
    }
    auto child = std::make_shared<Element>(name);
    element_->Append(child);
    return Node(std::move(child));
}

bool Node::SetText(std::string_view text) {
    if (!element_) {
        return false;
    }
    element_->text.assign(text);
    return true;
}

bool Node::SetAttribute(std::string_view name, std::string_view value) {
    if (!element_) {
        return false;
    }
    for (NameValue& attribute : element_->attributes) {
        if (attribute.name == name) {
            attribute.value.assign(value);
            return true;
        }
    }
    element_->attributes.push_back(NameValue{std::string(name), std::string(value)});
    return true;
}

bool Node::Remove() noexcept {
    if (!element_ || element_->parent == nullptr) {
        return false;
    }
    element_->parent->RemoveChildAt(element_->position);
    return true;
}

} // namespace QOB::Xml
