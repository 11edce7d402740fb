// Where the tree is kept besides memory: the seam between the store and its database.
#ifndef TAV_SERVICE_STORAGE_H
#define TAV_SERVICE_STORAGE_H

#include <vector>

#include "service/edit.h"

namespace tav {

class Storage {
public:
    Storage() = default;
    Storage(const Storage &) = delete;
    Storage &operator=(const Storage &) = delete;
    virtual ~Storage() = default;

    // Makes the changes durable, all or none. False when that failed (logged): nothing was kept.
    virtual bool commit(const std::vector<Change> &changes) = 0;
    // What such a commit promises, in a word for display: "none", "normal" or "full".
    virtual const char *promise() const { return "none"; }
};

// For a store that lives in memory only.
class NoStorage : public Storage {
public:
    bool commit(const std::vector<Change> &) override { return true; }
};

} // namespace tav

#endif
