#include "sync/deletions.h"

void delete_from_kern(CNetlink &netlink, ifcfg_t &entry, const CKernAddress &addr) {
    netlink.modify_addr(addr, false);
    ++entry.deletions[addr].unanswered;
}

void add_to_kern(CNetlink &netlink, ifcfg_t &entry, const CKernAddress &addr) {
    netlink.modify_addr(addr, true);
    const auto sent = entry.deletions.find(addr);
    if (sent != entry.deletions.end()) {
        sent->second.added_again = sent->second.unanswered;
    }
}

bool is_leaving(const ifcfg_t &entry, const CAddress &addr) {
    const auto sent = entry.deletions.find(addr);
    return sent != entry.deletions.end() && sent->second.added_again < sent->second.unanswered;
}

bool settle_deletion(ifcfg_t &entry, const CAddress &addr) {
    const auto sent = entry.deletions.find(addr);
    if (sent == entry.deletions.end()) {
        return false;
    }
    deletions_t &count = sent->second;
    const bool added_again = count.added_again > 0;
    if (added_again) {
        --count.added_again;
    }
    if (--count.unanswered == 0) {
        entry.deletions.erase(sent);
    }
    return added_again;
}
