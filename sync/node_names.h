// Which store interface a link has, and the names of the address nodes that the daemon creates.
//
// A node is written and removed under the name that it has in the store. At start, the table names
// its addresses in the kernel's order, before the store has been read. Each synchronisation
// therefore adopts the stored names, and gives the other entries names that the store does not
// list. A name counts as taken even if its element is a leaf or cannot be read.
#pragma once

#include <vector>

#include "sync/model.h"

// Sets the store number to 0, and forgets the listing, of two kinds of links:
// - a link without an interface in the snapshot. A write under its old number would create the node
//   again.
// - a link with the same name as an earlier one in bucket order (an entry keeps the first name that
//   it got). It would write to the other link's node.
void forget_absent_store_interfaces(ifcfg_map_t &interfaces, const tavcfg_map_t &snapshot);

// The smallest number that neither the table nor the store's listing has as a name.
tk_string free_node_name(const ifcfg_t &entry);

// Gives a free name to each address that no stored one matches and whose name the store lists.
// `matched` has an item for each address of the entry; further ones do not matter.
void rename_unmatched(ifcfg_t &entry, const std::vector<bool> &matched);
