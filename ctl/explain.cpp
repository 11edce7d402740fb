#include "ctl/explain.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include "ctl/text.h"
#include "store/paths.h"

namespace ctl {

namespace {

// The type under which the daemon stores an address of the kernel.
std::int32_t type_of_scope(std::uint8_t scope) {
    return scope == RT_SCOPE_LINK ? type_link_local : type_automatic;
}

bool lies_in(const in6_addr &address, const in6_addr &network, unsigned length) {
    for (unsigned bit = 0; bit < length && bit < 128; ++bit) {
        const unsigned mask = 0x80U >> (bit % 8);
        if (((address.s6_addr[bit / 8] ^ network.s6_addr[bit / 8]) & mask) != 0) {
            return false;
        }
    }
    return true;
}

class explainer_t {
public:
    explainer_t(interface_view_t &explained, const kernel_view_t &kernel_view)
        : view(explained), kernel(kernel_view) {}

    void add(reason_t reason, words_t words = {}) {
        words.emplace("link", view.link);
        words.emplace("number", std::to_string(view.number));
        view.findings.push_back(finding_t{view.link, fault_t{reason, std::move(words)}});
    }

    // Adds what prevents synchronisation of the whole link. True when its addresses and gateways
    // need no explanation of their own.
    bool explain_link(const std::string &prefix, bool anything_stored);
    void explain_nodes(const std::vector<const stored_interface_t *> &nodes);
    void explain_address(const address_row_t &row);
    void explain_gateway(const gateway_row_t &row);
    void explain_other_routes();

private:
    void explain_pair(const kernel_address_t &there, const stored_address_t &stored);
    void explain_stored_only(const stored_address_t &stored);
    void explain_state(const kernel_address_t &there);
    void explain_stored_gateway(const stored_gateway_t &stored);
    void explain_kernel_route(const kernel_route_t &route);
    bool reachable(const in6_addr &gateway) const;
    // A node with the same address that precedes this one in the store; null if there is none.
    const stored_address_t *earlier(const stored_address_t &stored) const;

