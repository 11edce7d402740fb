// Addresses and routes that the kernel reports, in a dump or by a notification. In normal operation
// each change is written to the store at once; during discovery it is only recorded.

#include <algorithm>
#include <arpa/inet.h>
#include <linux/rtnetlink.h>

#include "shell/log.h"
#include "sync/deletions.h"
#include "sync/node_names.h"
#include "sync/sync.h"

namespace {

constexpr std::size_t address_text_size = 512;

void log_addr(const char *word, const CKernAddress &addr) {
    char text[address_text_size] = {};
    inet_ntop(AF_INET6, &addr.addr, text, sizeof text);
    log_info_at(2, "%s addr [%d]: %s/%u [scope:%s]", word, addr.ifindex, text, addr.prefix_len,
                addr.scope == RT_SCOPE_HOST ? "host" : "link");
}

void log_route(const char *word, const CKernRoute &route) {
    char dst[address_text_size] = {};
    char gateway[address_text_size] = {};
    inet_ntop(AF_INET6, &route.dst, dst, sizeof dst);
    inet_ntop(AF_INET6, &route.gateway, gateway, sizeof gateway);
    log_info_at(2, "%s route [%d]: %s/%u : gw = %s (%u)", word, route.ifindex, dst, route.dst_len,
                gateway, route.protocol);
}

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
        if (log_shows(2)) {
            log_addr(word, addr);
        }
    }
}

void CSync::add_kern_addr(const CKernAddress &addr) {
    ifcfg_t &entry = interfaces.at(addr.ifindex);
    std::vector<CFullAddress> &known = entry.addresses;
    if (is_leaving(entry, addr) &&
        std::any_of(known.begin(), known.end(), [&](const CFullAddress &present) {
            return same_address(present, addr) && present.prefix_len != addr.prefix_len;
        })) {
        return; // sent before the daemon replaced the address with one of another prefix length
    }
    CFullAddress *match = nullptr;
    for (CFullAddress &present : known) {
        if (same_address(present, addr)) {
            present.prefix_len = addr.prefix_len;
            match = &present;
        }
    }
    if (match == nullptr) {
        CFullAddress fresh;
        static_cast<CKernAddress &>(fresh) = addr;
        fresh.node = free_node_name(entry);
        fresh.type = addr.scope == RT_SCOPE_LINK ? type_link_local : type_automatic;
        known.push_back(fresh);
        match = &known.back();
    }
    if (may_write_store(entry)) {
        write_tav_ipv6_addr(entry.iface, *match);
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
        if (log_shows(2)) {
            log_route(word, route);
        }
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
    entry.gateway.emplace();
    static_cast<CKernRoute &>(*entry.gateway) = route;
    entry.gateway_leaving = false;
    if (may_write_store(entry)) {
        write_tav_ipv6_gateway(entry.iface, *entry.gateway);
    }
}
