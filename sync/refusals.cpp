// What the kernel refused of the daemon's own requests. The requests are recorded as done when they
// are sent; here the table is put right, so that the next synchronisation adds again what was
// refused. A deletion is not asked for again: what it was of is no longer in the table.

#include <algorithm>
#include <cerrno>
#include <linux/rtnetlink.h>

#include "shell/log.h"
#include "sync/sync.h"

void CSync::handle_refusal(const unsigned char *buffer, int length) {
    const boost::optional<refusal_t> refusal = decode_refusal(buffer, length);
    if (!refusal) {
        return;
    }
    if (refusal->request == RTM_NEWROUTE || refusal->request == RTM_DELROUTE) {
        route_refused(*refusal);
    } else if (refusal->request == RTM_NEWADDR) {
        addr_refused(*refusal);
    } else if (refusal->request == RTM_DELADDR) {
        const auto found = interfaces.find(refusal->addr.ifindex);
        if (found != interfaces.end()) {
            settle_deletion(found->second, refusal->addr); // no other report will come
        }
    }
}

void CSync::route_refused(const refusal_t &refusal) {
    CKernRoute route = refusal.route;
    const auto found = interfaces.find(route.ifindex);
    if (found == interfaces.end()) {
        return;
    }
    ifcfg_t &entry = found->second;
    const tk_string gateway = in6addr_to_str(route.gateway, 0, false);
    if (refusal.request == RTM_NEWROUTE && refusal.error != EEXIST) {
        log_info_at(2, "Kernel refused route via '%s' on interface %d: error %d", gateway.c_str(),
                    route.ifindex, refusal.error);
        // A gateway recorded since then is not the refused one; and of one whose deletion was asked
        // for since then, the deletion's own answer takes the stored gateway away as well.
        if (entry.gateway && same_gateway(*entry.gateway, route) && !entry.gateway_leaving) {
            entry.gateway = boost::none;
        }
    } else if (refusal.request == RTM_DELROUTE && refusal.error == ESRCH) {
        log_info_at(2, "Kernel has no route via '%s' on interface %d to remove", gateway.c_str(),
                    route.ifindex);
        // The request names no protocol; the daemon deletes static routes only.
        route.protocol = RTPROT_STATIC;
        remove_kern_route_from_tav(route);
    }
}

void CSync::addr_refused(const refusal_t &refusal) {
    const CKernAddress &addr = refusal.addr;
    const auto found = interfaces.find(addr.ifindex);
    if (found == interfaces.end() || refusal.error == EEXIST) {
        return;
    }
    log_info_at(2, "Kernel refused address '%s' on interface %d: error %d",
                in6addr_to_str(addr.addr, addr.prefix_len, true).c_str(), addr.ifindex,
                refusal.error);
    std::vector<CFullAddress> &known = found->second.addresses;
    known.erase(std::remove_if(known.begin(), known.end(),
                               [&](const CFullAddress &entry) {
                                   return entry.type == type_static && same_address(entry, addr) &&
                                          entry.prefix_len == addr.prefix_len;
                               }),
                known.end());
}
