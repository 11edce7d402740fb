// What the kernel refused of the daemon's own requests. A request is recorded as done when it is
// sent; here the table is corrected, so that the next synchronisation adds again what was refused.
// The refused deletion of an address is not repeated: the table no longer has that address.

#include <algorithm>
#include <cerrno>
#include <linux/rtnetlink.h>

#include "netlink/refusal.h"
#include "shell/log.h"
#include "sync/deletions.h"
#include "sync/sync.h"

namespace {

void route_addition_refused(ifcfg_t &entry, const CKernRoute &route, int error) {
    if (error == EEXIST) {
        return;
    }
    log_info_at(2, "Kernel refused route via '%s' on interface %d: error %d",
                CSync::in6addr_to_str(route.gateway, 0, false).c_str(), route.ifindex, error);
    // If another gateway was recorded since then, it is not the refused one. If a deletion of the
    // gateway was sent since then, the answer to that deletion removes it from table and store.
    if (entry.gateway && same_gateway(*entry.gateway, route) && !entry.gateway_leaving) {
        entry.gateway = boost::none;
    }
}

void addr_addition_refused(ifcfg_t &entry, const CKernAddress &addr, int error) {
    if (error == EEXIST) {
        return;
    }
    log_info_at(2, "Kernel refused address '%s' on interface %d: error %d",
                CSync::in6addr_to_str(addr.addr, addr.prefix_len, true).c_str(), addr.ifindex,
                error);
    std::vector<CFullAddress> &known = entry.addresses;
    known.erase(std::remove_if(known.begin(), known.end(),
                               [&](const CFullAddress &present) {
                                   return present.type == type_static &&
                                          same_address(present, addr) &&
                                          present.prefix_len == addr.prefix_len;
                               }),
                known.end());
}

} // namespace

void CSync::handle_refusal(const wire::datagram_t &datagram) {
    const boost::optional<refusal_t> refusal = decode_refusal(datagram);
    if (!refusal) {
        return;
    }
    const bool of_addr = refusal->request == RTM_NEWADDR || refusal->request == RTM_DELADDR;
    const auto found = interfaces.find(of_addr ? refusal->addr.ifindex : refusal->route.ifindex);
    if (found == interfaces.end()) {
        return;
    }
    ifcfg_t &entry = found->second;
    if (refusal->request == RTM_NEWROUTE) {
        route_addition_refused(entry, refusal->route, refusal->error);
    } else if (refusal->request == RTM_NEWADDR) {
        addr_addition_refused(entry, refusal->addr, refusal->error);
    } else if (refusal->request == RTM_DELADDR) {
        settle_deletion(entry, refusal->addr); // no other report will come
    } else if (refusal->error == ESRCH) {
        CKernRoute route = refusal->route;
        log_info_at(2, "Kernel has no route via '%s' on interface %d to remove",
                    in6addr_to_str(route.gateway, 0, false).c_str(), route.ifindex);
        // The request names no protocol; the daemon deletes static routes only.
        route.protocol = RTPROT_STATIC;
        remove_kern_route_from_tav(route);
    }
}
