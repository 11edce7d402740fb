// The commands that change interface nodes of the store.
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <set>

#include "ctl/edit.h"
#include "ctl/keeper_memory.h"
#include "ctl/rules.h"
#include "ctl/text.h"
#include "store/paths.h"
#include "store/tav_values.h"

namespace ctl {

namespace {

// The interface node given to `interface del`.
struct found_t {
    std::string path;
    bool has_settings = false; // that a person stored
    std::string link;          // empty: it has another node
};
found_t find_interface(const store_view_t &store, const options_t &options) {
    for (const stored_interface_t &interface : store.interfaces) {
        const bool meant = options.node.empty()
                               ? interface.number != 0 && interface.link == options.link
                               : interface.node == options.node;
        if (!meant) {
            continue;
        }
        const auto same_link = [&](const stored_interface_t &other) {
            return other.number == interface.number;
        };
        const bool is_last =
            interface.number != 0 &&
            std::count_if(store.interfaces.begin(), store.interfaces.end(), same_link) == 1;
        found_t removal{std::string(paths::interfaces) + "/" + interface.node,
                        interface.holds_more || interface.gateway || !interface.strange.empty(),
                        is_last ? interface.link : ""};
        for (const stored_address_t &stored : interface.addresses) {
            removal.has_settings =
                removal.has_settings || stored.fault || stored.address.type == type_static;
        }
        return removal;
    }
    if (options.node.empty()) {
        number_of(options); // a link with another prefix
    }
    throw refusal(options.node.empty()
                      ? "the store has no node for " + shown(options.link)
                      : "the store has no interface node '" + shown(options.node) + "'");
}

bool has_interface(const store_view_t &store, long number) {
    for (const stored_interface_t &interface : store.interfaces) {
        if (interface.node == std::to_string(number)) {
            return true;
        }
    }
    return false;
}

bool is_remembered(const memory_t &memory, const std::string &link) {
    return std::any_of(memory.kept.begin(), memory.kept.end(),
                       [&](const kept_t &kept) { return kept.setting.link == link; });
}

bool has_node(toolkit::CTav &tav, const std::string &path) {
    api_status_t status = tav_value::status_unset;
    std::vector<toolkit::child_t> children;
    if (tav.list_node(path, status, children) != 0) {
        throw store_lost(store_silent);
    }
    return status == tav_value::status_ok;
}

// Moves the settings of a link that has several interface nodes to the node that tandrel writes to.
class merger_t {
public:
    merger_t(const store_view_t &store, const options_t &options, long link_number)
        : number(link_number) {
        for (const stored_interface_t &interface : store.interfaces) {
            if (interface.node == std::to_string(number)) {
                keep(interface);
            }
        }
        for (const stored_interface_t &interface : store.interfaces) {
            if (interface.number == number && interface.node != std::to_string(number)) {
                move(interface, options);
            }
        }
        if (step.removals.empty()) {
            throw refusal("the store has no second node for " + shown(options.link));
        }
    }
    step_t step;

private:
    void keep(const stored_interface_t &interface) {
        for (const stored_address_t &stored : interface.addresses) {
            names.insert(stored.node);
            if (!stored.fault) {
                addresses.push_back(stored.address);
            }
        }
        exists = true;
        if (interface.gateway && !interface.gateway->fault) {
            gateway = interface.gateway->route;
        }
    }

    // Refuses to lose this without --force.
    static void lose(const stored_interface_t &interface, const std::string &what,
                     const options_t &options) {
        if (!options.force) {
            throw refusal("'" + shown(std::string(paths::interfaces) + "/" + interface.node) +
                          "' also contains " + what + "; use --force to remove it too");
        }
    }

