#include "service/transaction.h"

#include <algorithm>
#include <utility>

#include "protocol/limits.h"

namespace tav {

namespace {

std::size_t work_on(std::string_view text) {
    return text.size() >> 10;
}

} // namespace

void Sizes::note(std::string_view path, const Value &value) {
    const std::size_t name = path.size() - path.rfind('/') - 1;
    const auto names = static_cast<std::size_t>(std::count(path.begin(), path.end(), '/'));
    path_bytes = std::max(path_bytes, path.size());
    depth = std::max(depth, path == "/" ? 0 : names);
    name_bytes = std::max(name_bytes, name);
    value_bytes = std::max(value_bytes, value.text.size());
}

void Sizes::note(std::string_view path, const Element &element) {
    note(path, element.value());
    children = std::max<std::size_t>(children, element.child_count);
}

void Sizes::raise(const Sizes &other) {
    path_bytes = std::max(path_bytes, other.path_bytes);
    depth = std::max(depth, other.depth);
    name_bytes = std::max(name_bytes, other.name_bytes);
    value_bytes = std::max(value_bytes, other.value_bytes);
    children = std::max(children, other.children);
}

Transaction::Transaction(const Tree &base, std::string_view encoded_items, std::int64_t now,
                         std::size_t most_bytes, Unseen unseen_changes, Emit emit_event,
                         Held held_elements)
    : encoded(encoded_items), in(encoded), number(in.count(1)), edit(base, now),
      byte_limit(most_bytes), unseen(std::move(unseen_changes)), emit(std::move(emit_event)),
      held(std::move(held_elements)), results(number, api_status_ok) {}

void Transaction::deny() {
    results.assign(number, api_status_denied);
    phase = Phase::skipping;
}

// The work of a part is counted in units of a few microseconds: an item, a created level, a KiB to
// copy or compare.
Transaction::State Transaction::advance() {
    constexpr std::size_t at_once = 256;
    work = 0;
    while (work < at_once && state == State::working) {
        ++work;
        switch (phase) {
        case Phase::applying:
            if (at_work || next_item()) {
                apply();
                if (at_work) {
                    return state; // that was a part of its own
                }
            } else if (state == State::working) {
                phase = Phase::examining;
                examined = edit.changes().begin();
            }
            break;
        case Phase::skipping:
            if (!next_item() && state == State::working) {
                state = State::refused;
            }
            break;
        case Phase::examining:
            if (examined != edit.changes().end()) {
                const auto change = examined++;
                examine(*change);
                if (!change->stored()) {
                    edit.set_aside(change);
                }
            } else if (objections.empty()) {
                state = State::complete;
            } else {
                phase = Phase::judging;
                in = Reader(encoded);
                in.u32();
                taken = 0;
            }
            break;
        case Phase::judging:
            if (next_item()) {
                judge();
            } else {
                state = State::refused;
            }
            break;
        }
    }
    return state;
}

std::optional<Tree> Transaction::with(const Edit::Changes &earlier) const {
    std::optional<Tree> tree = edit.with(earlier);
    return tree && tree->extent().bytes <= byte_limit ? tree : std::nullopt;
}

// False at the end of the items, or if they are malformed.
bool Transaction::next_item() {
    if (taken == number) {
        state = in.finished() ? state : State::malformed;
        return false;
    }
    get(in, item);
    if (!in.ok()) {
        state = State::malformed;
        return false;
    }
    ++taken;
    at_work = true;
    work += work_on(item.path) + work_on(item.value.text);
    return true;
}

void Transaction::apply() {
    const std::size_t before = edit.tree().extent().bytes;
    const std::size_t changes = edit.changes().size();
    api_status_t status = api_status_ok;
    at_work = !edit.advance(item, status);
    work += edit.changes().size() - changes;
    const std::size_t after = edit.tree().extent().bytes;
    if (status == api_status_ok && after > byte_limit && after > before) {
        status = api_status_too_many_bytes;
    }
    if (!at_work && status != api_status_ok) {
        refuse(status);
    }
}

// The rest of the items must be well-formed nevertheless.
void Transaction::refuse(api_status_t status) {
    results.assign(number, api_status_not_done);
    results[taken - 1] = status;
    phase = Phase::skipping;
}

void Transaction::examine(const Change &change) {
    constexpr std::ptrdiff_t levels = 8; // which unseen() and held() look up in a unit
    work += 1 + static_cast<std::size_t>(std::count(change.path.begin(), change.path.end(), '/') /
                                         levels);
    work += change.after ? work_on(change.after->text) : 0;
    if (is_stale(change)) {
        objections.emplace(change.path, api_status_stale);
    }
    if (held && change.stored() && held(change.path)) {
        objections.emplace(change.path, api_status_pending);
    }
    if (change.leaf_set()) {
        emit(Event{mlr_event_set, change.path});
    } else if (change.leaf_removed()) {
        emit(Event{mlr_event_removed, change.path});
    }
    if (change.after && change.real()) {
        sizes.note(change.path, *change.after);
    }
    if (change.after && !change.before) {
        const Element &parent = *edit.tree().find(parent_path(change.path));
        sizes.children = std::max<std::size_t>(sizes.children, parent.child_count);
    }
}

bool Transaction::is_stale(const Change &change) {
    constexpr std::size_t events = 32; // that are examined in a unit
    const bool of_leaf = change.leaf_set() || change.leaf_removed();
    // The writer may assume that the node still exists with everything below it.
    const bool makes_node = !change.before && change.after && !of_leaf;
    const bool matters = makes_node || (of_leaf && change.real());
    if (!matters || (!clean.empty() && is_at_or_below(change.path, clean))) {
        return false;
    }
    const Found found = unseen(change.path);
    work += found.examined / events;
    if (makes_node && !found.there) {
        clean = change.path;
    }
    return found.there;
}

// Finds out whether the item would change or create one of the elements that may not be changed.
void Transaction::judge() {
    auto found = objections.end();
    if (item.kind == ItemKind::set || item.kind == ItemKind::make_node) {
        for (std::string_view path = item.path; path != "/" && found == objections.end();
             path = parent_path(path)) {
            found = objections.find(path);
        }
    } else if (item.kind != ItemKind::touch && item.kind != ItemKind::require &&
               item.kind != ItemKind::require_absent) {
        const std::string below = item.path == "/" ? "/" : item.path + "/";
        const auto next = objections.lower_bound(below);
        found = objections.find(item.path);
        if (found == objections.end() && next != objections.end() &&
            is_at_or_below(next->first, item.path)) {
            found = next;
        }
    }
    results[taken - 1] = found != objections.end() ? found->second : api_status_not_done;
}

} // namespace tav
