// Changes that are reverted unless they are confirmed in time.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "protocol/history.h"
#include "service/edit.h"
#include "service/wake.h"

namespace tav {

// One such change; shared, and never changed except for `retry`.
struct Pending {
    HistoryEntry change;    // with all values, in the bytewise order of the paths
    std::uint32_t term = 0; // milliseconds
    std::int64_t until = 0; // the end of the term, in milliseconds since 1970
    Time due;               // the same by the service's clock
    Value row;              // as it is stored
    mutable Time retry{};   // not reverted before: the last attempt failed, or is being committed
};
using PendingPtr = std::shared_ptr<const Pending>;
using PendingChanges = std::map<std::uint64_t, PendingPtr>; // by number

// A client's request that its change be reverted unless it is confirmed.
struct Term {
    std::uint32_t length = 0; // milliseconds; 0: there is none
    Time now;
};

// `entry`: the change as the history has it, with all values.
PendingPtr make_pending(const std::string &entry, const Term &term, std::int64_t wall_clock);
// Reads a row of pending_path() when the service starts. Null if it is not such a row.
PendingPtr read_pending(std::string_view path, const Value &row);
// The same change for a service that starts now, with the time that is left by the wall clock. That
// is never more than the whole term, even if the wall clock was set back.
PendingPtr resumed(const Pending &stored, Time now, std::int64_t wall_clock);

// The path of its row in the database; no element has such a path.
std::string pending_path(std::uint64_t number);
bool is_pending_path(std::string_view path);
std::uint64_t pending_number(std::string_view path);
// The change of the database when a transaction begins it, and when one ends it.
Change begins(const PendingPtr &pending);
Change ends(const PendingPtr &pending);

// Whether the change changed the element at this path, or one above or below it.
bool touches(const Pending &pending, std::string_view path);
// Steps that restore the elements of the change in `tree`: those that existed get their old values,
// and those that did not are removed.
std::vector<Item> steps_to_revert(const Pending &pending, const Tree &tree);

// In milliseconds since 1970.
std::int64_t wall_clock();

} // namespace tav
