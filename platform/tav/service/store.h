// The store: the tree, its storage, and the rules of a write.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "service/database.h"
#include "service/edit.h"
#include "service/storage.h"

namespace tav {

// The result of a transaction: one status per item, and the events that it causes, in order. If any
// status is not ok, nothing was changed and there are no events.
struct Outcome {
    std::vector<api_status_t> statuses;
    std::vector<Event> events;
};

// The largest sizes since the start of the service.
struct Extents {
    std::size_t path_bytes = 0;
    std::size_t depth = 0;
    std::size_t name_bytes = 0;
    std::size_t value_bytes = 0;
    std::size_t children = 0; // of one node
};

class Store {
public:
    // Paths of nodes, which check_path accepts.
    using Nodes = std::vector<std::string>;

    // A new store in memory only, with the `initial_nodes`.
    explicit Store(const Nodes &initial_nodes = {});
    // A store in the database `file`, with the `initial_nodes` if it is created now. Throws
    // DatabaseError.
    explicit Store(const std::string &file, Durability durability = Durability::full,
                   const Nodes &initial_nodes = {});
    // An empty store in memory over another storage.
    explicit Store(std::unique_ptr<Storage> other);

    // Performs all items or none. `unseen` says whether the writer has yet to fetch another
    // client's event on a path or on a leaf below it: a transaction that would change such a leaf,
    // or create such a node, is refused as a whole with api_status_stale.
    Outcome transact(const std::vector<Item> &items,
                     const std::function<bool(const std::string &)> &unseen);

    // If the status is ok, `value` points to the leaf's value, which the store owns and which is
    // valid until the next transaction; otherwise it is null.
    api_status_t read(std::string_view path, const Value *&value) const;
    api_status_t list(const std::string &path, std::vector<Child> &children) const;
    void dump(const DumpRequest &request, DumpPage &page) const;

    const Tree &tree() const { return content; }
    const Extents &largest() const { return extents; }
    // See Storage::promise().
    const char *durability() const { return storage->promise(); }
    // Increases with each transaction that changes something.
    std::uint64_t revision() const { return changed; }

private:
    void measure(std::string_view path, const Value &value, std::size_t children);

    Tree content;
    std::unique_ptr<Storage> storage;
    std::uint64_t changed = 0;
    Extents extents;
};

} // namespace tav
