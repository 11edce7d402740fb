// The expected result of a burst. The operations are carried out on models of kernel, store and
// daemon, in many of the orders in which the daemon may have been notified; where all orders agree,
// the result is determined.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "daemon_model.h"
#include "operations.h"

namespace model {

// An operation with its real result.
struct Done {
    Operation operation;
    int answer = 0; // the kernel's, an errno value; negative: there was nothing to do it on
    int index = 0;  // of a link that was created
};

struct State {
    KernelModel kernel;
    StoreModel store;
    DaemonModel daemon;
    bool store_up = true;
    // Slots for which the store did not show the daemon's entry when the state was adopted.
    std::set<int> unseen;
    // Slots whose link's own link-local address was declared Static: the daemon's table may then
    // have it twice, and keep one of the two for ever.
    std::set<int> doubled;
    // Slots for which a restart in this burst has ended that: the effects before the restart are
    // unknown.
    std::set<int> doubled_before;
    bool order_unseen = false; // the order of the addresses in the daemon's table
};

// Carries out a user's operation on the store.
void apply_to_store(StoreModel &store, const Operation &operation);

// One line per item: "kernel eth0 2001:db8::1" -> "/64", and so on.
using Outcome = std::map<std::string, std::string>;
Outcome describe(const KernelModel &kernel, const StoreModel &store);

struct Prediction {
    Outcome determined;             // without items that are absent everywhere
    std::set<std::string> doubtful; // items for which the orders differ
    std::set<std::string>
        open;                // prefixes of items about which nothing is predicted, not even absence
    bool hidden = false;     // the orders differ in the daemon's state
    bool impossible = false; // the kernel's answers fit none of the orders tried
    State state;             // of the first order
};

Prediction predict(const State &start, Pace pace, const std::vector<Done> &burst,
                   std::uint32_t seed);

// The state of a quiet world. `before` supplies what cannot be seen: the names of the links in the
// daemon's table.
State adopt(const State &before, const KernelModel &kernel, const StoreModel &store);

} // namespace model
