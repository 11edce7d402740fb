// Both views side by side, and why they differ.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "ctl/kernel_view.h"
#include "ctl/store_view.h"

namespace ctl {

enum class mark_t {
    both,        // the same in both views
    kernel_only, // not in the store
    store_only,  // not in the kernel
    differ,      // in both, but not the same
    unusable,    // stored, but skipped by the daemon, or a duplicate that the kernel does not use
    left_alone,  // in the kernel, and ignored by the daemon by design
    half_known   // in the kernel; the store did not answer
};

// One address, or one gateway, on each side.
struct address_row_t {
    mark_t mark = mark_t::both;
    std::optional<kernel_address_t> kernel;
    std::optional<stored_address_t> stored;
};
struct gateway_row_t {
    mark_t mark = mark_t::both;
    std::optional<kernel_route_t> kernel;
    std::optional<stored_gateway_t> stored;
};

struct interface_view_t {
    std::string link;                     // its name in the kernel
    std::optional<kernel_link_t> kernel;  // empty: there is no such link
    long number = 0;                      // of the interface node; 0: the link cannot have one
    bool has_node = false;                // the interface node exists
    bool store_known = true;              // false: the store did not answer
    bool tracked = false;                 // the daemon manages the link
    std::vector<address_row_t> addresses; // the kernel's order, then the store's
    std::vector<gateway_row_t> gateways;
    std::vector<finding_t> findings;
};

struct comparison_t {
    std::vector<interface_view_t> interfaces; // the kernel's links in its order, then the others
    std::vector<finding_t> findings;          // those of the store as a whole

    const interface_view_t *find(const std::string &link) const;
};

// `prefix`: the prefix of the names of the links that the daemon manages.
comparison_t compare(const kernel_view_t &kernel, const store_view_t &store,
                     const std::string &prefix);

} // namespace ctl
