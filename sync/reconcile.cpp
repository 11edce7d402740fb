// Reconciliation: the kernel is made to carry what the store says, then the store is made to record
// what the kernel carries. One snapshot of the store serves the whole run, also after the run's own
// changes.

#include <algorithm>
#include <linux/rtnetlink.h>

#include "shell/log.h"
#include "sync/address_index.h"
#include "sync/sync.h"

namespace {

template <typename List>
void erase_marked(List &list, const std::vector<bool> &marks) {
    std::size_t kept = 0;
    for (std::size_t i = 0; i < list.size(); ++i) {
        if (marks[i]) {
            continue;
        }
        if (kept != i) {
            list[kept] = std::move(list[i]);
        }
        ++kept;
    }
    list.erase(list.begin() + static_cast<std::ptrdiff_t>(kept), list.end());
}

// Entries of the table that are to go, and with each its mark in `seen`. They go together at the
// end, also when an exception brings it on: one by one, each would move all that stand behind it.
class erasure {
public:
    erasure(std::vector<CFullAddress> &table, std::vector<bool> &table_seen)
        : addresses(table), seen(table_seen), gone(table.size(), false) {}
    erasure(const erasure &) = delete;
    erasure &operator=(const erasure &) = delete;
    ~erasure() {
        erase_marked(addresses, gone);
        erase_marked(seen, gone);
    }

    void mark(std::size_t position) { gone[position] = true; }

private:
    std::vector<CFullAddress> &addresses;
    std::vector<bool> &seen;
    std::vector<bool> gone;
};

} // namespace

void CSync::sync_all() {
    log_info_at(4, "Synchronizing kernel & TAV settings...");
    const tavcfg_map_t snapshot = read_all_tav_ipv6_settings();
    forget_absent_store_interfaces(snapshot);
    visit_in_bucket_order(snapshot, [&](const tavcfg_t &stored) {
        sync_kernel_with_tav(stored);
        return false;
    });
    visit_in_bucket_order(interfaces, [&](ifcfg_t &entry) {
        sync_tav_with_kernel(snapshot, entry);
        return false;
    });
}

void CSync::sync_kernel_with_tav(const tavcfg_t &stored) {
    log_info_at(4, "Synchronizing kernel with TAV...");
    ifcfg_t *const entry = find_by_name<ifcfg_t>(interfaces, stored.iface.name);
    if (entry == nullptr) {
        return;
    }
    log_info_at(3, "Synchronizing kernel interface (%d) with TAV interface (%d): %s",
                entry->iface.ifindex, stored.iface.number, stored.iface.name.c_str());
    entry->iface.number = stored.iface.number;
    sync_kernel_addrs(*entry, stored);
    sync_kernel_gateway(*entry, stored);
}

// Marks and returns the entry that a stored address stands for: the first with the same address and
// type. An address that the kernel made by itself but the store declares Static becomes Static.
boost::optional<std::size_t> CSync::match_stored(ifcfg_t &entry, const address_index &index,
                                                 const CTavAddress &stored,
                                                 std::vector<bool> &seen) {
    const auto same = index.equal_range(stored.addr);
    for (auto at = same.first; at != same.second; ++at) {
        const std::size_t i = at->second;
        CFullAddress &known = entry.addresses[i];
        if (known.type == type_automatic && stored.type == type_static) {
            known.type = type_static;
        }
        if (known.type == stored.type) {
            if (!seen[i]) {
                take_over_name(known, stored);
            }
            seen[i] = true;
            return i;
        }
    }
    return boost::none;
}

void CSync::sync_kernel_addrs(ifcfg_t &entry, const tavcfg_t &stored) {
    remember_listing(entry, stored);
    std::vector<bool> seen(entry.addresses.size(), false);
    address_index index = index_of(entry.addresses);
    for (const CTavAddress &addr : stored.addresses) {
        const boost::optional<std::size_t> match = match_stored(entry, index, addr, seen);
        if (sync_kernel_addr(entry, addr, match)) {
            seen.push_back(true);
            index.emplace(addr.addr, entry.addresses.size() - 1);
        }
    }
    remove_unstored(entry, seen);
    rename_unmatched(entry, seen);
}

void CSync::remove_unstored(ifcfg_t &entry, std::vector<bool> &seen) {
    erasure leaving(entry.addresses, seen);
    for (std::size_t i = 0; i < entry.addresses.size(); ++i) {
        const CFullAddress &known = entry.addresses[i];
        if (log_shows(4)) {
            log_info_at(4, "Comparing address '%s' (%d) (%s)",
                        in6addr_to_str(known.addr, known.prefix_len, true).c_str(), known.type,
                        seen[i] ? "IN TAV" : "NOT IN TAV");
        }
        if (seen[i] || known.type != type_static) {
            continue;
        }
        log_info_at(3, "Removing TAV addr '%s' from kernel on interface %d",
                    in6addr_to_str(known.addr, known.prefix_len, true).c_str(),
                    entry.iface.ifindex);
        delete_from_kern(entry, known);
        leaving.mark(i);
    }
}

// Returns whether an entry was appended.
bool CSync::sync_kernel_addr(ifcfg_t &entry, const CTavAddress &stored,
                             boost::optional<std::size_t> match) {
    if (match) {
        CFullAddress &known = entry.addresses[*match];
        if (known.type != type_static) {
            return false;
        }
        if (known.prefix_len == stored.prefix_len) {
            if (is_leaving(entry, known)) {
                add_to_kern(entry, known);
            }
            return false;
        }
        log_info_at(3, "Changing prefix length of address '%s' => %u",
                    in6addr_to_str(known.addr, known.prefix_len, true).c_str(), stored.prefix_len);
        // The kernel has no operation that changes a prefix.
        delete_from_kern(entry, known);
        known.prefix_len = stored.prefix_len;
        add_to_kern(entry, known);
        return false;
    }
    if (stored.type != type_static) {
        log_info_at(1, "Removing unknown/junk node from TAV on interface %d (%s)",
                    entry.iface.ifindex, entry.iface.name.c_str());
        remove_tav_ipv6_addr(entry.iface, stored);
        return false;
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
    add_to_kern(entry, fresh);
    return true;
}

void CSync::sync_kernel_gateway(ifcfg_t &entry, const tavcfg_t &stored) {
    if (!stored.gateway) {
        if (entry.gateway) {
            // The table follows when the kernel reports the deletion.
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
            // Sent again all the same: the kernel refuses a duplicate and puts back a lost one.
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
    const auto *const stored = find_by_name<const tavcfg_t>(snapshot, entry.iface.name);
    if (stored == nullptr) {
        return;
    }
    log_info_at(3, "Synchronizing TAV interface (%d) with kernel interface (%d): %s",
                stored->iface.number, entry.iface.ifindex, entry.iface.name.c_str());
    if (!may_write_store(entry)) {
        return; // another tracked link bears the same name, and the node is that one's
    }
    for (CFullAddress &known : entry.addresses) {
        avoid_unlisted_node(entry, known);
    }
    write_kern_addrs_to_tav(*stored, entry);
    write_kern_route_to_tav(stored->iface, entry);
}

void CSync::write_kern_addrs_to_tav(const tavcfg_t &stored, const ifcfg_t &entry) {
    const address_index index = index_of(stored.addresses);
    for (const CFullAddress &known : entry.addresses) {
        if (index.count(known.addr) == 0) {
            log_info_at(4, "Writing kernel addr to TAV on interface %d", entry.iface.number);
            write_tav_ipv6_addr(stored.iface, known);
        }
    }
}
