// The store: the tree, its storage, and what is being written.
//
// One transaction at a time is carried out, on a tree that nobody else sees. Completed ones form a
// group, which is committed at once; only then do readers see its changes.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/limits.h"
#include "service/database.h"
#include "service/event_log.h"
#include "service/storage.h"
#include "service/transaction.h"

namespace tav {

// The value of a leaf, if the status is ok; it belongs to the tree. Otherwise null.
api_status_t read_leaf(const Tree &tree, std::string_view path, const Value *&value);

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

    // What readers see.
    const Tree &tree() const { return committed; }
    const Sizes &largest() const { return sizes; }
    EventLog &events() { return log; }
    // See Storage::promise().
    const char *durability() const { return storage->promise(); }
    // Increases with each group that changes something.
    std::uint64_t revision() const { return changed; }
    // What the tree may use; a transaction that makes it smaller is possible beyond it, too.
    std::size_t byte_limit = limits::store_bytes;

    // Carries out a whole transaction at once, as the session `author`, and commits it. Nothing
    // else may be in preparation.
    std::vector<api_status_t> transact(const std::vector<Item> &items,
                                       const Transaction::Unseen &unseen, SessionId author = 0,
                                       Time now = {});

    // The outcome of a group, shared by those who wait for it.
    struct Result {
        bool known = false;
        bool stored = false;
    };
    // The group, for a transaction to begin with. Only one may be at work at a time, and none while
    // the group is committed.
    const Tree &group_tree() const { return group.tree; }
    // Adds a completed transaction and its events to the group. May throw std::bad_alloc, and has
    // then no effect.
    std::shared_ptr<const Result> join(Transaction &done, EventLog::Staged &staged);
    bool has_group() const { return group.result != nullptr; }
    // What the storage must commit; empty if nothing has to be stored.
    const Edit::Changes &group_changes() const { return group.changes; }
    // Commits the group, however long that takes, and publishes or drops it.
    void commit(Time now);
    // The storage has committed the group, or has not: publishes or drops it.
    void finish(bool stored, Time now) noexcept;
    Storage &permanent() { return *storage; }

private:
    struct Group {
        Tree tree;
        Edit::Changes changes;
        Sizes sizes;
        std::shared_ptr<Result> result; // null: there is no group
    };

    Tree committed;
    std::unique_ptr<Storage> storage;
    std::uint64_t changed = 0;
    Sizes sizes;
    EventLog log;
    Group group;
};

} // namespace tav
