// The store: the tree, its storage, and what is being written.
//
// One transaction at a time is carried out, on a tree that nobody else sees. Completed transactions
// form a group, which is committed as a whole; only then do readers see its changes. While a group
// is being committed, the next one builds on it. If the commit fails, the next group is dropped,
// too.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/limits.h"
#include "service/database.h"
#include "service/event_log.h"
#include "service/history.h"
#include "service/pending.h"
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
    // An empty store that commits its changes to `other`.
    explicit Store(std::unique_ptr<Storage> other);

    // What readers see.
    const Tree &tree() const { return committed; }
    const Sizes &largest() const { return sizes; }
    EventLog &events() { return log; }
    const EventLog &events() const { return log; }
    // There is no history before keep_history(), which must be called before the first write.
    const HistoryLog &history() const { return past; }
    void keep_history(const HistoryBounds &bounds);
    // Continues the terms of the changes that waited when the service ended. Must be called before
    // the first write.
    void resume_terms(Time now, std::int64_t wall_clock);
    // The changes that wait for confirmation: as readers see them, and as they will be after the
    // commit of the group being assembled.
    const PendingChanges &pending() const { return *committed_pending; }
    const PendingChanges &pending_next() const { return *forming.pending; }
    // Whether a waiting change forbids the author to change the element at `path`. `with_term`: the
    // new change has to be confirmed, too; then any waiting change of the element forbids it.
    bool holds(std::string_view path, const Author &author, bool with_term) const;
    // Called before readers see `after` instead of `before`; must not throw.
    using Reveal = std::function<void(const Tree &before, const Tree &after)>;
    Reveal before_reveal;
    // See Storage::promise().
    const char *durability() const { return storage->promise(); }
    // Increases with each group that changes something.
    std::uint64_t revision() const { return changed; }
    // Memory that the tree may use. Beyond it only steps that make the tree smaller are possible.
    std::size_t byte_limit = limits::store_bytes;

    // Carries out a whole transaction at once, as that session and author, and commits it. Nothing
    // else may be in preparation.
    std::vector<api_status_t> transact(const std::vector<Item> &items,
                                       const Transaction::Unseen &unseen, SessionId session = 0,
                                       Time now = {}, const Author &author = {});

    // The outcome of a group, shared by those who wait for it.
    struct Result {
        bool known = false;
        bool stored = false;
    };
    // The waiting change that a transaction begins, and the one that it ends; both may be null.
    struct Step {
        PendingPtr begins;
        PendingPtr ends;
    };
    // The tree on which the next transaction works. Only one may be at work at a time.
    const Tree &group_tree() const { return forming.tree; }
    // Increases each time the commit of that tree fails; a transaction that began with it must then
    // begin again.
    std::uint64_t refusals() const { return refused; }
    // Adds a completed transaction and its events to the group being assembled. May throw
    // std::bad_alloc, and then has no effect.
    std::shared_ptr<const Result> join(Transaction &done, EventLog::Staged &staged,
                                       const Author &author, const Step &step = {});
    // Makes a completed transaction into a change that waits for confirmation. Returns null if its
    // values take more than limits::pending_bytes.
    PendingPtr prepare(Transaction &done, const Author &author, const Term &term) const;
    // Confirms the change, as part of the group being assembled: it no longer waits, and its values
    // stay. May throw like join().
    std::shared_ptr<const Result> keep(const PendingPtr &pending);
    // Whether a group is being assembled.
    bool has_group() const { return forming.result != nullptr; }
    // Whether the next transaction must wait for the next group. With a slow storage a group would
    // otherwise grow with the number of clients; and it takes long to join when both a transaction
    // and the group have many events.
    bool group_is_full() const {
        constexpr std::size_t many_events = 4096;
        return forming.changes.size() >= limits::paths_per_request || log.staged() >= many_events;
    }
    bool committing() const { return at_storage.result != nullptr; }
    // Closes the assembled group, if there is one and none is being committed. The storage must
    // commit what is returned, unless it is empty; it is valid until finish().
    const Edit::Changes &close_group() noexcept;
    // Publishes the closed group if the storage has committed it; otherwise drops it and the one
    // being assembled.
    void finish(bool stored, Time now) noexcept;
    // Closes and commits the group, however long that takes, and publishes or drops it.
    void commit(Time now);
    Storage &permanent() { return *storage; }

private:
    using SharedPending = std::shared_ptr<const PendingChanges>; // never null
    struct Group {
        Tree tree;
        SharedPending pending = std::make_shared<const PendingChanges>();
        Edit::Changes changes;
        Records records;
        Sizes sizes;
        std::shared_ptr<Result> result; // null: there is no group

        void end(bool stored) noexcept;
    };

    void open_group();
    SharedPending after(const Step &step, Edit::Changes &rows) const;

    Tree committed;
    SharedPending committed_pending = std::make_shared<const PendingChanges>();
    std::unique_ptr<Storage> storage;
    std::uint64_t changed = 0;
    std::uint64_t refused = 0;
    Sizes sizes;
    EventLog log;
    HistoryLog past;
    Group at_storage; // closed, and being committed
    Group forming;
};

} // namespace tav
