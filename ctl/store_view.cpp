#include "ctl/store_view.h"

#include <linux/rtnetlink.h>

#include "ctl/rules.h"
#include "store/paths.h"
#include "store/tav_values.h"
#include "sync/errors.h"
#include "sync/sync.h"

namespace ctl {

namespace {

bool is_node(const toolkit::child_t &child) {
    return child.second.first == tav_value::type_node;
}

class reader_t {
public:
    reader_t(toolkit::CTav &client, const std::string &link_prefix)
        : tav(client), prefix(link_prefix) {}

    store_view_t read();

private:
    struct leaf_t {
        bool there = false;
        bool is_text = false;
        std::string text;
    };

    // False when there is no such node.
    bool list(const std::string &path, std::vector<toolkit::child_t> &children);
    leaf_t leaf(const std::string &path);
    stored_interface_t read_interface(const std::string &node);
    // `listed`: the gateway's node exists, so a missing leaf is a fault.
    void read_gateway(const std::string &path, bool listed, stored_interface_t &interface);
    void read_addresses(const std::string &path, stored_interface_t &interface);
    stored_address_t read_address(const std::string &path, const std::string &node);
    // Records every child of the node that the daemon does not know.
    void note_strange(const std::string &path, const std::vector<std::string> &known,
                      stored_interface_t &interface);

