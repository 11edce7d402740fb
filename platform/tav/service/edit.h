// One transaction on the tree: each step is applied at once, so that later steps see it, and all of
// it is undone unless keep() is called.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "service/tree.h"

namespace tav {

// The net change of one path by a transaction. An absent element has no value; a node has one of
// type node.
struct Change {
    std::string path;
    std::optional<Value> before;
    std::optional<Value> after;
    bool touched = false; // an event is wanted even if the content does not change

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
    // `now`: the time stamp of values without one, in seconds since 1970.
    Edit(Tree &edited, std::int64_t current_time) : tree(edited), now(current_time) {}
    // Undoes everything, in reverse order, unless kept.
    ~Edit();
    Edit(const Edit &) = delete;
    Edit &operator=(const Edit &) = delete;

    // One step, the path and value unchecked so far. Any result except api_status_ok means that the
    // step had no effect, except that parents may have been created: the caller must then drop the
    // whole edit.
    api_status_t apply(const Item &item);

    // The differences so far, in the order in which the paths were last changed or touched; paths
    // with unchanged content are included only if touched.
    std::vector<Change> changes() const;

    void keep() { kept = true; }

private:
    struct Undo {
        std::string path;
        std::optional<Value> value;       // the leaf had this value; otherwise:
        std::unique_ptr<Element> subtree; // this was removed, or, if null, the element was created
    };
    struct Trace {
        std::optional<Value> before;
        const Element *after = nullptr; // null: it is absent now
        std::uint64_t order = 0;
        bool touched = false;
    };

    api_status_t set(const std::string &path, const Value &value);
    api_status_t make_node(std::string_view path, Element *&node);
    api_status_t remove(const std::string &path, bool node_only);
    api_status_t remove_single(const std::string &path);
    api_status_t clear(const std::string &path);
    api_status_t touch(const std::string &path);
    api_status_t create(Element &parent, std::string_view path, Value value, Element *&created);
    Trace &trace(const std::string &path, const std::optional<Value> &before, const Element *after);
    Element *parent_of(std::string_view path, std::string &name);

    Tree &tree;
    std::int64_t now;
    std::vector<Undo> undo;
    std::unordered_map<std::string, Trace> traces;
    std::uint64_t steps = 0;
    bool kept = false;
};

} // namespace tav
