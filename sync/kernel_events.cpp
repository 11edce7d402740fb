// Addresses and routes that the kernel reports, by a dump or on its own. During discovery they only
// fill the table; in normal operation each change is written to the store at once.

#include <arpa/inet.h>
#include <linux/rtnetlink.h>

#include "shell/log.h"
#include "sync/sync.h"

namespace {

constexpr std::size_t address_text_size = 512;

} // namespace

void CSync::nl_addr_update(int type, const std::vector<CKernAddress> &addrs) {
    for (const CKernAddress &addr : addrs) {
        if (interfaces.count(addr.ifindex) == 0) {
            log_info_at(3, "%s: Ignoring event on unknown interface '%d'",
                        "void CSync::nl_addr_update(int, const std::vector<CKernAddress>&)",
                        addr.ifindex);
            continue;
        }
        const char *word = nullptr;
        if (type == RTM_NEWADDR) {
            add_kern_addr(addr);
            word = "ADDING";
        } else if (type == RTM_DELADDR) {
            remove_kern_addr_from_tav(addr);
            word = "REMOVING";
        } else {
            continue;
        }
        char text[address_text_size] = {};
        inet_ntop(AF_INET6, &addr.addr, text, sizeof text);
        log_info_at(2, "%s addr [%d]: %s/%u [scope:%s]", word, addr.ifindex, text, addr.prefix_len,
                    addr.scope == RT_SCOPE_HOST ? "host" : "link");
    }
}

void CSync::add_kern_addr(const CKernAddress &addr) {
    ifcfg_t &entry = interfaces.at(addr.ifindex);
    // Announced before the daemon replaced it by one of another prefix length.
    const bool outdated = is_leaving(entry, addr);
    CFullAddress *match = nullptr;
    for (CFullAddress &known : entry.addresses) {
        if (same_address(known, addr)) {
            if (outdated && known.prefix_len != addr.prefix_len) {
                return;
            }
            known.prefix_len = addr.prefix_len;
            match = &known;
        }
    }
    if (match != nullptr) {
        if (may_write_store(entry)) {
            write_tav_ipv6_addr(entry.iface, *match);
        }
        return;
    }

    CFullAddress fresh;
    fresh.ifindex = addr.ifindex;
    fresh.scope = addr.scope;
    fresh.addr = addr.addr;
    fresh.prefix_len = addr.prefix_len;
    fresh.node = free_node_name(entry);
    fresh.type = addr.scope == RT_SCOPE_LINK ? type_link_local : type_automatic;
    if (may_write_store(entry)) {
        avoid_unlisted_node(entry, fresh);
    }
    entry.addresses.push_back(fresh);
    if (may_write_store(entry)) {
        write_tav_ipv6_addr(entry.iface, fresh);
    }
}

void CSync::nl_route_update(int type, const std::vector<CKernRoute> &routes) {
    for (const CKernRoute &route : routes) {
        if (interfaces.count(route.ifindex) == 0) {
            log_info_at(3, "%s: Ignoring event on unknown interface '%d'",
                        "void CSync::nl_route_update(int, const std::vector<CKernRoute>&)",
                        route.ifindex);
            continue;
        }
        const char *word = nullptr;
        if (type == RTM_NEWROUTE) {
            add_kern_route(route);
            word = "ADDING";
        } else if (type == RTM_DELROUTE) {
            remove_kern_route_from_tav(route);
            word = "REMOVING";
        } else {
            continue;
        }
        char dst[address_text_size] = {};
        char gateway[address_text_size] = {};
        inet_ntop(AF_INET6, &route.dst, dst, sizeof dst);
        inet_ntop(AF_INET6, &route.gateway, gateway, sizeof gateway);
        log_info_at(2, "%s route [%d]: %s/%u : gw = %s (%u)", word, route.ifindex, dst,
                    route.dst_len, gateway, route.protocol);
    }
}

void CSync::add_kern_route(const CKernRoute &route) {
    if (!has_gateway(route)) {
        log_info_at(4, "Skipping route with no gateway...");
        return;
    }
    if (!is_default_route(route)) {
        log_info_at(4, "Skipping non-default gateway route...");
        return;
    }
    if (route.protocol != RTPROT_STATIC) {
        log_info_at(4, "Skipping non-STATIC gateway...");
        return;
    }
    ifcfg_t &entry = interfaces.at(route.ifindex);
    if (entry.gateway) {
        if (same_gateway(*entry.gateway, route)) {
            log_info_at(4, "Skipping already-configured gateway...");
            return;
        }
        // The newest wins; the kernel would keep both.
        log_info_at(1, "Replaced exising static route with a new one - removing old route");
        netlink->modify_route(*entry.gateway, false);
    }
    CFullRoute adopted;
    adopted.ifindex = route.ifindex;
    adopted.protocol = route.protocol;
    adopted.dst = route.dst;
    adopted.dst_len = route.dst_len;
    adopted.gateway = route.gateway;
    entry.gateway = adopted;
    entry.gateway_leaving = false;
    if (may_write_store(entry)) {
        write_tav_ipv6_gateway(entry.iface, adopted);
    }
}