    interface_view_t &view;
    const kernel_view_t &kernel;
};

bool explainer_t::explain_link(const std::string &prefix, bool anything_stored) {
    if (!view.kernel) {
        add(reason_t::link_absent);
        return true;
    }
    const kernel_link_t &link = *view.kernel;
    if (view.link.compare(0, prefix.size(), prefix) != 0) {
        add(reason_t::wrong_prefix, {{"prefix", prefix}});
    } else if (!link.ethernet) {
        add(reason_t::not_ethernet);
    } else if (link.hwaddr.empty()) {
        add(reason_t::no_hardware_address);
    } else if (!link.has_ipv6) {
        add(reason_t::no_ipv6);
    } else if (view.number == 0) {
        add(reason_t::no_node_fits, {{"prefix", prefix}});
    } else if (!view.has_node) {
        add(reason_t::no_store_node);
    }
    if (!view.tracked || !view.has_node) {
        return true;
    }
    if (link.ipv6_refused) {
        if (anything_stored) {
            add(reason_t::ipv6_disabled);
        }
        return true;
    }
    if (!link.up) {
        add(reason_t::link_down);
    }
    return false;
}

void explainer_t::explain_nodes(const std::vector<const stored_interface_t *> &nodes) {
    for (const stored_interface_t *node : nodes) {
        if (node->node != std::to_string(node->number)) {
            add(reason_t::odd_interface_number, {{"node", node->node}});
        }
        if (node != nodes.front()) {
            add(reason_t::interface_twice, {{"node", node->node}, {"other", nodes.front()->node}});
        }
        for (const std::string &path : node->strange) {
            add(reason_t::strange_element, {{"path", path}});
        }
    }
}

const stored_address_t *explainer_t::earlier(const stored_address_t &stored) const {
    for (const address_row_t &row : view.addresses) {
        if (!row.stored || row.stored->fault ||
            !same_address(row.stored->address, stored.address)) {
            continue;
        }
        return row.stored->node != stored.node ? &*row.stored : nullptr;
    }
    return nullptr;
}

void explainer_t::explain_state(const kernel_address_t &there) {
    const words_t words = {{"address", prefix_text(there.address)}};
    if ((there.flags & IFA_F_DADFAILED) != 0) {
        add(reason_t::duplicate_found, words);
    } else if ((there.flags & IFA_F_TENTATIVE) != 0 && !view.kernel->carrier) {
        add(reason_t::address_waits, words);
    }
    if (there.has_peer) {
        add(reason_t::address_has_peer, words);
    }
}

void explainer_t::explain_pair(const kernel_address_t &there, const stored_address_t &stored) {
    const words_t words = {{"address", prefix_text(stored.address)},
                           {"node", stored.node},
                           {"type", stored.type_text}};
    const auto with_other = [&words](const std::string &other) {
        words_t all = words;
        all["other"] = other;
        return all;
    };
    if (!type_agrees(stored.address.type, there.address.scope)) {
        add(reason_t::type_differs, with_other(type_to_str(type_of_scope(there.address.scope))));
    } else if (stored.address.prefix_len != there.address.prefix_len) {
        add(stored.address.type == type_static ? reason_t::prefix_static
                                               : reason_t::prefix_of_kernel,
            with_other(prefix_text(there.address)));
    }
}

void explainer_t::explain_stored_only(const stored_address_t &stored) {
    words_t words = {{"address", prefix_text(stored.address)},
                     {"node", stored.node},
                     {"type", stored.type_text}};
    if (const stored_address_t *first = earlier(stored)) {
        words["other"] = first->node;
        add(reason_t::address_stored_twice, words);
    } else if (stored.address.type != type_static) {
        add(reason_t::address_left_over, words);
    } else if (const char *kind = unfit_kind(stored.address.addr)) {
        words["type"] = kind;
        add(reason_t::address_unfit, words);
    } else {
        add(reason_t::address_not_in_kernel, words);
    }
}

void explainer_t::explain_address(const address_row_t &row) {
    if (row.kernel && !row.kernel->has_address) {
        add(reason_t::address_listed_empty);
        return;
    }
    if (row.kernel) {
        explain_state(*row.kernel);
    }
    if (!row.stored) {
        add(reason_t::address_not_in_store,
            {{"address", prefix_text(row.kernel->address)},
             {"type", type_to_str(type_of_scope(row.kernel->address.scope))}});
    } else if (row.stored->fault) {
        add(row.stored->fault->reason, row.stored->fault->words);
    } else if (row.kernel) {
        explain_pair(*row.kernel, *row.stored);
    } else {
        explain_stored_only(*row.stored);
    }
}

// Whether the kernel would accept the gateway: some route of the link without a gateway covers it.
bool explainer_t::reachable(const in6_addr &gateway) const {
    if (IN6_IS_ADDR_LINKLOCAL(&gateway)) {
        return true;
    }
    return std::any_of(kernel.routes.begin(), kernel.routes.end(), [&](const kernel_route_t &one) {
        return one.route.ifindex == view.kernel->index && !has_gateway(one.route) &&
               !one.multipath && one.type == RTN_UNICAST && one.table == RT_TABLE_MAIN &&
               lies_in(gateway, one.route.dst, one.route.dst_len);
    });
}

void explainer_t::explain_stored_gateway(const stored_gateway_t &stored) {
    words_t words = {{"gateway", address_text(stored.route.gateway)}};
    const auto own = [&](const address_row_t &row) {
        return row.kernel && row.kernel->has_address &&
               std::memcmp(&row.kernel->address.addr, &stored.route.gateway, sizeof(in6_addr)) == 0;
    };
    const auto taken = [&](const gateway_row_t &row) {
        return row.kernel && !row.kernel->multipath &&
               same_gateway(row.kernel->route, stored.route);
    };
    const auto other = std::find_if(view.gateways.begin(), view.gateways.end(), taken);
    if (const char *kind = unfit_kind(stored.route.gateway)) {
        words["type"] = kind;
        add(reason_t::gateway_unfit, words);
    } else if (std::any_of(view.addresses.begin(), view.addresses.end(), own)) {
        words["type"] = "this link's own address";
        add(reason_t::gateway_unfit, words);
    } else if (!view.kernel->up) {
        add(reason_t::gateway_link_down, words);
    } else if (other != view.gateways.end()) {
        words["protocol"] = protocol_name(other->kernel->route.protocol);
        add(reason_t::gateway_taken, words);
    } else if (!reachable(stored.route.gateway)) {
        add(reason_t::gateway_unreachable, words);
    } else {
        add(reason_t::gateway_not_in_kernel, words);
    }
}

void explainer_t::explain_kernel_route(const kernel_route_t &route) {
    const words_t words = {{"gateway", address_text(route.route.gateway)},
                           {"protocol", protocol_name(route.route.protocol)},
                           {"text", std::to_string(route.table)}};
    if (route.multipath) {
        add(reason_t::route_multipath);
        return;
    }
    if (!is_adopted(route)) {
        add(reason_t::route_other_protocol, words);
        return;
    }
    if (route.table != RT_TABLE_MAIN) {
        add(reason_t::route_other_table, words);
    }
}

void explainer_t::explain_gateway(const gateway_row_t &row) {
    if (row.kernel) {
        explain_kernel_route(*row.kernel);
    }
    if (row.stored && row.stored->fault) {
        add(row.stored->fault->reason, row.stored->fault->words);
    } else if (row.stored && !row.kernel) {
        explain_stored_gateway(*row.stored);
    } else if (row.stored && row.mark == mark_t::differ) {
        add(reason_t::gateway_differs, {{"gateway", address_text(row.stored->route.gateway)},
                                        {"other", address_text(row.kernel->route.gateway)}});
    } else if (row.mark == mark_t::kernel_only) {
        const bool second = std::any_of(
            view.gateways.begin(), view.gateways.end(), [&](const gateway_row_t &other) {
                return &other != &row && other.kernel && is_adopted(*other.kernel) &&
                       (other.stored || &other < &row);
            });
        add(second ? reason_t::gateway_second : reason_t::gateway_not_in_store,
            {{"gateway", address_text(row.kernel->route.gateway)}});
    }
}

// Routes that a person made and that are not in the table.
void explainer_t::explain_other_routes() {
    for (const kernel_route_t &route : kernel.routes) {
        const std::uint8_t protocol = route.route.protocol;
        if (route.route.ifindex != view.kernel->index ||
            (protocol != RTPROT_STATIC && protocol != RTPROT_BOOT) || route.multipath) {
            continue;
        }
        if (!is_default_route(route.route)) {
            CAddress destination;
            destination.addr = route.route.dst;
            destination.prefix_len = route.route.dst_len;
            add(reason_t::route_with_destination, {{"address", prefix_text(destination)}});
        } else if (!has_gateway(route.route)) {
            add(reason_t::route_without_gateway);
        }
    }
}

} // namespace

const char *unfit_kind(const in6_addr &address) {
    if (IN6_IS_ADDR_MULTICAST(&address)) {
        return "a multicast address";
    }
    if (IN6_IS_ADDR_UNSPECIFIED(&address)) {
        return "the unspecified address";
    }
    if (IN6_IS_ADDR_LOOPBACK(&address)) {
        return "the loopback address";
    }
    return nullptr;
}

bool type_agrees(std::int32_t type, std::uint8_t scope) {
    return type == type_static || type == type_of_scope(scope);
}

bool is_adopted(const kernel_route_t &route) {
    return route.has_index && has_gateway(route.route) && is_default_route(route.route) &&
           route.route.protocol == RTPROT_STATIC;
}

void explain_store(const store_view_t &store, const std::string &prefix,
                   std::vector<finding_t> &findings) {
    const auto add = [&](reason_t reason, words_t words) {
        words["prefix"] = prefix;
        findings.push_back(finding_t{"", fault_t{reason, std::move(words)}});
    };
    if (!store.listed) {
        add(reason_t::interfaces_absent, {{"path", paths::interfaces}});
    }
    for (const stored_interface_t &stored : store.interfaces) {
        if (stored.number == 0) {
            add(reason_t::bad_interface_node, {{"node", stored.node}});
        }
    }
    for (const std::string &path : store.strange) {
        add(reason_t::interface_is_leaf, {{"path", path}});
    }
}

void explain_interface(interface_view_t &view, const std::vector<const stored_interface_t *> &nodes,
                       const kernel_view_t &kernel, const std::string &prefix) {
    explainer_t explainer(view, kernel);
    explainer.explain_nodes(nodes);
    const bool anything_stored =
        std::any_of(nodes.begin(), nodes.end(), [](const stored_interface_t *node) {
            return !node->addresses.empty() || node->gateway;
        });
    const bool link_explains_all = explainer.explain_link(prefix, anything_stored);
    for (const address_row_t &row : view.addresses) {
        if (!link_explains_all || (row.stored && row.stored->fault)) {
            explainer.explain_address(row);
        }
    }
    for (const gateway_row_t &row : view.gateways) {
        if (!link_explains_all || (row.stored && row.stored->fault)) {
            explainer.explain_gateway(row);
        }
    }
    if (!link_explains_all) {
        explainer.explain_other_routes();
    }
}

} // namespace ctl
