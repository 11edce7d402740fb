#include "service/tree.h"

namespace tav {

bool same_content(const Value &left, const Value &right) {
    return left.type == right.type && left.text == right.text;
}

namespace {

// The depth of the tree is limited, and with it that of the recursion.
bool walk_until(const std::string &path, const Element &element,
                const std::function<bool(const std::string &, const Element &)> &visit) {
    if (!visit(path, element)) {
        return false;
    }
    const std::string stem = path == "/" ? path : path + "/";
    for (const auto &[name, child] : element.children) {
        if (!walk_until(stem + name.text(), *child, visit)) {
            return false;
        }
    }
    return true;
}

} // namespace

void walk(const std::string &path, const Element &element,
          const std::function<bool(const std::string &, const Element &)> &visit) {
    walk_until(path, element, visit);
}

Tree::Tree() {
    top.value.type = element_type_node;
}

const Element *Tree::find(std::string_view path) const {
    const Element *element = &top;
    while (path.size() > 1) { // of the root only the "/"
        const auto child = element->children.find(PlacedName(take_name(path)));
        if (child == element->children.end()) {
            return nullptr;
        }
        element = child->second.get();
    }
    return element;
}

Element *Tree::find_mutable(std::string_view path) {
    return const_cast<Element *>(find(path)); // NOLINT: one search for both
}

// The depth of the tree is limited, and with it that of the recursion.
void Tree::count(const Element &subtree, bool added) {
    std::size_t &number = subtree.is_node() ? nodes : leaves;
    added ? ++number : --number;
    for (const auto &[name, child] : subtree.children) {
        count(*child, added);
    }
}

} // namespace tav
