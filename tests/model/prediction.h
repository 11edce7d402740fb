// What has to come of a burst. The operations are carried out on models of kernel, store and
// daemon, in many of the orders in which the daemon may have heard of them; where all of them agree
// the outcome is determined.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "daemon_model.h"
#include "operations.h"

namespace model {

// An operation as it really went.
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
    // Slots of which the store does not show what the daemon holds, when the state was taken over.
    std::set<int> unseen;
    // Slots whose link's own link-local address was declared Static: the daemon's table may then
    // hold it twice, and hold one of the two for ever.
    std::set<int> doubled;
    // Those for which a restart in this burst has ended that: what came of it before is unknown.
    std::set<int> doubled_before;
    bool order_unseen = false; // in which order the daemon holds its addresses
};

// Carries out a user's operation on the store.
void apply_to_store(StoreModel &store, const Operation &operation);

// One line per item: "kernel eth0 2001:db8::1" -> "/64", and so on.
using Outcome = std::map<std::string, std::string>;
Outcome describe(const KernelModel &kernel, const StoreModel &store);

struct Prediction {
    Outcome determined;             // what is absent everywhere is not in it
    std::set<std::string> doubtful; // items for which the orders differ
    std::set<std::string> open; // beginnings of items of which nothing is foreseen, absence neither
    bool hidden = false;        // the orders differ in what the daemon remembers
    bool impossible = false;    // the kernel's answers fit none of the orders tried
    State state;                // of the first order
};

Prediction predict(const State &start, Pace pace, const std::vector<Done> &burst,
                   std::uint32_t seed);

// The state that stands behind a quiet world. `before` gives what cannot be seen: the names under
// which the daemon knows the links.
State adopt(const State &before, const KernelModel &kernel, const StoreModel &store);

} // namespace model
