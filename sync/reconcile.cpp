// Reconciliation: first the store's settings are applied to the kernel, then the kernel's are
// written to the store. The whole run uses one snapshot of the store, even after its own changes to
// the store.

#include <cstring>
#include <linux/rtnetlink.h>
#include <map>
#include <set>
#include <utility>

#include "shell/log.h"
#include "sync/deletions.h"
#include "sync/node_names.h"
#include "sync/sync.h"

namespace {

struct address_less {
    bool operator()(const in6_addr &left, const in6_addr &right) const {
        return std::memcmp(&left, &right, sizeof left) < 0;
    }
};

// Compares one link's known addresses with the stored ones. Records each known address's position
// in the table and whether the store has it.
class address_pass {
public:
    explicit address_pass(ifcfg_t &link) : known(link.addresses) { include_new(false); }

    // Adds the entries that were appended to the table.
    void include_new(bool in_store) {
        for (std::size_t i = seen.size(); i < known.size(); ++i) {
            positions.emplace(known[i].addr, i);
            seen.push_back(in_store);
        }
    }

    // Marks and returns the entry that a stored address matches: the first of the same address and
    // type. An Automatic address that is stored as Static becomes Static.
    boost::optional<std::size_t> match(const CTavAddress &stored) {
        const auto same = positions.equal_range(stored.addr); // in the table's order
        for (auto at = same.first; at != same.second; ++at) {
            const std::size_t i = at->second;
            if (known[i].type == type_automatic && stored.type == type_static) {
                known[i].type = type_static;
            }
            if (known[i].type == stored.type) {
                if (!seen[i]) {
                    known[i].node = stored.node; // a node is never renamed
                }
                seen[i] = true;
                return i;
            }
        }
        return boost::none;
    }

    // Calls is_obsolete(entry, in_store) for each entry, in order, and erases those for which it
    // returns true. Call it after the last match.
    template <typename IsObsolete>
    void erase_if(const IsObsolete &is_obsolete) {
        std::size_t kept = 0;
        for (std::size_t i = 0; i < known.size(); ++i) {
            if (is_obsolete(known[i], seen[i])) {
                continue;
            }
            if (kept != i) {
                known[kept] = std::move(known[i]);
                seen[kept] = seen[i];
            }
            ++kept;
        }
        known.resize(kept);
    }

    const std::vector<bool> &in_store() const { return seen; }

private:
    std::vector<CFullAddress> &known;
    std::vector<bool> seen;
    std::multimap<in6_addr, std::size_t, address_less> positions;
};

} // namespace

void CSync::sync_all() {
    log_info_at(4, "Synchronizing kernel & TAV settings...");
    const tavcfg_map_t snapshot = read_all_tav_ipv6_settings();
    forget_absent_store_interfaces(interfaces, snapshot);
    for (const tavcfg_t *stored : in_bucket_order(snapshot)) {
        sync_kernel_with_tav(*stored);
    }
    for (ifcfg_t *entry : in_bucket_order(interfaces)) {
        sync_tav_with_kernel(snapshot, *entry);
    }
}

void CSync::sync_kernel_with_tav(const tavcfg_t &stored) {
    log_info_at(4, "Synchronizing kernel with TAV...");
    ifcfg_t *const entry = find_by_name(interfaces, stored.iface.name);
    if (entry == nullptr) {
        return;
    }
    log_info_at(3, "Synchronizing kernel interface (%d) with TAV interface (%d): %s",
                entry->iface.ifindex, stored.iface.number, stored.iface.name.c_str());
    entry->iface.number = stored.iface.number;
    sync_kernel_addrs(*entry, stored);
    sync_kernel_gateway(*entry, stored);
}

void CSync::sync_kernel_addrs(ifcfg_t &entry, const tavcfg_t &stored) {
    entry.listed_nodes = {stored.listed_nodes.begin(), stored.listed_nodes.end()};
    address_pass pass(entry);
    for (const CTavAddress &addr : stored.addresses) {
        sync_kernel_addr(entry, addr, pass.match(addr));
        pass.include_new(true);
    }
    pass.erase_if([&](const CFullAddress &known, bool in_store) {
        if (log_shows(4)) {
            log_info_at(4, "Comparing address '%s' (%d) (%s)",
                        in6addr_to_str(known.addr, known.prefix_len, true).c_str(), known.type,
                        in_store ? "IN TAV" : "NOT IN TAV");
        }
        if (in_store || known.type != type_static) {
            return false;
        }
        log_info_at(3, "Removing TAV addr '%s' from kernel on interface %d",
                    in6addr_to_str(known.addr, known.prefix_len, true).c_str(),
                    entry.iface.ifindex);
        delete_from_kern(*netlink, entry, known);
        return true;
    });
    rename_unmatched(entry, pass.in_store());
}

