// Permanent storage of the tree: the interface between the store and its database.
#pragma once

#include <vector>

#include "service/edit.h"

namespace tav {

class Storage {
public:
    Storage() = default;
    Storage(const Storage &) = delete;
    Storage &operator=(const Storage &) = delete;
    virtual ~Storage() = default;

    // Makes the changes durable, all or none. False if that failed (logged): nothing was stored.
    virtual bool commit(const std::vector<Change> &changes) = 0;
    // The durability of a commit, for display: "none", "normal" or "full".
    virtual const char *promise() const { return "none"; }
};

// For a store in memory only.
class NoStorage : public Storage {
public:
    bool commit(const std::vector<Change> &) override { return true; }
};

} // namespace tav
