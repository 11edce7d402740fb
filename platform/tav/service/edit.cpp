#include "service/edit.h"

#include <algorithm>
#include <utility>

#include "protocol/limits.h"
#include "service/value_check.h"

namespace tav {

namespace {

bool is_leaf(const std::optional<Value> &value) {
    return value.has_value() && value->type != element_type_node;
}

} // namespace

bool Change::real() const {
    if (before.has_value() != after.has_value()) {
        return true;
    }
    return before.has_value() && !same_content(*before, *after);
}

bool Change::stored() const {
    return real() || (before.has_value() && before->time != after->time);
}

bool Change::leaf_set() const {
    return is_leaf(after) && (touched || real());
}

bool Change::leaf_removed() const {
    return is_leaf(before) && !is_leaf(after);
}

Edit::~Edit() {
    if (kept) {
        return;
    }
    for (auto step = undo.rbegin(); step != undo.rend(); ++step) {
        if (step->value) {
            tree.find_mutable(step->path)->value = std::move(*step->value);
            continue;
        }
        std::string name;
        Element *parent = parent_of(step->path, name);
        if (step->subtree) {
            tree.count(*step->subtree, true);
            parent->children.emplace(PlacedName(name), std::move(step->subtree));
        } else {
            const auto created = parent->children.find(PlacedName(name));
            tree.count(*created->second, false);
            parent->children.erase(created);
        }
    }
}

api_status_t Edit::apply(const Item &item) {
    const api_status_t path_status = check_path(item.path);
    if (path_status != api_status_ok) {
        return path_status;
    }
    switch (item.kind) {
    case ItemKind::set:
        return set(item.path, item.value);
    case ItemKind::make_node: {
        Element *node = nullptr;
        return make_node(item.path, node);
    }
    case ItemKind::remove_node:
        return remove(item.path, true);
    case ItemKind::remove:
        return remove(item.path, false);
    case ItemKind::touch:
        return touch(item.path);
    case ItemKind::remove_single:
        return remove_single(item.path);
    case ItemKind::clear:
        return clear(item.path);
    }
    return api_status_refused;
}

// Records that `path` changes now; the first time it also records the content before the
// transaction.
Edit::Trace &Edit::trace(const std::string &path, const std::optional<Value> &before,
                         const Element *after) {
    const auto [entry, first] = traces.try_emplace(path);
    if (first) {
        entry->second.before = before;
    }
    entry->second.after = after;
    entry->second.order = ++steps;
    return entry->second;
}

Element *Edit::parent_of(std::string_view path, std::string &name) {
    name = path.substr(path.rfind('/') + 1);
    return tree.find_mutable(parent_path(path));
}

// Adds an element at a path where there is nothing; `parent` is the node above.
api_status_t Edit::create(Element &parent, std::string_view path, Value value, Element *&created) {
    if (parent.children.size() >= limits::children_per_node) {
        return api_status_too_many_children;
    }
    if (tree.elements() >= limits::elements) {
        return api_status_too_many_elements;
    }
    auto element = std::make_unique<Element>();
    element->value = std::move(value);
    const std::string key(path);
    created = element.get();
    trace(key, std::nullopt, created);
    undo.push_back(Undo{key, std::nullopt, nullptr});
    tree.count(*element, true);
    parent.children.emplace(PlacedName(path.substr(path.rfind('/') + 1)), std::move(element));
    return api_status_ok;
}

// Creates the missing nodes down to `path`; `node` is then the one at `path`.
api_status_t Edit::make_node(std::string_view path, Element *&node) {
    node = &tree.top;
    for (std::string_view rest = path; rest.size() > 1;) { // of the root only the "/"
        const std::string_view name = take_name(rest);
        const auto child = node->children.find(PlacedName(name));
        if (child == node->children.end()) {
            const std::string_view prefix = path.substr(0, path.size() - rest.size());
            const api_status_t status =
                create(*node, prefix, Value{element_type_node, {}, no_time}, node);
            if (status != api_status_ok) {
                return status;
            }
            continue;
        }
        if (!child->second->is_node()) {
            return api_status_wrong_kind;
        }
        node = child->second.get();
    }
    return api_status_ok;
}

api_status_t Edit::set(const std::string &path, const Value &value) {
    const api_status_t value_status = check_value(value);
    if (value_status != api_status_ok) {
        return value_status;
    }
    Value stamped = value;
    if (stamped.time == no_time) {
        stamped.time = now;
    }
    Element *element = tree.find_mutable(path);
    if (element == nullptr) {
        Element *parent = nullptr;
        const api_status_t status = make_node(parent_path(path), parent);
        return status == api_status_ok ? create(*parent, path, std::move(stamped), element)
                                       : status;
    }
    if (element->is_node()) {
        return api_status_wrong_kind;
    }
    // A time stamp given by the writer is stored even if the content does not change; the store's
    // own time stamp changes only with the content.
    const bool other_time = value.time != no_time && value.time != element->value.time;
    if (other_time || !same_content(element->value, value)) {
        trace(path, element->value, element);
        undo.push_back(Undo{path, element->value, nullptr});
        element->value = std::move(stamped);
    }
    return api_status_ok;
}

api_status_t Edit::remove(const std::string &path, bool node_only) {
    if (path == "/") {
        return api_status_refused;
    }
    const Element *element = tree.find(path);
    if (element == nullptr) {
        return api_status_absent;
    }
    if (node_only && !element->is_node()) {
        return api_status_wrong_kind;
    }
    walk(path, *element, [this](const std::string &below, const Element &gone) {
        trace(below, gone.value, nullptr);
        return true;
    });
    std::string name;
    Element *parent = parent_of(path, name);
    const auto child = parent->children.find(PlacedName(name));
    tree.count(*child->second, false);
    undo.push_back(Undo{path, std::nullopt, std::move(child->second)});
    parent->children.erase(child);
    return api_status_ok;
}

api_status_t Edit::remove_single(const std::string &path) {
    const Element *element = tree.find(path);
    if (path != "/" && element != nullptr && !element->children.empty()) {
        return api_status_not_empty;
    }
    return remove(path, false);
}

api_status_t Edit::clear(const std::string &path) {
    const Element *element = tree.find(path);
    if (element == nullptr) {
        return api_status_ok;
    }
    if (path != "/") {
        return remove(path, false);
    }
    while (!element->children.empty()) {
        remove("/" + element->children.begin()->first.text(), false);
    }
    return api_status_ok;
}

api_status_t Edit::touch(const std::string &path) {
    const Element *element = tree.find(path);
    if (element == nullptr) {
        return api_status_absent;
    }
    walk(path, *element, [this](const std::string &below, const Element &found) {
        if (!found.is_node()) {
            trace(below, found.value, &found).touched = true;
        }
        return true;
    });
    return api_status_ok;
}

std::vector<Change> Edit::changes() const {
    std::vector<std::pair<std::uint64_t, Change>> ordered;
    for (const auto &[path, traced] : traces) {
        Change change{path, traced.before, std::nullopt, traced.touched};
        if (traced.after != nullptr) {
            change.after = traced.after->value;
        }
        if (change.stored() || change.touched) {
            ordered.emplace_back(traced.order, std::move(change));
        }
    }
    std::sort(ordered.begin(), ordered.end(),
              [](const auto &left, const auto &right) { return left.first < right.first; });
    std::vector<Change> result;
    result.reserve(ordered.size());
    for (auto &[order, change] : ordered) {
        result.push_back(std::move(change));
    }
    return result;
}

} // namespace tav
