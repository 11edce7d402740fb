#include "service/store.h"

#include <algorithm>
#include <ctime>
#include <unordered_set>

#include "protocol/limits.h"

namespace tav {

namespace {

std::vector<Event> events_of(const std::vector<Change> &changes) {
    std::vector<Event> events;
    for (const Change &change : changes) {
        if (change.leaf_set()) {
            events.push_back(Event{mlr_event_set, change.path});
        } else if (change.leaf_removed()) {
            events.push_back(Event{mlr_event_removed, change.path});
        }
    }
    return events;
}

// Applies the items until one is refused; then none of the call's items is done.
bool apply_all(Edit &edit, const std::vector<Item> &items, std::vector<api_status_t> &statuses) {
    for (std::size_t i = 0; i < items.size(); ++i) {
        const api_status_t status = edit.apply(items[i]);
        if (status != api_status_ok) {
            statuses.assign(items.size(), api_status_not_done);
            statuses[i] = status;
            return false;
        }
    }
    return true;
}

// Finds the items that would change one of the `stale` leaves, or create one of the `stale` nodes.
std::vector<api_status_t> stale_statuses(const std::vector<Item> &items,
                                         const std::unordered_set<std::string> &stale) {
    std::vector<api_status_t> statuses(items.size(), api_status_not_done);
    for (std::size_t i = 0; i < items.size(); ++i) {
        const Item &item = items[i];
        const bool removes = item.kind != ItemKind::set && item.kind != ItemKind::make_node;
        const auto concerns = [&item, removes](const std::string &path) {
            return removes ? is_at_or_below(path, item.path) : is_at_or_below(item.path, path);
        };
        if (item.kind != ItemKind::touch && std::any_of(stale.begin(), stale.end(), concerns)) {
            statuses[i] = api_status_stale;
        }
    }
    return statuses;
}

} // namespace

Store::Store(const Nodes &initial_nodes) : storage(std::make_unique<NoStorage>()) {
    for (const std::string &path : initial_nodes) {
        transact({Item{ItemKind::make_node, path, {}}}, [](const std::string &) { return false; });
    }
}

Store::Store(std::unique_ptr<Storage> other) : storage(std::move(other)) {}

Store::Store(const std::string &file, Durability durability, const Nodes &initial_nodes)
    : storage(std::make_unique<Database>(file, durability, initial_nodes, content)) {
    walk("/", content.root(), [this](const std::string &path, const Element &element) {
        measure(path, element.value, element.children.size());
        return true;
    });
}

// `children`: of the node at `path`, or of the one above that has a new child.
void Store::measure(std::string_view path, const Value &value, std::size_t children) {
    const std::size_t name_bytes = path.size() - path.rfind('/') - 1;
    const auto depth = static_cast<std::size_t>(std::count(path.begin(), path.end(), '/'));
    extents.path_bytes = std::max(extents.path_bytes, path.size());
    extents.depth = std::max(extents.depth, path == "/" ? 0 : depth);
    extents.name_bytes = std::max(extents.name_bytes, name_bytes);
    extents.value_bytes = std::max(extents.value_bytes, value.text.size());
    extents.children = std::max(extents.children, children);
}

Outcome Store::transact(const std::vector<Item> &items,
                        const std::function<bool(const std::string &)> &unseen) {
    Outcome outcome;
    outcome.statuses.assign(items.size(), api_status_ok);
    Edit edit(content, std::time(nullptr));
    if (!apply_all(edit, items, outcome.statuses)) {
        return outcome;
    }
    const std::vector<Change> changes = edit.changes();

    std::unordered_set<std::string> stale;
    for (const Change &change : changes) {
        const bool of_leaf = change.leaf_set() || change.leaf_removed();
        // The writer may assume that the node still exists with everything below it.
        const bool makes_node = !change.before && change.after && !of_leaf;
        if ((makes_node || (of_leaf && change.real())) && unseen(change.path)) {
            stale.insert(change.path);
        }
    }
    if (!stale.empty()) {
        outcome.statuses = stale_statuses(items, stale);
        return outcome;
    }

    // A write that changes nothing must not reach the disk: clients write the same values again and
    // again, and flash memory wears out.
    const bool changed_something = std::any_of(
        changes.begin(), changes.end(), [](const Change &change) { return change.stored(); });
    // Created before the commit, because nothing may fail after it.
    std::vector<Event> events = events_of(changes);
    if (changed_something) {
        if (!storage->commit(changes)) {
            outcome.statuses.assign(items.size(), api_status_failed);
            return outcome;
        }
        ++changed;
    }
    edit.keep();
    for (const Change &change : changes) {
        if (change.after && change.real()) {
            measure(change.path, *change.after,
                    change.before ? 0 : content.find(parent_path(change.path))->children.size());
        }
    }
    outcome.events = std::move(events);
    return outcome;
}

api_status_t Store::read(std::string_view path, const Value *&value) const {
    value = nullptr;
    const api_status_t status = check_path(path);
    if (status != api_status_ok) {
        return status;
    }
    const Element *element = content.find(path);
    if (element == nullptr) {
        return api_status_absent;
    }
    if (element->is_node()) {
        return api_status_wrong_kind;
    }
    value = &element->value;
    return api_status_ok;
}

api_status_t Store::list(const std::string &path, std::vector<Child> &children) const {
    const api_status_t status = check_path(path);
    if (status != api_status_ok) {
        return status;
    }
    const Element *element = content.find(path);
    if (element == nullptr) {
        return api_status_absent;
    }
    if (!element->is_node()) {
        return api_status_wrong_kind;
    }
    for (const auto &[name, child] : element->children) {
        children.push_back(Child{name.text(), child->value.type});
    }
    return api_status_ok;
}

void Store::dump(const DumpRequest &request, DumpPage &page) const {
    page.revision = changed;
    page.status = check_path(request.path);
    if (page.status != api_status_ok) {
        return;
    }
    const Element *start = content.find(request.path);
    if (start == nullptr) {
        page.status = api_status_absent;
        return;
    }
    std::uint64_t skip = request.offset;
    std::size_t bytes = 0;
    walk(request.path, *start, [&](const std::string &path, const Element &element) {
        if (skip > 0) {
            --skip;
            return true;
        }
        if (bytes >= limits::dump_page_bytes) {
            page.more = true;
            return false;
        }
        page.elements.push_back(DumpElement{path, element.value});
        bytes += path.size() + element.value.text.size();
        return true;
    });
}

} // namespace tav
