// Reading the whole stored configuration. A fault in one address or gateway affects only that item.
// An interface node with an unusable name, or a failed store call, ends the whole read.

#include <cstdio>

#include "shell/log.h"
#include "store/paths.h"
#include "store/tav_values.h"
#include "sync/errors.h"
#include "sync/sync.h"

namespace {

// The store may answer for fewer paths than were asked for: do not read beyond its answer.
template <typename T>
T item_at(const std::vector<T> &items, std::size_t index) {
    return index < items.size() ? items[index] : T();
}

bool is_node(const toolkit::child_t &child) {
    return child.second.first == tav_value::type_node;
}

// Reads one item of an interface. Returns the text of the fault when it is missing or unusable.
template <typename Read>
boost::optional<tk_string> fault_of(const Read &read) {
    try {
        read();
    } catch (const sync_addr_err &fault) {
        return tk_string(fault.what());
    } catch (const sync_minor_err &fault) {
        return tk_string(fault.what());
    }
    return boost::none;
}

constexpr const char *addr_signature =
    "CTavAddress CSync::read_tav_ipv6_addr(const tk_string&, const tk_string&)";

// The texts of the leaves of an address node: the address, then the type.
std::vector<tk_string> read_address_leaves(toolkit::CTav &tav, const tk_string &node_path) {
    const std::vector<tk_string> leaves = {paths::address_value(node_path),
                                           paths::type_value(node_path)};
    std::vector<api_status_t> statuses;
    std::vector<toolkit::CElement> values;
    std::vector<element_property_t> properties;
    const int result = tav.get_leaves(leaves, statuses, values, properties);
    const api_status_t address_status = item_at(statuses, 0);
    const api_status_t type_status = item_at(statuses, 1);
    if (result != 0 || address_status != tav_value::status_ok ||
        type_status != tav_value::status_ok) {
        const tk_string text =
            error_text("%s: CTav::get_leaves(%s) returned %d/%d/%d", addr_signature,
                       node_path.c_str(), result, address_status, type_status);
        if (result != 0) {
            throw sync_err(text);
        }
        throw sync_minor_err(text);
    }
    std::vector<tk_string> texts;
    for (std::size_t i = 0; i < leaves.size(); ++i) {
        const toolkit::CElement value = item_at(values, i);
        if (value.type() != tav_value::type_string) {
            throw sync_minor_err(
                error_text("%s: '%s' is not a string type", addr_signature, leaves[i].c_str()));
        }
        texts.push_back(value.to_string());
    }
    return texts;
}

} // namespace

tavcfg_map_t CSync::read_all_tav_ipv6_settings() {
    log_info_at(4, "Discovering all IPv6 TAV settings...");
    api_status_t status = tav_value::status_unset;
    std::vector<toolkit::child_t> children;
    const int result = tav->list_node(paths::interfaces, status, children);
    if (result != 0 || status != tav_value::status_ok) {
        throw sync_err(error_text("%s: CTav::list_node() returned %d/%d",
                                  "tavcfg_map_t CSync::read_all_tav_ipv6_settings()", result,
                                  status));
    }
    tavcfg_map_t settings(initial_buckets);
    for (std::uint32_t position = 0; position < children.size(); ++position) {
        const toolkit::child_t &child = children[position];
        if (is_node(child)) {
            settings[position] = read_tav_ipv6_interface(child.first);
        }
    }
    return settings;
}

tavcfg_t CSync::read_tav_ipv6_interface(const tk_string &name) {
    log_info_at(4, "Discovering IPv6 TAV settings on interface '%s'", name.c_str());
    const tk_string ipv6_path = paths::ipv6(name);
    const long number = positive_number(name);
    if (number == 0) {
        // Unlike the other exceptions, this text does not begin with the function's signature.
        throw sync_minor_err(error_text("Ignoring unknown interface path '%s'", name.c_str()));
    }

    tavcfg_t settings;
    char kernel_name[256];
    std::snprintf(kernel_name, sizeof kernel_name, "%s%ld", if_prefix.c_str(), number - 1);
    settings.iface.name = kernel_name;
    settings.iface.number = static_cast<std::int32_t>(number);

    const auto fault = fault_of([&] { settings.gateway = read_tav_ipv6_gateway(ipv6_path); });
    if (fault) {
        log_info_at(2, "Ignoring gateway: '%s'", fault->c_str());
    }
    settings.addresses = read_tav_ipv6_addrs(ipv6_path);
    settings.listed_nodes = addr_listing;
    return settings;
}

