// Changing the store.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "ctl/tool.h"

namespace ctl {

// The number of the interface node of the link on the command line; refuses a link that cannot
// have one.
long number_of(const options_t &options);

// Refuses a link to which the daemon cannot carry a setting; returns the kernel's.
const kernel_link_t &require_link(const kernel_view_t &kernel, const options_t &options);

// The smallest number from 1 on that is not taken as a name.
std::string free_number(const std::set<std::string> &taken);

// A change of the store: the leaves are written, then the nodes are removed. It is one transaction
// if the store has such.
struct step_t {
    std::vector<std::pair<std::string, std::string>> leaves; // path, text
    std::vector<std::string> removals;                       // paths
    bool in_parts = false; // as one transaction it would change nothing
};

// What the store refused.
struct outcome_t {
    std::string refused_path; // empty: everything was done
    int status = 0;
};

// Reads the store, calls `decide` for the change to make, and makes it. If the store refuses, for
// example because another client was faster, all of this is repeated a few times. `decide` may
// therefore be called more than once, each time with the current content of the store. With
// options.term it must be confirmed, and is one transaction even if it is in parts. With
// options.dry_run only prints what would change, and returns false. Throws store_lost, and refusal
// if the store keeps refusing.
bool carry_out(client_t &client, const options_t &options,
               const std::function<step_t(const store_view_t &)> &decide);

// Adds the two leaves of one address to a step.
void put_address(step_t &step, const std::string &node_path, const CAddress &address);

// The path of the node "Addresses" of an interface node.
std::string addresses_path(long interface);

// Creates the node of an interface, and makes the daemon notice it. The client interface cannot
// create an empty node, so this writes a leaf in it and removes it again.
void make_interface(client_t &client, const options_t &options, long interface);

// Makes the daemon synchronise without changing a setting: touches a stored one, which the store's
// history does not record. If there is none, or with another provider's store, writes a leaf below
// the interface's addresses and removes it again.
void nudge_daemon(client_t &client, const options_t &options, long interface);

} // namespace ctl
