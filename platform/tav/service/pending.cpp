#include "service/pending.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <set>
#include <utility>

#include "service/path.h"

namespace tav {

namespace {

using std::chrono::milliseconds;

constexpr std::string_view row_name = "pending ";

void sort_by_path(std::vector<ChangedElement> &changes) {
    std::sort(changes.begin(), changes.end(),
              [](const auto &left, const auto &right) { return left.path < right.path; });
}

bool less_path(const ChangedElement &change, std::string_view path) {
    return change.path < path;
}

// The first change whose path is not before the given one.
auto first_from(const Pending &pending, std::string_view path) {
    return std::lower_bound(pending.change.changes.begin(), pending.change.changes.end(), path,
                            less_path);
}

Change::ValuePtr row_of(const PendingPtr &pending) {
    return Change::ValuePtr(pending, &pending->row);
}

} // namespace

PendingPtr make_pending(const std::string &entry, const Term &term, std::int64_t wall_clock) {
    auto made = std::make_shared<Pending>();
    Reader in(entry);
    get(in, made->change);
    sort_by_path(made->change.changes);
    made->term = term.length;
    made->until = wall_clock + term.length;
    made->due = term.now + milliseconds(term.length);
    Writer out;
    out.i64(made->until);
    out.u32(made->term);
    out.bytes(entry);
    made->row = Value{element_type_string, out.finish().substr(length_bytes), no_time};
    return made;
}

PendingPtr read_pending(std::string_view path, const Value &row) {
    auto found = std::make_shared<Pending>();
    Reader in(row.text);
    found->until = in.i64();
    found->term = in.u32();
    get(in, found->change);
    if (!in.finished() || path != pending_path(found->change.number)) {
        return nullptr;
    }
    sort_by_path(found->change.changes);
    found->row = row;
    return found;
}

PendingPtr resumed(const Pending &stored, Time now, std::int64_t wall_clock) {
    auto later = std::make_shared<Pending>(stored);
    const std::int64_t whole = stored.term;
    const std::int64_t left =
        stored.until <= wall_clock ? 0 : std::min(stored.until - wall_clock, whole);
    later->due = now + milliseconds(left);
    return later;
}

std::string pending_path(std::uint64_t number) {
    return std::string(row_name) + std::to_string(number);
}

bool is_pending_path(std::string_view path) {
    return path.substr(0, row_name.size()) == row_name;
}

std::uint64_t pending_number(std::string_view path) {
    std::uint64_t number = 0;
    std::from_chars(path.data() + row_name.size(), path.data() + path.size(), number);
    return number;
}

Change begins(const PendingPtr &pending) {
    return Change{pending_path(pending->change.number), nullptr, row_of(pending)};
}

Change ends(const PendingPtr &pending) {
    return Change{pending_path(pending->change.number), row_of(pending), nullptr};
}

bool touches(const Pending &pending, std::string_view path) {
    const auto end = pending.change.changes.end();
    for (std::string_view at = path; at != "/"; at = parent_path(at)) {
        const auto found = first_from(pending, at);
        if (found != end && found->path == at) {
            return true;
        }
    }
    const auto below = first_from(pending, std::string(path) + '/');
    return below != end && is_at_or_below(below->path, path);
}

std::vector<Item> steps_to_revert(const Pending &pending, const Tree &tree) {
    std::vector<Item> items;
    std::set<std::string_view> cleared;
    const auto clear = [&](std::string_view path) {
        if (cleared.insert(path).second) {
            items.push_back(Item{ItemKind::clear, std::string(path), {}});
        }
    };
    for (const ChangedElement &change : pending.change.changes) {
        const Element *const now = tree.find(change.path);
        const bool node = change.existed && change.before.type == element_type_node;
        if (now != nullptr && (!change.existed || now->is_node() != node)) {
            clear(change.path);
        }
        if (!change.existed) {
            continue;
        }
        // A leaf may have come where one of the nodes above was.
        for (std::string_view above = parent_path(change.path); above != "/";
             above = parent_path(above)) {
            const Element *const there = tree.find(above);
            if (there != nullptr && !there->is_node()) {
                clear(above);
            }
        }
        items.push_back(Item{node ? ItemKind::make_node : ItemKind::set, change.path,
                             node ? Value() : change.before});
    }
    return items;
}

std::int64_t wall_clock() {
    return std::chrono::duration_cast<milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace tav