boost::optional<CTavRoute> CSync::read_tav_ipv6_gateway(const tk_string &ipv6_path) {
    constexpr const char *signature =
        "boost::optional<CTavRoute> CSync::read_tav_ipv6_gateway(const tk_string&)";
    log_info_at(4, "Discovering TAV gateway on '%s'", ipv6_path.c_str());
    const tk_string path = paths::value(paths::gateway(ipv6_path));
    api_status_t status = tav_value::status_unset;
    toolkit::CElement value;
    element_property_t property = tav_value::property_unset;
    const int result = tav->get_leaf(path, status, value, property);
    if (result != 0) {
        throw sync_err(error_text("%s: CTav::get_leaf() returned %d", signature, result));
    }
    if (status != tav_value::status_ok) {
        log_info_at(4, "No gateway specified.");
        return boost::none;
    }
    if (value.type() != tav_value::type_string) {
        throw sync_minor_err(error_text("%s: '%s' is not a string type", signature, path.c_str()));
    }
    const tk_string text = value.to_string();
    log_info_at(4, "Read TAV gateway address '%s' on '%s'", text.c_str(), ipv6_path.c_str());
    CTavRoute route;
    route.gateway = str_to_addr(text, false).addr;
    return route;
}

std::vector<CTavAddress> CSync::read_tav_ipv6_addrs(const tk_string &ipv6_path) {
    log_info_at(4, "Discovering TAV addresses on '%s'", ipv6_path.c_str());
    const tk_string path = paths::addresses(ipv6_path);
    api_status_t status = tav_value::status_unset;
    std::vector<toolkit::child_t> children;
    addr_listing.clear();
    const int result = tav->list_node(path, status, children);
    if (result != 0) {
        throw sync_err(
            error_text("%s: CTav::list_node(%s) returned %d",
                       "std::vector<CTavAddress> CSync::read_tav_ipv6_addrs(const tk_string&)",
                       path.c_str(), result));
    }
    std::vector<CTavAddress> addrs;
    if (status != tav_value::status_ok) {
        log_info_at(4, "No addresses specified (%s).", path.c_str());
        return addrs;
    }

    for (const toolkit::child_t &child : children) {
        // A name counts as taken even if its element is a leaf or cannot be read.
        addr_listing.push_back(child.first);
        if (!is_node(child)) {
            continue;
        }
        log_info_at(4, "Found TAV address '%s'", child.first.c_str());
        const auto fault =
            fault_of([&] { addrs.push_back(read_tav_ipv6_addr(path, child.first)); });
        if (fault) {
            log_info_at(2, "Ignoring address: '%s'", fault->c_str());
        }
    }
    return addrs;
}

CTavAddress CSync::read_tav_ipv6_addr(const tk_string &addresses_path, const tk_string &name) {
    const tk_string node_path = paths::address(addresses_path, name);
    log_info_at(4, "Discovering TAV addr on '%s'", node_path.c_str());
    const std::vector<tk_string> texts = read_address_leaves(*tav, node_path);
    CTavAddress addr;
    static_cast<CAddress &>(addr) = str_to_addr(texts[0], true);
    addr.type = str_to_type(texts[1]);
    if (addr.type == type_unset) {
        throw sync_minor_err(
            error_text("%s: Unknown addr type '%s'", addr_signature, texts[1].c_str()));
    }
    addr.node = name;
    log_info_at(4, "Read TAV address %s ('%s') (%s) on '%s'", name.c_str(), texts[0].c_str(),
                texts[1].c_str(), node_path.c_str());
    return addr;
}
