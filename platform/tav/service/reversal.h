// The reverting of a waiting change, a part at a time.
#pragma once

#include <cstdint>
#include <string>

#include "service/store.h"

namespace tav {

class Reversal {
public:
    // `reverted` waits in `changed`, which must outlive this object. Meanwhile nothing else may be
    // in preparation.
    Reversal(Store &changed, PendingPtr reverted);
    Reversal(const Reversal &) = delete;
    Reversal &operator=(const Reversal &) = delete;

    const PendingPtr &change() const { return pending; }
    // What it builds on was not stored: it must begin again.
    bool outdated() const { return refusals != store.refusals(); }
    // Does a part that takes well under a millisecond. True when it is complete, and in the group
    // that forms. Throws std::runtime_error with the status if it would exceed a limit of the tree;
    // may throw std::bad_alloc. In both cases, it has no effect.
    bool advance(const Author &author);

private:
    Store &store;
    const PendingPtr pending;
    const std::string steps;
    const std::uint64_t refusals; // of the store when it began
    EventLog::Staged staged;
    Transaction transaction;
};

} // namespace tav
