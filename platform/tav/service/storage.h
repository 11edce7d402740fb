// Permanent storage of the tree: the interface between the store and its database.
#pragma once

#include <vector>

#include "service/history.h"
#include "service/pending.h"

namespace tav {

class Storage {
public:
    Storage() = default;
    Storage(const Storage &) = delete;
    Storage &operator=(const Storage &) = delete;
    virtual ~Storage() = default;

    // Makes the changes durable, all or none. False if that failed (logged): nothing was stored.
    // May be called by another thread than the others, but only by one at a time.
    virtual bool commit(const Edit::Changes &changes) = 0;
    // Whether committing these changes may take long.
    virtual bool is_slow(const Edit::Changes &changes) const {
        static_cast<void>(changes);
        return false;
    }
    // Bounds the stored history before the first commit, and moves it to `records`. The result is
    // the last number ever used.
    virtual std::uint64_t begin_history(const HistoryBounds &bounds, Records &records) {
        static_cast<void>(bounds);
        static_cast<void>(records);
        return 0;
    }
    // The changes that waited for their confirmation when the storage was opened; once.
    virtual std::vector<PendingPtr> take_pending() { return {}; }
    // The durability of a commit, for display: "none", "normal" or "full".
    virtual const char *promise() const { return "none"; }
};

// For a store in memory only.
class NoStorage : public Storage {
public:
    bool commit(const Edit::Changes & /*changes*/) override { return true; }
};

} // namespace tav
