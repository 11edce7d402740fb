// Writes the kernel's changes to the store.

#include <linux/rtnetlink.h>

#include "shell/log.h"
#include "store/paths.h"
#include "store/tav_values.h"
#include "sync/deletions.h"
#include "sync/errors.h"
#include "sync/sync.h"

namespace {

toolkit::CElement string_element(const tk_string &text) {
    return toolkit::CElement(text, toolkit::CElement::_invalid_time);
}

// Removes a node with everything below it. Returns false if the store refuses.
bool remove_node(toolkit::CTav &tav, const tk_string &path, const char *signature) {
    api_status_t status = tav_value::status_unset;
    const int result = tav.remove_node(path, status, tk_string());
    if (result != 0) {
        throw sync_err(
            error_text("%s: CTav::remove_node(%s) returned %d", signature, path.c_str(), result));
    }
    if (status != tav_value::status_ok) {
        log_info_at(2, "Error when removing '%s': %d", path.c_str(), status);
        return false;
    }
    return true;
}

tk_string node_path(const CTavInterface &ifc, const CTavAddress &addr) {
    return paths::address(paths::addresses(paths::ipv6(ifc.number)), addr.node);
}

} // namespace

void CSync::write_tav_ipv6_gateway(const CTavInterface &ifc, const CTavRoute &route) {
    const tk_string path = paths::value(paths::gateway(paths::ipv6(ifc.number)));
    api_status_t status = tav_value::status_unset;
    const int result = tav->set_leaf(path, string_element(in6addr_to_str(route.gateway, 0, false)),
                                     status, tav_value::write_flag, tk_string());
    if (result != 0) {
        throw sync_err(error_text(
            "%s: CTav::set_leaf() returned %d",
            "void CSync::write_tav_ipv6_gateway(const CTavInterface&, const CTavRoute&)", result));
    }
    if (status != tav_value::status_ok) {
        log_info_at(2, "Error when writing '%s': %d", path.c_str(), status);
    }
}

void CSync::remove_tav_ipv6_gateway(const CTavInterface &ifc) {
    remove_node(*tav, paths::gateway(paths::ipv6(ifc.number)),
                "void CSync::remove_tav_ipv6_gateway(const CTavInterface&)");
}

void CSync::write_tav_ipv6_addr(const CTavInterface &ifc, const CTavAddress &addr) {
    const tk_string node = node_path(ifc, addr);
    // Both leaves in one call: no client sees an address without its type.
    const std::vector<tk_string> leaves = {paths::address_value(node), paths::type_value(node)};
    const std::vector<toolkit::CElement> values = {
        string_element(in6addr_to_str(addr.addr, addr.prefix_len, true)),
        string_element(type_to_str(addr.type))};
    const std::vector<mlr_tribool_t> flags(leaves.size(), tav_value::write_flag);
    std::vector<api_status_t> statuses;
    const int result = tav->set_leaves(leaves, values, flags, statuses, tk_string());
    if (result != 0) {
        throw sync_err(error_text(
            "%s: CTav::set_leaves() returned %d",
            "void CSync::write_tav_ipv6_addr(const CTavInterface&, const CTavAddress&)", result));
    }
    for (std::size_t i = 0; i < leaves.size(); ++i) {
        const api_status_t status = i < statuses.size() ? statuses[i] : tav_value::status_unset;
        if (status != tav_value::status_ok) {
            log_info_at(2, "Error when writing '%s': %d", leaves[i].c_str(), status);
        }
    }
}

void CSync::remove_tav_ipv6_addr(const CTavInterface &ifc, const CTavAddress &addr) {
    if (!remove_node(
            *tav, node_path(ifc, addr),
            "void CSync::remove_tav_ipv6_addr(const CTavInterface&, const CTavAddress&)")) {
        return;
    }
    for (auto &item : interfaces) {
        if (item.second.iface.number == ifc.number) {
            item.second.listed_nodes.erase(addr.node); // the name is free again
        }
    }
}

void CSync::write_kern_route_to_tav(const CTavInterface &ifc, const ifcfg_t &entry) {
    if (!entry.gateway) {
        return;
    }
    log_info_at(4, "Writing kernel route to TAV on interface %d", entry.iface.ifindex);
    write_tav_ipv6_gateway(ifc, *entry.gateway);
}

void CSync::remove_kern_route_from_tav(const CKernRoute &route) {
    const auto found = interfaces.find(route.ifindex);
    if (found == interfaces.end()) {
        return;
    }
    ifcfg_t &entry = found->second;
    if (!has_gateway(route) || !is_default_route(route) || route.protocol != RTPROT_STATIC ||
        !entry.gateway || !same_gateway(*entry.gateway, route)) {
        return;
    }
    if (may_write_store(entry)) {
        remove_tav_ipv6_gateway(entry.iface);
    }
    // The table follows the kernel, also while the store is not written.
    entry.gateway = boost::none;
}

void CSync::remove_kern_addr_from_tav(const CKernAddress &addr) {
    const auto found = interfaces.find(addr.ifindex);
    if (found == interfaces.end()) {
        return;
    }
    ifcfg_t &entry = found->second;
    if (settle_deletion(entry, addr)) {
        return;
    }
    // The entry that moves into the place of an erased one is skipped, on purpose.
    for (std::size_t i = 0; i < entry.addresses.size(); ++i) {
        if (!same_address(entry.addresses[i], addr) ||
            entry.addresses[i].prefix_len != addr.prefix_len) {
            continue;
        }
        if (may_write_store(entry)) {
            remove_tav_ipv6_addr(entry.iface, entry.addresses[i]);
        }
        entry.addresses.erase(entry.addresses.begin() + static_cast<std::ptrdiff_t>(i));
    }
}
