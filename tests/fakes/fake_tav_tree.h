// The tree of the fake store client: named nodes and leaves with elements, listed in the order of
// their creation. Paths begin with "/".
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <tav/mlr.h>
#include <tav/toolkit.h>

namespace fake_tav {

struct element_t {
    tk_string name;
    bool is_node = true;
    toolkit::CElement value;
    std::vector<std::unique_ptr<element_t>> children;

    element_t *child(const tk_string &wanted) const;
};

class tree_t {
public:
    // Null when there is nothing at the path.
    element_t *find(const tk_string &path);
    // Creates a node with its parents; null if a leaf is in the way.
    element_t *make(const tk_string &path);
    // False if a node with children, or a leaf above it, is in the way.
    bool make_leaf(const tk_string &path, const toolkit::CElement &value);
    // Changes `value` only if the result is api_status_ok.
    api_status_t read_leaf(const tk_string &path, toolkit::CElement &value);
    api_status_t remove(const tk_string &path);
    // Every leaf as "<path> = <text>" and every node without children as "<path>/".
    std::vector<std::string> dump() const;

private:
    element_t root;
};

} // namespace fake_tav