    toolkit::CTav &tav;
    const std::string &prefix;
};

bool reader_t::list(const std::string &path, std::vector<toolkit::child_t> &children) {
    api_status_t status = tav_value::status_unset;
    if (tav.list_node(path, status, children) != 0) {
        throw store_lost(store_silent);
    }
    return status == tav_value::status_ok;
}

reader_t::leaf_t reader_t::leaf(const std::string &path) {
    api_status_t status = tav_value::status_unset;
    toolkit::CElement value;
    element_property_t property = tav_value::property_unset;
    if (tav.get_leaf(path, status, value, property) != 0) {
        throw store_lost(store_silent);
    }
    leaf_t result;
    result.there = status == tav_value::status_ok;
    result.is_text = result.there && value.type() == tav_value::type_string;
    if (result.is_text) {
        result.text = value.to_string();
    }
    return result;
}

void reader_t::note_strange(const std::string &path, const std::vector<std::string> &known,
                            stored_interface_t &interface) {
    std::vector<toolkit::child_t> children;
    if (!list(path, children)) {
        return;
    }
    for (const toolkit::child_t &child : children) {
        bool is_known = false;
        for (const std::string &part : known) {
            is_known = is_known || "/" + child.first == part;
        }
        if (!is_known) {
            interface.strange.push_back(path + "/" + child.first);
        }
    }
}

void reader_t::read_gateway(const std::string &path, bool listed, stored_interface_t &interface) {
    const leaf_t value = leaf(paths::value(path));
    if (!value.there && !listed) {
        return;
    }
    stored_gateway_t gateway;
    gateway.text = value.text;
    if (!value.there) {
        gateway.fault = fault_t{reason_t::gateway_leaf_missing, {}};
    } else if (!value.is_text) {
        gateway.fault = fault_t{reason_t::gateway_not_text, {}};
    } else {
        gateway.fault = convert_gateway(value.text, gateway.route);
    }
    interface.gateway = gateway;
    note_strange(path, {paths::value_part}, interface);
}

stored_address_t reader_t::read_address(const std::string &path, const std::string &node) {
    stored_address_t stored;
    stored.node = node;
    const leaf_t address = leaf(paths::address_value(path));
    const leaf_t type = leaf(paths::type_value(path));
    stored.text = address.text;
    stored.type_text = type.text;
    const auto fault = [&](reason_t reason) {
        stored.fault =
            fault_t{reason, {{"node", node}, {"text", stored.text}, {"type", stored.type_text}}};
    };
    // The remedy of a bad type is to store the address again, so a bad address comes first.
    if (!address.there) {
        fault(reason_t::address_leaf_missing);
    } else if (!address.is_text) {
        fault(reason_t::address_not_text);
    } else if (const auto bad = convert_address(stored.text, stored.address)) {
        fault(bad->reason);
    } else if (!type.there) {
        fault(reason_t::type_leaf_missing);
    } else if (!type.is_text) {
        fault(reason_t::type_not_text);
    } else {
        stored.address.type = str_to_type(type.text);
        stored.address.node = node;
        if (stored.address.type == type_unset) {
            fault(reason_t::type_unknown);
        }
    }
    if (stored.fault) {
        const std::string text = stored.text.substr(0, stored.text.find('/'));
        CRoute there;
        const bool readable = !convert_gateway(text, there);
        stored.fault->words["address"] = text;
        if (const char *kind = readable ? unfit_kind(there.gateway) : nullptr) {
            stored.fault->reason = reason_t::address_unfit;
            stored.fault->words["address"] = stored.text;
            stored.fault->words["type"] = kind;
        }
    }
    return stored;
}

void reader_t::read_addresses(const std::string &path, stored_interface_t &interface) {
    std::vector<toolkit::child_t> children;
    if (!list(path, children)) {
        return;
    }
    for (const toolkit::child_t &child : children) {
        const std::string node_path = paths::address(path, child.first);
        if (is_node(child)) {
            const stored_address_t stored = read_address(node_path, child.first);
            std::vector<toolkit::child_t> parts;
            if (stored.fault && !list(node_path, parts)) {
                continue; // removed while it was read
            }
            interface.addresses.push_back(stored);
            note_strange(node_path, {paths::address_part, paths::type_part}, interface);
        } else {
            stored_address_t leaf_only;
            leaf_only.node = child.first;
            leaf_only.fault = fault_t{reason_t::address_is_leaf, {{"path", node_path}}};
            interface.addresses.push_back(leaf_only);
        }
    }
}

stored_interface_t reader_t::read_interface(const std::string &node) {
    stored_interface_t interface;
    interface.node = node;
    interface.number = positive_number(node);
    std::vector<toolkit::child_t> children;
    list(std::string(paths::interfaces) + "/" + node, children);
    for (const toolkit::child_t &child : children) {
        interface.holds_more =
            interface.holds_more || interface.number == 0 || "/" + child.first != paths::ipv6_part;
    }
    if (interface.number == 0) {
        return interface;
    }
    interface.link = prefix + std::to_string(interface.number - 1);
    const std::string ipv6 = paths::ipv6(node);
    children.clear();
    list(ipv6, children);
    bool gateway_node = false;
    for (const toolkit::child_t &child : children) {
        const std::string part = "/" + child.first;
        gateway_node = gateway_node || part == paths::gateway_part;
        if (part != paths::gateway_part && part != paths::addresses_part) {
            interface.strange.push_back(ipv6 + part);
        }
    }
    read_gateway(paths::gateway(ipv6), gateway_node, interface);
    read_addresses(paths::addresses(ipv6), interface);
    return interface;
}

store_view_t reader_t::read() {
    store_view_t view;
    view.answered = true;
    std::vector<toolkit::child_t> children;
    view.listed = list(paths::interfaces, children);
    for (const toolkit::child_t &child : children) {
        if (is_node(child)) {
            view.interfaces.push_back(read_interface(child.first));
        } else {
            view.strange.push_back(std::string(paths::interfaces) + "/" + child.first);
        }
    }
    return view;
}

// Converts with the daemon's own function; after a failure a second conversion finds out which part
// was invalid.
std::optional<bool> convert(const std::string &text, bool prefix_required, CAddress &address) {
    try {
        address = CSync::str_to_addr(text, prefix_required);
        return std::nullopt;
    } catch (const sync_addr_err &) {
    }
    try {
        CSync::str_to_addr(text.substr(0, text.find('/')), false);
        return true;
    } catch (const sync_addr_err &) {
        return false;
    }
}

} // namespace

store_view_t read_store(toolkit::CTav &tav, const std::string &prefix) {
    return reader_t(tav, prefix).read();
}

std::optional<fault_t> convert_address(const std::string &text, CAddress &address) {
    const std::optional<bool> only_prefix = convert(text, true, address);
    if (!only_prefix) {
        return std::nullopt;
    }
    reason_t reason = reason_t::address_bad_text;
    if (*only_prefix) {
        reason = text.find('/') == std::string::npos ? reason_t::address_without_prefix
                                                     : reason_t::address_bad_prefix;
    }
    return fault_t{reason, {{"text", text}}};
}

std::optional<fault_t> convert_gateway(const std::string &text, CRoute &route) {
    CAddress address;
    const std::optional<bool> only_prefix = convert(text, false, address);
    if (!only_prefix) {
        route.gateway = address.addr;
        return std::nullopt;
    }
    return fault_t{*only_prefix ? reason_t::gateway_bad_prefix : reason_t::gateway_bad_text,
                   {{"text", text}}};
}

} // namespace ctl
