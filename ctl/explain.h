// Finds the reason for each difference between the views.
#pragma once

#include "ctl/compare.h"

namespace ctl {

// Faults of the store that concern no single link.
void explain_store(const store_view_t &store, const kernel_view_t &kernel,
                   const std::string &prefix, std::vector<finding_t> &findings);

// Fills the findings of a view whose rows are complete. `nodes`: the store's nodes for this link.
void explain_interface(interface_view_t &view, const std::vector<const stored_interface_t *> &nodes,
                       const kernel_view_t &kernel, const std::string &prefix);

} // namespace ctl
