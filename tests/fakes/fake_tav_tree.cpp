#include "fakes/fake_tav_tree.h"

#include <algorithm>

namespace fake_tav {
namespace {

using toolkit::CElement;

std::vector<tk_string> names_of(const tk_string &path) {
    std::vector<tk_string> names;
    std::size_t at = 1;
    while (at <= path.size()) {
        const std::size_t end = std::min(path.find('/', at), path.size());
        names.push_back(path.substr(at, end - at));
        at = end + 1;
    }
    return names;
}

void dump_below(const element_t &element, const tk_string &path, std::vector<std::string> &lines) {
    if (!element.is_node) {
        lines.push_back(path + " = " + element.value.to_string());
        return;
    }
    if (element.children.empty()) {
        lines.push_back(path + "/");
    }
    for (const auto &child : element.children) {
        dump_below(*child, path + "/" + child->name, lines);
    }
}

} // namespace

element_t *element_t::child(const tk_string &wanted) const {
    for (const auto &one : children) {
        if (one->name == wanted) {
            return one.get();
        }
    }
    return nullptr;
}

element_t *tree_t::find(const tk_string &path) {
    element_t *at = &root;
    for (const auto &name : names_of(path)) {
        at = at->child(name);
        if (at == nullptr) {
            return nullptr;
        }
    }
    return at;
}

element_t *tree_t::make(const tk_string &path) {
    element_t *at = &root;
    for (const auto &name : names_of(path)) {
        if (!at->is_node) {
            return nullptr;
        }
        element_t *next = at->child(name);
        if (next == nullptr) {
            at->children.push_back(std::make_unique<element_t>());
            next = at->children.back().get();
            next->name = name;
        }
        at = next;
    }
    return at;
}

bool tree_t::make_leaf(const tk_string &path, const CElement &value) {
    element_t *leaf = make(path);
    if (leaf == nullptr || !leaf->children.empty()) {
        return false;
    }
    leaf->is_node = false;
    leaf->value = value;
    return true;
}

api_status_t tree_t::read_leaf(const tk_string &path, CElement &value) {
    const element_t *leaf = find(path);
    if (leaf == nullptr) {
        return api_status_absent;
    }
    if (leaf->is_node) {
        return api_status_wrong_kind;
    }
    value = leaf->value;
    return api_status_ok;
}

api_status_t tree_t::remove(const tk_string &path) {
    element_t *parent = &root;
    const auto names = names_of(path);
    for (std::size_t i = 0; i + 1 < names.size(); ++i) {
        parent = parent->child(names[i]);
        if (parent == nullptr) {
            return api_status_absent;
        }
    }
    auto &siblings = parent->children;
    const auto it = std::find_if(siblings.begin(), siblings.end(),
                                 [&names](const auto &one) { return one->name == names.back(); });
    if (it == siblings.end()) {
        return api_status_absent;
    }
    siblings.erase(it);
    return api_status_ok;
}

std::vector<std::string> tree_t::dump() const {
    std::vector<std::string> lines;
    dump_below(root, "", lines);
    return lines;
}

} // namespace fake_tav
