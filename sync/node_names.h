// Which store interface a link has, and the names of the address nodes that the daemon creates.
//
// A node is written and removed under the name that it has in the store. The table names an address
// before the store is known (at start, in the kernel's order), so a synchronisation adopts the
// stored names, and gives the other entries names that the store does not list. A name counts as
// taken even if its element is a leaf or cannot be read.
#pragma once

#include <vector>

#include "sync/model.h"

// Sets the store number to 0, and forgets the listing, of each link that has no interface in the
// snapshot, and of each but the first, in bucket order, of the links with one name (an entry keeps
// the name of its first sight). Written under its old number, the former would create the node
// again, and the latter would write to the other link's node.
void forget_absent_store_interfaces(ifcfg_map_t &interfaces, const tavcfg_map_t &snapshot);

// The smallest number that neither the table nor the store's listing has as a name.
tk_string free_node_name(const ifcfg_t &entry);

// Gives a free name to each address that no stored one matches and whose name the store lists.
// `matched` has one item for each address of the entry.
void rename_unmatched(ifcfg_t &entry, const std::vector<bool> &matched);
