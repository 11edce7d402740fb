// One transaction on a tree: each step is applied at once, so that later steps see it, to a copy
// that nobody else sees. Dropping the edit undoes all of it.
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

// The net change of one path by a transaction. An absent element has no value; a node has one of
// type node.
struct Record;
struct Change {
    using ValuePtr = std::shared_ptr<const Value>;

    std::string path;
    ValuePtr before;
    ValuePtr after;
    bool touched = false; // an event is wanted even if the content does not change
    // Of the last change of a transaction: what to store in the history, if there is one.
    std::shared_ptr<const Record> record = nullptr;

    // The element appears, disappears or has other content.
    bool real() const;
    // Whether the stored data differs: besides the above, a leaf that was removed and written again
    // with equal content has another time stamp.
    bool stored() const;
    // The part of a difference that concerns a leaf; events are made from it.
    bool leaf_set() const;
    bool leaf_removed() const;
};

class Edit {
public:
    // In the order in which the paths were last changed or touched.
    using Changes = std::list<Change>;
    using ByPath = std::unordered_map<std::string_view, Changes::iterator>; // keys are in the list

    // `now`: the time stamp of values without one, in seconds since 1970.
    // The steps together remove and touch at most as many elements as `base` has, and
    // limits::paths_per_request more: otherwise a few bytes could make work without end. What is
    // kept of the changes takes at most limits::change_bytes more than `base`: it contains whole
    // paths, of which there may be many long ones.
    Edit(const Tree &base, std::int64_t current_time)
        : edited(base), now(current_time), by_path(1),
          visits_left(base.extent().elements() + limits::paths_per_request),
          most_bytes(base.extent().bytes + limits::change_bytes) {}
    ~Edit();
    Edit(const Edit &) = delete;
    Edit &operator=(const Edit &) = delete;

    // Does a part of one step that takes well under a millisecond, path and value unchecked so far;
    // true when the step is complete. Any status except api_status_ok then means that the whole
    // edit must be dropped, also after an exception.
    bool advance(const Item &item, api_status_t &status);
    // The whole step.
    api_status_t apply(const Item &item);

    const Tree &tree() const { return edited; }
    // Every path of a changed element; some are as they were before. None may be destroyed before
    // the edit.
    Changes &changes() { return list; }
    // Removes one that is as before.
    void set_aside(Changes::const_iterator change) noexcept {
        same.splice(same.end(), list, change);
    }

    // tree() with the changes of another transaction, which precedes this one. Nothing if these
    // changes might have altered the effect of a step so far.
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
    Changes same;              // set aside
    std::list<ByPath> by_path; // one
    // Paths of steps that depend on what is there, but do not change it.
    std::unordered_set<std::string> examined;
    std::size_t visits_left; // of elements to remove or touch
    std::size_t most_bytes;
    std::size_t bytes = 0; // of `list`, and of the events that are made from it
    // For a step that takes several calls.
    std::optional<Walker> walker;
    Extent found;
};

} // namespace tav