void CSync::sync_kernel_addr(ifcfg_t &entry, const CTavAddress &stored,
                             boost::optional<std::size_t> match) {
    if (match) {
        CFullAddress &known = entry.addresses[*match];
        if (known.type != type_static) {
            return;
        }
        if (known.prefix_len == stored.prefix_len) {
            if (is_leaving(entry, known)) {
                add_to_kern(*netlink, entry, known);
            }
            return;
        }
        log_info_at(3, "Changing prefix length of address '%s' => %u",
                    in6addr_to_str(known.addr, known.prefix_len, true).c_str(), stored.prefix_len);
        // The kernel has no operation that changes a prefix length.
        delete_from_kern(*netlink, entry, known);
        known.prefix_len = stored.prefix_len;
        add_to_kern(*netlink, entry, known);
        return;
    }
    if (stored.type != type_static) {
        log_info_at(1, "Removing unknown/junk node from TAV on interface %d (%s)",
                    entry.iface.ifindex, entry.iface.name.c_str());
        remove_tav_ipv6_addr(entry.iface, stored);
        return;
    }
    if (log_shows(4)) {
        log_info_at(4, "Adding TAV addr '%s' to kernel on interface %d",
                    in6addr_to_str(stored.addr, stored.prefix_len, true).c_str(),
                    entry.iface.ifindex);
    }
    CFullAddress fresh;
    static_cast<CTavAddress &>(fresh) = stored;
    fresh.ifindex = entry.iface.ifindex;
    entry.addresses.push_back(fresh);
    add_to_kern(*netlink, entry, fresh);
}

void CSync::sync_kernel_gateway(ifcfg_t &entry, const tavcfg_t &stored) {
    if (!stored.gateway) {
        if (entry.gateway) {
            // The gateway stays in the table until the kernel reports the deletion.
            log_info_at(2, "Removing existing static route");
            netlink->modify_route(*entry.gateway, false);
            entry.gateway_leaving = true;
        }
        return;
    }
    if (entry.gateway) {
        if (!same_gateway(*entry.gateway, *stored.gateway)) {
            log_info_at(2, "New TAV route overriding existing one");
            netlink->modify_route(*entry.gateway, false);
        } else {
            // Sent again on purpose: the kernel refuses a duplicate, and a lost route is restored.
            log_info_at(4, "Skipping already-configured gateway...");
        }
    }
    CFullRoute route;
    static_cast<CTavRoute &>(route) = *stored.gateway;
    route.ifindex = entry.iface.ifindex;
    route.protocol = RTPROT_STATIC;
    entry.gateway = route;
    entry.gateway_leaving = false;
    log_info_at(4, "Adding TAV route '%s' to kernel on interface %d",
                in6addr_to_str(route.gateway, 0, false).c_str(), entry.iface.ifindex);
    netlink->modify_route(route, true);
}

void CSync::sync_tav_with_kernel(const tavcfg_map_t &snapshot, ifcfg_t &entry) {
    log_info_at(4, "Synchronizing TAV with kernel settings...");
    const tavcfg_t *const stored = find_by_name(snapshot, entry.iface.name);
    if (stored == nullptr) {
        return;
    }
    log_info_at(3, "Synchronizing TAV interface (%d) with kernel interface (%d): %s",
                stored->iface.number, entry.iface.ifindex, entry.iface.name.c_str());
    if (!may_write_store(entry)) {
        return; // the store's interface belongs to another tracked link of the same name
    }
    write_kern_addrs_to_tav(*stored, entry);
    write_kern_route_to_tav(stored->iface, entry);
}

void CSync::write_kern_addrs_to_tav(const tavcfg_t &stored, const ifcfg_t &entry) {
    std::set<in6_addr, address_less> present;
    for (const CTavAddress &addr : stored.addresses) {
        present.insert(addr.addr);
    }
    for (const CFullAddress &known : entry.addresses) {
        if (present.count(known.addr) == 0) {
            log_info_at(4, "Writing kernel addr to TAV on interface %d", entry.iface.number);
            write_tav_ipv6_addr(stored.iface, known);
        }
    }
}
