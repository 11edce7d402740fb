// One transaction on a tree. Each step is applied at once to a private copy, where later steps see
// it. Dropping the edit undoes all of it.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "protocol/limits.h"
#include "service/tree.h"

namespace tav {

struct Record;

// The net change of one path by a transaction. A null value means that the element is absent; a
// node has a value of type node.
struct Change {
    using ValuePtr = std::shared_ptr<const Value>;

    std::string path;
    ValuePtr before;
    ValuePtr after;
    bool touched = false; // an event is wanted even if the content does not change
    // Set only in a transaction's last change: its history record, if a history is kept.
    std::shared_ptr<const Record> record = nullptr;

    // The element appears, disappears or has other content.
    bool real() const;
    // Whether the stored data differs: besides the above, a leaf that was removed and written again
    // with equal content has another time stamp.
    bool stored() const;
    // Whether the change sets, or removes, a leaf; each causes an event.
    bool leaf_set() const;
    bool leaf_removed() const;
};

class Edit {
public:
    // In the order in which the paths were last changed or touched.
    using Changes = std::list<Change>;
    using ByPath = std::unordered_map<std::string_view, Changes::iterator>; // keys are in the list

    // `current_time`: the time stamp of values without one, in seconds since 1970.
    // The steps together may remove and touch at most limits::paths_per_request elements more than
    // `base` has, because a short request could otherwise cause unlimited work. The recorded
    // changes may use at most limits::change_bytes more than `base`, because they contain full
    // paths.
    Edit(const Tree &base, std::int64_t current_time)
        : edited(base), now(current_time), by_path(1),
          visits_left(base.extent().elements() + limits::paths_per_request),
          most_bytes(base.extent().bytes + limits::change_bytes) {}
    ~Edit();
    Edit(const Edit &) = delete;
    Edit &operator=(const Edit &) = delete;

    // Does part of one step, in well under a millisecond; returns true when the step is complete.
    // Checks path and value itself. After any status except api_status_ok, or an exception, the
    // whole edit must be dropped.
    bool advance(const Item &item, api_status_t &status);
    // The whole step.
    api_status_t apply(const Item &item);

    const Tree &tree() const { return edited; }
    // All changes, including some that restored the old content. They must outlive the edit.
    Changes &changes() { return list; }
    // Removes a change that changes nothing.
    void set_aside(Changes::const_iterator change) noexcept {
        same.splice(same.end(), list, change);
    }

    // tree() with the changes of another transaction, which precedes this one. Empty if those
    // changes could have affected a step of this edit.
    std::optional<Tree> with(const Changes &earlier) const;
    void go_on_from(Tree tree) noexcept { edited = std::move(tree); }

private:
    bool start(const Item &item, api_status_t &status);
    api_status_t set(const std::string &path, const Value &value);
    api_status_t make_nodes(std::string_view path);
    api_status_t create(std::string_view path, Value value);
    bool holds(const Item &condition) const;
    api_status_t walk_for(const Item &item);
    bool visit(const Item &item, api_status_t &status);
    Change &trace(const std::string &path, const Element *before, const Element *after);
    bool depends_on(std::string_view path) const;

    Tree edited;
    std::int64_t now;
    Changes list;
    Changes same;              // changes that change nothing
    std::list<ByPath> by_path; // always one element: a list can be handed to garbage::add
    // Paths that steps read but did not change.
    std::unordered_set<std::string> examined;
    std::size_t visits_left; // of elements to remove or touch
    std::size_t most_bytes;
    std::size_t bytes = 0; // of `list`, and of the events that are made from it
    // For a step that takes several calls.
    std::optional<Walker> walker;
    Extent found;
};

} // namespace tav