    void move(const stored_interface_t &interface, const options_t &options) {
        const std::string path = std::string(paths::interfaces) + "/" + interface.node;
        if (interface.holds_more || !interface.strange.empty()) {
            lose(interface, "something that tandrel does not use", options);
        }
        for (const stored_address_t &stored : interface.addresses) {
            if (stored.fault) {
                lose(interface, "the unusable address '" + shown(stored.node) + "'", options);
                continue;
            }
            if (stored.address.type != type_static) {
                continue; // the kernel's own, which tandrel stores again
            }
            const auto there =
                std::find_if(addresses.begin(), addresses.end(), [&](const CTavAddress &one) {
                    return same_address(one, stored.address);
                });
            if (there != addresses.end()) {
                if (there->prefix_len != stored.address.prefix_len) {
                    lose(interface, shown(stored.text) + " with another prefix length", options);
                }
                continue;
            }
            const bool is_free = names.count(stored.node) == 0;
            const std::string node = is_free ? stored.node : free_number(names);
            names.insert(node);
            addresses.push_back(stored.address);
            put_address(step, paths::address(addresses_path(number), node), stored.address);
        }
        if (interface.gateway && interface.gateway->fault) {
            lose(interface, "an unusable gateway", options);
        } else if (interface.gateway && !gateway) {
            const std::string ipv6 = paths::ipv6(static_cast<std::int32_t>(number));
            step.leaves.emplace_back(paths::value(paths::gateway(ipv6)), interface.gateway->text);
            gateway = interface.gateway->route;
        } else if (interface.gateway && !same_gateway(*gateway, interface.gateway->route)) {
            lose(interface, "the gateway " + shown(interface.gateway->text), options);
        }
        step.removals.push_back(path);
    }

    const long number;
    std::set<std::string> names;
    std::vector<CTavAddress> addresses;
    std::optional<CRoute> gateway;

public:
    bool exists = false; // the node to which the settings are moved
};

} // namespace

int interface_add(const options_t &options) {
    const long number = number_of(options);
    client_t client;
    client.require();
    for (const stored_interface_t &one : read_store(client.tav, options.prefix).interfaces) {
        if (one.number == number) {
            throw refusal(
                "the store already has the interface node '" + shown(one.node) + "' for " +
                shown(options.link) +
                (one.node == std::to_string(number)
                     ? ""
                     : "; to rename it: tandrelctl interface merge " + shown_word(options.link)));
        }
    }
    if (!options.force) {
        const kernel_view_t kernel = kernel_reader();
        if (is_configured(kernel, require_link(kernel, options).index)) {
            throw refusal("the kernel has settings for " + shown(options.link) +
                          "; with an empty node tandrel would remove the link's gateway and the "
                          "addresses that it knows as Static, and store the others as Automatic. "
                          "To store them instead: tandrelctl import "
                          "--from-kernel --write " +
                          shown_word(options.link) + "; to create the node anyway, use --force");
        }
    }
    if (options.dry_run) {
        std::cout << "store: create the node " << shown_word(paths::interfaces) << "/" << number
                  << "\nnothing was changed\n";
        return exit_done;
    }
    make_interface(client, options, number);
    if (!has_interface(read_store(client.tav, options.prefix), number)) {
        throw refusal("this store keeps no empty nodes; store an address or a gateway for " +
                      shown(options.link) + " instead");
    }
    return exit_done;
}

int interface_delete(const options_t &options) {
    if (options.link.empty() == options.node.empty()) {
        throw refusal("give either the link or --node", exit_usage);
    }
    client_t client;
    bool is_last = false;
    const bool done = carry_out(client, options, [&](const store_view_t &store) {
        const found_t removal = find_interface(store, options);
        is_last = !removal.link.empty();
        if (removal.has_settings && !options.force) {
            throw refusal("'" + shown(removal.path) +
                          "' contains settings that would be lost; use --force to remove them too");
        }
        if (!options.force && is_remembered(read_memory(client.tav), removal.link)) {
            throw refusal("'tandrelctl keep' remembers settings of " + shown(removal.link) +
                          " that would be lost (keep --list); use --force to forget them too");
        }
        step_t step{{}, {removal.path}};
        if (!removal.link.empty() && has_node(client.tav, link_memory(removal.link))) {
            step.removals.push_back(link_memory(removal.link)); // the keeper forgets it
        }
        return step;
    });
    if (done && !options.link.empty()) {
        const kernel_view_t kernel = kernel_reader();
        const bool exists =
            std::any_of(kernel.links.begin(), kernel.links.end(),
                        [&](const kernel_link_t &one) { return one.name == options.link; });
        std::fprintf(stderr, "tandrelctl: %s %s\n", shown(options.link).c_str(),
                     !is_last ? "has another interface node, with which it is still synchronised"
                     : exists ? "is no longer synchronised; the kernel keeps its addresses and its "
                                "gateway"
                              : "has no interface node any more; the kernel has no such link");
    }
    return exit_done;
}

int interface_merge(const options_t &options) {
    const long number = number_of(options);
    client_t client;
    bool create = false;
    const bool done = carry_out(client, options, [&](const store_view_t &store) {
        const merger_t merger(store, options, number);
        create = !merger.exists && merger.step.leaves.empty();
        return merger.step;
    });
    if (done && create) {
        make_interface(client, options, number);
    }
    return exit_done;
}

} // namespace ctl
