// Changing the store.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "ctl/tool.h"

namespace ctl {

// What is to be done: the leaves in one transaction, then the removals of nodes.
struct step_t {
    std::vector<std::pair<std::string, std::string>> leaves; // path, text
    std::vector<std::string> removals;                       // paths
};

// Reads the store, lets `decide` say what to do, and does it. When the store refuses, because
// another client was faster or for another reason, all of it is done again, a few times; so
// `decide` may be called more than once, each time with what is stored then. Throws store_lost, and
// refusal when the store keeps refusing.
void carry_out(client_t &client, const options_t &options,
               const std::function<step_t(const store_view_t &)> &decide);

// Adds the two leaves of one address to a step.
void put_address(step_t &step, const std::string &node_path, const CAddress &address);

// The path of the node "Addresses" of a store interface.
std::string addresses_path(long interface);

// Makes the daemon synchronise, without changing anything that it looks at: a leaf that it hears of
// is made below the interface's addresses, and removed again. The address node that it would belong
// to is incomplete, and is skipped. A real change, because a store need not tell of a leaf that is
// written with the text that it has.
void touch_interface(client_t &client, const options_t &options, long interface);

} // namespace ctl
