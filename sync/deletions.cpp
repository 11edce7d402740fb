// Addresses whose deletion was asked for. The kernel reports it later, perhaps when the address has
// been added again, and then it must not be taken for the end of the new one: a user's node would
// go with it.

#include <algorithm>

#include "sync/sync.h"

namespace {

bool is_of(const deletion_t &deletion, const CAddress &addr) {
    return same_address(deletion.addr, addr) && deletion.addr.prefix_len == addr.prefix_len;
}

} // namespace

void CSync::delete_from_kern(ifcfg_t &entry, const CKernAddress &addr) {
    netlink->modify_addr(addr, false);
    entry.deletions.push_back({addr, false});
}

void CSync::add_to_kern(ifcfg_t &entry, const CKernAddress &addr) {
    netlink->modify_addr(addr, true);
    for (deletion_t &deletion : entry.deletions) {
        deletion.undone = deletion.undone || is_of(deletion, addr);
    }
}

// The kernel may still announce an address that is about to go.
bool CSync::is_leaving(const ifcfg_t &entry, const CAddress &addr) {
    return std::any_of(
        entry.deletions.begin(), entry.deletions.end(),
        [&](const deletion_t &deletion) { return !deletion.undone && is_of(deletion, addr); });
}

// To be asked once for each deletion that the kernel reports or refuses: it settles the oldest that
// was asked for. Returns whether the address has been added again since.
bool CSync::settle_deletion(ifcfg_t &entry, const CAddress &addr) {
    const auto found =
        std::find_if(entry.deletions.begin(), entry.deletions.end(),
                     [&](const deletion_t &deletion) { return is_of(deletion, addr); });
    if (found == entry.deletions.end()) {
        return false;
    }
    const bool undone = found->undone;
    entry.deletions.erase(found);
    return undone;
}
