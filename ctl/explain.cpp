#include "ctl/explain.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <linux/if_addr.h>
#include <linux/ipv6.h>
#include <linux/rtnetlink.h>

#include "ctl/rules.h"
#include "ctl/text.h"
#include "store/paths.h"

namespace ctl {

namespace {

// The command that creates an interface node for the link. tandrel removes from the kernel what it
// knows as Static, and a gateway, unless the new node contains them.
std::string node_command(const kernel_view_t &kernel, const kernel_link_t &link) {
    return std::string(is_configured(kernel, link.index)
                           ? "tandrelctl import --from-kernel --write "
                           : "tandrelctl interface add ") +
           shown_word(link.name);
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
    void explain_fault(const stored_address_t &stored);
    void explain_gateway(const gateway_row_t &row);
    void explain_other_routes();

private:
    void explain_pair(const kernel_address_t &there, const stored_address_t &stored);
    void explain_stored_only(const stored_address_t &stored);
    void explain_state(const kernel_address_t &there, const address_row_t &row);
    void explain_stored_gateway(const stored_gateway_t &stored);
    void explain_kernel_route(const kernel_route_t &route);
    void explain_duplicate(const kernel_address_t &there, const address_row_t &row);
    void explain_skipped_gateway(const stored_gateway_t &stored);
    void explain_unstored_route(const gateway_row_t &row);
    const stored_gateway_t *stored_gateway() const;
    bool is_own(const in6_addr &address) const;
    std::string for_shell(const std::string &command) const; // followed by the link
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
    if (!has_prefix(view.link, prefix)) {
        add(reason_t::wrong_prefix, {{"prefix", prefix}, {"text", prefix_of(view.link)}});
    } else if (!link.ethernet) {
        add(reason_t::not_ethernet);
    } else if (link.hwaddr.empty()) {
        add(reason_t::no_hardware_address);
    } else if (!link.has_ipv6 && link.mtu < IPV6_MIN_MTU) {
        add(reason_t::small_mtu, {{"text", std::to_string(link.mtu)}});
    } else if (!link.has_ipv6) {
        add(reason_t::no_ipv6);
    } else if (view.number == 0) {
        add(reason_t::no_node_fits, {{"prefix", prefix}});
    } else if (!view.has_node) {
        add(reason_t::no_store_node, {{"command", node_command(kernel, link)}});
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

std::string explainer_t::for_shell(const std::string &command) const {
    return command + " " + shown_word(view.link);
}

// A Static address is checked again when it is added again. Only the kernel can add the others.
void explainer_t::explain_duplicate(const kernel_address_t &there, const address_row_t &row) {
    const std::string address = prefix_text(there.address);
    std::string command = "ip -6 address del " + address + " dev " + shown_word(view.link);
    if (row.stored && !row.stored->fault && row.stored->address.type == type_static) {
        const std::string stored = " " + prefix_text(row.stored->address);
        // Without tandrel, the removal would never be complete, and nothing would follow it.
        command = "tandrelctl nudge && " + for_shell("tandrelctl address del") + stored +
                  " --wait && " + for_shell("tandrelctl address add") + stored + " --node " +
                  shown_word(row.stored->node) + " --wait";
    }
    add(reason_t::duplicate_found, {{"address", address}, {"command", command}});
}

void explainer_t::explain_state(const kernel_address_t &there, const address_row_t &row) {
    const words_t words = {{"address", prefix_text(there.address)}};
    if ((there.flags & IFA_F_DADFAILED) != 0) {
        explain_duplicate(there, row);
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
        const std::string kernels = prefix_text(there.address);
        words_t all = with_other(kernels);
        // Storing another length does not change the kernel's own link-local address.
        all["command"] = there.address.scope == RT_SCOPE_LINK
                             ? for_shell("tandrelctl address replace") + " " + kernels
                             : "tandrelctl nudge";
        add(stored.address.type == type_static ? reason_t::prefix_static
                                               : reason_t::prefix_of_kernel,
            all);
    }
}

void explainer_t::explain_stored_only(const stored_address_t &stored) {
    words_t words = {{"address", prefix_text(stored.address)},
                     {"node", stored.node},
                     {"type", stored.type_text}};
    if (const stored_address_t *first = earlier(stored)) {
        // Removing a Static node would remove the address from the kernel as well, so if only one
        // of the two is Static, the remedy removes the other.
        const bool keep_this =
            stored.address.type == type_static && first->address.type != type_static;
        words["other"] = keep_this ? stored.node : first->node;
        words["node"] = keep_this ? first->node : stored.node;
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

// To store the address again would change the node that has it already, if there is one.
void explainer_t::explain_fault(const stored_address_t &stored) {
    words_t words = stored.fault->words;
    const std::string address = stored.text.substr(0, stored.text.find('/'));
    CRoute there;
    const bool readable = !convert_gateway(address, there);
    const bool is_copy =
        readable &&
        std::any_of(view.addresses.begin(), view.addresses.end(), [&](const address_row_t &row) {
            return row.stored && !row.stored->fault &&
                   std::memcmp(&row.stored->address.addr, &there.gateway, sizeof there.gateway) ==
                       0;
        });
    CAddress whole;
    const bool has_length = !convert_address(stored.text, whole);
    words["command"] =
        is_copy ? for_shell("tandrelctl address del") + " --node " + shown_word(stored.node)
                : for_shell("tandrelctl address replace") + " " +
                      shown_word(has_length ? stored.text : address + "/64");
    add(stored.fault->reason, words);
}

void explainer_t::explain_address(const address_row_t &row) {
    if (row.kernel && !row.kernel->has_address) {
        add(reason_t::address_listed_empty);
        return;
    }
    if (row.kernel) {
        explain_state(*row.kernel, row);
    }
    if (!row.stored) {
        add(reason_t::address_not_in_store,
            {{"address", prefix_text(row.kernel->address)},
             {"type", type_to_str(type_of_scope(row.kernel->address.scope))}});
        // The kernel reports an address when it has checked it.
        view.findings.back().waits =
            (row.kernel->flags & (IFA_F_TENTATIVE | IFA_F_DADFAILED)) == IFA_F_TENTATIVE;
    } else if (row.stored->fault) {
        explain_fault(*row.stored);
    } else if (row.kernel) {
        explain_pair(*row.kernel, *row.stored);
    } else {
        explain_stored_only(*row.stored);
    }
}

const stored_gateway_t *explainer_t::stored_gateway() const {
    for (const gateway_row_t &row : view.gateways) {
        if (row.stored) {
            return &*row.stored;
        }
    }
    return nullptr;
}

bool explainer_t::is_own(const in6_addr &address) const {
    return std::any_of(view.addresses.begin(), view.addresses.end(), [&](const address_row_t &row) {
        return row.kernel && row.kernel->has_address &&
               std::memcmp(&row.kernel->address.addr, &address, sizeof address) == 0;
    });
}

// Suggests storing the address without the prefix length, if the kernel would accept it; otherwise
// the gateway that the kernel has, because without a stored one tandrel would remove that.
void explainer_t::explain_skipped_gateway(const stored_gateway_t &stored) {
    const std::string address = stored.text.substr(0, stored.text.find('/'));
    CRoute route;
    const bool fits = !convert_gateway(address, route) && unfit_kind(route.gateway) == nullptr &&
                      !is_own(route.gateway) && view.kernel &&
                      is_reachable(kernel, view.kernel->index, route.gateway);
    const auto present =
        std::find_if(view.gateways.begin(), view.gateways.end(), [](const gateway_row_t &row) {
            return row.kernel && is_adopted(*row.kernel);
        });
    words_t words = stored.fault->words;
    words["text"] = stored.text;
    words["command"] = fits ? for_shell("tandrelctl gateway set") + " " + address
                       : present != view.gateways.end()
                           ? for_shell("tandrelctl gateway set") + " " +
                                 address_text(present->kernel->route.gateway)
                           : for_shell("tandrelctl gateway clear");
    add(stored.fault->reason, words);
}

void explainer_t::explain_stored_gateway(const stored_gateway_t &stored) {
    words_t words = {{"gateway", address_text(stored.route.gateway)}};
    const auto taken = [&](const gateway_row_t &row) {
        return row.kernel && row.kernel->metric == usual_metric &&
               row.kernel->table == RT_TABLE_MAIN && same_gateway(row.kernel->route, stored.route);
    };
    const auto other = std::find_if(view.gateways.begin(), view.gateways.end(), taken);
    if (const char *kind = unfit_kind(stored.route.gateway)) {
        words["type"] = kind;
        add(reason_t::gateway_unfit, words);
    } else if (is_own(stored.route.gateway)) {
        words["type"] = "this link's own address";
        add(reason_t::gateway_unfit, words);
    } else if (!view.kernel->up) {
        add(reason_t::gateway_link_down, words);
    } else if (other != view.gateways.end()) {
        words["protocol"] = protocol_name(other->kernel->route.protocol);
        words["command"] = replacement(view.link, *other->kernel);
        add(reason_t::gateway_taken, words);
    } else if (!is_reachable(kernel, view.kernel->index, stored.route.gateway)) {
        add(reason_t::gateway_unreachable, words);
    } else {
        add(reason_t::gateway_not_in_kernel, words);
    }
}

void explainer_t::explain_kernel_route(const kernel_route_t &route) {
    const std::string gateway = address_text(route.route.gateway);
    words_t words = {{"gateway", gateway},
                     {"protocol", protocol_name(route.route.protocol)},
                     {"text", std::to_string(route.table)},
                     {"command", ""}};
    // A route of another program, or an advertised one, is not tandrel's to change.
    const std::string store_it = for_shell("tandrelctl gateway set") + " " + gateway;
    const bool storable = stored_gateway() == nullptr && route.table == RT_TABLE_MAIN;
    if (!is_static(route)) {
        if (storable && route.route.protocol == RTPROT_BOOT) {
            words["command"] = store_it + " && " + replacement(view.link, route);
        }
        add(reason_t::route_other_protocol, words);
    } else if (!is_adopted(route)) {
        words["command"] = storable ? store_it : "";
        add(reason_t::route_multipath, words);
    } else if (route.table != RT_TABLE_MAIN) {
        add(reason_t::route_other_table, words);
    }
}

// A static route of the kernel that is not the stored one.
void explainer_t::explain_unstored_route(const gateway_row_t &row) {
    const kernel_route_t &route = *row.kernel;
    const bool second =
        std::any_of(view.gateways.begin(), view.gateways.end(), [&](const gateway_row_t &other) {
            return &other != &row && other.kernel && is_static(*other.kernel) &&
                   (other.stored || &other < &row);
        });
    const std::string gateway = address_text(route.route.gateway);
    // What to do about a stored gateway that is skipped decides about this one, too.
    add(second ? reason_t::gateway_second : reason_t::gateway_not_in_store,
        {{"gateway", gateway},
         {"command",
          stored_gateway() != nullptr ? "" : for_shell("tandrelctl gateway set") + " " + gateway}});
}

void explainer_t::explain_gateway(const gateway_row_t &row) {
    const stored_gateway_t *stored = stored_gateway();
    const bool again = row.kernel && !row.stored && stored != nullptr && !stored->fault &&
                       is_static(*row.kernel) && same_gateway(row.kernel->route, stored->route);
    if (again) {
        add(reason_t::route_other_metric, {{"gateway", address_text(row.kernel->route.gateway)},
                                           {"text", std::to_string(row.kernel->metric)}});
        return;
    }
    if (row.kernel && !(row.stored && row.kernel->multipath)) {
        explain_kernel_route(*row.kernel);
    }
    if (row.stored && row.stored->fault) {
        explain_skipped_gateway(*row.stored);
    } else if (row.stored && !row.kernel) {
        explain_stored_gateway(*row.stored);
    } else if (row.stored && row.mark == mark_t::differ) {
        add(reason_t::gateway_differs, {{"gateway", address_text(row.stored->route.gateway)},
                                        {"other", address_text(row.kernel->route.gateway)}});
    } else if (row.mark == mark_t::kernel_only) {
        explain_unstored_route(row);
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

void explain_store(const store_view_t &store, const kernel_view_t &kernel,
                   const std::string &prefix, std::vector<finding_t> &findings) {
    const auto add = [&](reason_t reason, words_t words) {
        words["prefix"] = prefix;
        findings.push_back(finding_t{"", fault_t{reason, std::move(words)}});
    };
    std::string links; // that tandrel could manage
    std::string command;
    for (const kernel_link_t &link : kernel.links) {
        if (!has_prefix(link.name, prefix)) {
            links += link.hwaddr.empty() ? "" : (links.empty() ? "" : ", ") + link.name;
        } else if (command.empty() && interface_number(link.name, prefix) != 0) {
            command = node_command(kernel, link); // also creates the parent node
        }
    }
    const bool none =
        std::none_of(kernel.links.begin(), kernel.links.end(),
                     [&](const kernel_link_t &link) { return has_prefix(link.name, prefix); });
    if (none) {
        add(reason_t::no_link_managed,
            {{"text", links.empty() ? ""
                                    : "; to manage other links, start tandrel and tandrelctl with "
                                      "-i PREFIX (the links are: " +
                                          links + ")"}});
    }
    if (!store.listed) {
        add(reason_t::interfaces_absent,
            {{"path", paths::interfaces},
             {"command",
              command.empty() ? "tav mknode " + shown_word(paths::interfaces) : command}});
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
