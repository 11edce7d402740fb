// The daemon's own deletions of addresses, from the request until the kernel reports or refuses it.
//
// The kernel reports a deletion later, perhaps when the table has the same address again. If that
// report were mistaken for the end of the new address, it would remove a user's node. Each function
// takes time logarithmic in the number of unanswered deletions. Erasing the entry forgets them.
#pragma once

#include "netlink/channel.h"
#include "sync/model.h"

// Ask the kernel to delete or add the address (netlink_err) and remember it in the entry.
void delete_from_kern(CNetlink &netlink, ifcfg_t &entry, const CKernAddress &addr);
void add_to_kern(CNetlink &netlink, ifcfg_t &entry, const CKernAddress &addr);

// Whether the kernel is about to delete this address with this prefix length. Until then it may
// still announce it.
bool is_leaving(const ifcfg_t &entry, const CAddress &addr);

// Called once for each deletion that the kernel reports or refuses; removes the oldest request.
// Returns whether the address was added again after that request.
bool settle_deletion(ifcfg_t &entry, const CAddress &addr);
