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
        if (!walk_until(stem + name, *child, visit)) {
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
        const auto child = element->children.find(take_name(path));
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

void Tree::count(const Element &subtree, bool added) {
    walk("/", subtree, [this, added](const std::string &, const Element &element) {
        std::size_t &number = element.is_node() ? nodes : leaves;
        added ? ++number : --number;
        return true;
    });
}

} // namespace tav
