#include "service/edit.h"

#include <map>

#include "protocol/limits.h"
#include "service/garbage.h"
#include "service/value_check.h"

namespace tav {

namespace {

bool is_leaf(const Change::ValuePtr &value) {
    return value && value->type != element_type_node;
}

Change::ValuePtr value_of(const Element *element) {
    return element == nullptr ? nullptr
                              : Change::ValuePtr(element->content, &element->content->value);
}

} // namespace

bool Change::real() const {
    if (!before || !after) {
        return before != after;
    }
    return !same_content(*before, *after);
}

bool Change::stored() const {
    return real() || (before && before->time != after->time);
}

bool Change::leaf_set() const {
    return is_leaf(after) && (touched || real());
}

bool Change::leaf_removed() const {
    return is_leaf(before) && !is_leaf(after);
}

Edit::~Edit() {
    garbage::add(by_path);
    garbage::add(list);
    garbage::add(same);
}

api_status_t Edit::apply(const Item &item) {
    api_status_t status = api_status_none;
    while (!advance(item, status)) {
    }
    return status;
}

bool Edit::advance(const Item &item, api_status_t &status) {
    const bool complete = walker ? visit(item, status) : start(item, status);
    if (bytes > most_bytes) {
        status = api_status_too_large;
        return true;
    }
    return complete;
}

bool Edit::start(const Item &item, api_status_t &status) {
    status = check_path(item.path);
    if (status != api_status_ok) {
        return true;
    }
    switch (item.kind) {
    case ItemKind::set:
        status = set(item.path, item.value);
        break;
    case ItemKind::make_node:
        status = make_nodes(item.path);
        break;
    case ItemKind::remove_node:
    case ItemKind::remove:
    case ItemKind::remove_single:
    case ItemKind::clear:
    case ItemKind::touch:
        status = walk_for(item);
        break;
    case ItemKind::require:
    case ItemKind::require_absent:
        status = holds(item) ? api_status_ok : api_status_changed;
        break;
    default:
        status = api_status_refused;
    }
    if (by_path.front().count(item.path) == 0) {
        examined.insert(item.path);
    }
    return !walker;
}

bool Edit::depends_on(std::string_view path) const {
    for (;; path = parent_path(path)) {
        if (by_path.front().count(path) > 0 || examined.count(std::string(path)) > 0) {
            return true;
        }
        if (path == "/") {
            return false;
        }
    }
}

std::optional<Tree> Edit::with(const Changes &earlier) const {
    std::map<std::string_view, const Change *> sorted; // parents first
    for (const Change &change : earlier) {
        if (change.stored()) {
            sorted.emplace(change.path, &change);
        }
    }
    Tree tree = edited;
    for (auto entry = sorted.rbegin(); entry != sorted.rend(); ++entry) {
        const auto &[path, change] = *entry;
        const Element *const element = tree.find(path);
        // A node may have got another child here.
        if (depends_on(path) || (element != nullptr) != (change->before != nullptr) ||
            (element != nullptr && element->children)) {
            return std::nullopt;
        }
        if (element != nullptr) {
            Extent one;
            one.add(*element->content);
            tree.remove(path, one);
        }
    }
    for (const auto &[path, change] : sorted) {
        if (!change->after) {
            continue;
        }
        const Element *const parent = tree.find(parent_path(path));
        if (parent == nullptr || !parent->is_node() ||
            parent->child_count >= limits::children_per_node ||
            tree.extent().elements() >= limits::elements) {
            return std::nullopt;
        }
        tree.add(path, *change->after);
    }
    return tree;
}

// Records that `path` changes now; the first time it also records the content before the
// transaction.
Change &Edit::trace(const std::string &path, const Element *before, const Element *after) {
    ByPath &known_paths = by_path.front();
    const auto known = known_paths.find(path);
    if (known != known_paths.end()) {
        list.splice(list.end(), list, known->second);
    } else {
        constexpr std::size_t around = 2 * sizeof(Change) + 12 * sizeof(void *); // containers
        bytes += around + 2 * path.size();
        list.push_back(Change{path, value_of(before), nullptr, false});
        known_paths.emplace(list.back().path, std::prev(list.end()));
    }
    list.back().after = value_of(after);
    return list.back();
}

// Adds an element at a path where there is nothing, below an existing node.
api_status_t Edit::create(std::string_view path, Value value) {
    if (edited.find(parent_path(path))->child_count >= limits::children_per_node) {
        return api_status_too_many_children;
    }
    if (edited.extent().elements() >= limits::elements) {
        return api_status_too_many_elements;
    }
    const Element &added = edited.add(path, std::move(value));
    trace(std::string(path), nullptr, &added);
    return api_status_ok;
}

// Creates the missing nodes down to `path`.
api_status_t Edit::make_nodes(std::string_view path) {
    const Element *element = edited.find(path);
    if (element != nullptr) {
        return element->is_node() ? api_status_ok : api_status_wrong_kind;
    }
    const api_status_t status = make_nodes(parent_path(path));
    return status != api_status_ok ? status : create(path, Value{element_type_node, {}, no_time});
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
    const Element *element = edited.find(path);
    if (element == nullptr) {
        const api_status_t status = make_nodes(parent_path(path));
        return status != api_status_ok ? status : create(path, std::move(stamped));
    }
    if (element->is_node()) {
        return api_status_wrong_kind;
    }
    // A time stamp given by the writer is stored even if the content does not change; the store's
    // own time stamp changes only with the content.
    const bool other_time = value.time != no_time && value.time != element->value().time;
    if (other_time || !same_content(element->value(), value)) {
        Change &change = trace(path, element, element);
        change.after = value_of(&edited.replace(path, std::move(stamped)));
    }
    return api_status_ok;
}

bool Edit::holds(const Item &condition) const {
    const Element *element = edited.find(condition.path);
    if (condition.kind == ItemKind::require_absent || element == nullptr) {
        return condition.kind == ItemKind::require_absent && element == nullptr;
    }
    const bool same_time =
        condition.value.time == no_time || condition.value.time == element->value().time;
    return same_time && same_content(element->value(), condition.value);
}

// Checks a step that concerns everything at and below its path, and starts the walk through it.
api_status_t Edit::walk_for(const Item &item) {
    const Element *element = edited.find(item.path);
    const bool whole_tree = item.path == "/";
    if (element == nullptr) {
        return item.kind == ItemKind::clear ? api_status_ok : api_status_absent;
    }
    if (whole_tree && item.kind != ItemKind::touch && item.kind != ItemKind::clear) {
        return api_status_refused;
    }
    if (item.kind == ItemKind::remove_node && !element->is_node()) {
        return api_status_wrong_kind;
    }
    if (item.kind == ItemKind::remove_single && element->children) {
        return api_status_not_empty;
    }
    walker.emplace(element, edited, item.path);
    found = {};
    return api_status_ok;
}

bool Edit::visit(const Item &item, api_status_t &status) {
    constexpr int at_once = 256;
    const bool touches = item.kind == ItemKind::touch;
    for (int i = 0; i < at_once; ++i) {
        if (!walker->next()) {
            if (!touches) {
                item.path == "/" ? edited.clear() : edited.remove(item.path, found);
            }
            walker.reset();
            return true;
        }
        const Element &element = walker->element();
        if (visits_left-- == 0) {
            status = api_status_too_large;
            return true;
        }
        found.add(*element.content);
        if (touches && !element.is_node()) {
            trace(walker->path(), &element, &element).touched = true;
        } else if (!touches && walker->path() != "/") {
            trace(walker->path(), &element, nullptr);
        }
    }
    return false;
}

} // namespace tav
