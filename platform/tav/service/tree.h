// The tree of settings in memory.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "protocol/messages.h"
#include "service/path.h"

namespace tav {

// A node (value.type element_type_node, children) or a leaf (any other type, no children).
struct Element {
    using Children = std::map<Name, std::unique_ptr<Element>, NameLess>;

    Value value;
    Children children;

    bool is_node() const { return value.type == element_type_node; }
};

// The same type and text. The time stamp is not part of the content: it is the time of the last
// change of the content.
bool same_content(const Value &left, const Value &right);

// Calls `visit` with the path of `element` and of everything below it, parents first, in the order
// of listings, until it returns false. `path` is that of `element`.
void walk(const std::string &path, const Element &element,
          const std::function<bool(const std::string &, const Element &)> &visit);

// Only an Edit changes elements; it also updates the counts.
class Tree {
public:
    // Creates a tree with only the root.
    Tree();

    const Element &root() const { return top; }
    // Null if there is nothing at `path`, which must be a path that check_path accepts.
    const Element *find(std::string_view path) const;
    // Nodes and leaves, the root included.
    std::size_t elements() const { return nodes + leaves; }
    std::size_t node_count() const { return nodes; }
    std::size_t leaf_count() const { return leaves; }

private:
    friend class Edit;

    Element *find_mutable(std::string_view path);
    void count(const Element &subtree, bool added);

    Element top;
    std::size_t nodes = 1;
    std::size_t leaves = 0;
};

} // namespace tav
