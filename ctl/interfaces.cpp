// The commands that change interface nodes of the store.
#include <algorithm>
#include <cstdio>
#include <iostream>
#include <set>

#include "ctl/edit.h"
#include "ctl/keeper_memory.h"
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
        has_gateway = interface.gateway.has_value();
    }

    void move(const stored_interface_t &interface, const options_t &options) {
        const std::string path = std::string(paths::interfaces) + "/" + interface.node;
        if ((interface.holds_more || !interface.strange.empty()) && !options.force) {
            throw refusal("'" + shown(path) +
                          "' also contains elements that tandrel does not know; use --force to "
                          "remove them too");
        }
        for (const stored_address_t &stored : interface.addresses) {
            const auto same = [&](const CTavAddress &one) {
                return same_address(one, stored.address);
            };
            if (stored.fault || stored.address.type != type_static ||
                std::any_of(addresses.begin(), addresses.end(), same)) {
                continue;
            }
            const bool is_free = names.count(stored.node) == 0;
            const std::string node = is_free ? stored.node : free_number(names);
            names.insert(node);
            addresses.push_back(stored.address);
            put_address(step, paths::address(addresses_path(number), node), stored.address);
        }
        if (interface.gateway && !interface.gateway->fault && !has_gateway) {
            const std::string ipv6 = paths::ipv6(static_cast<std::int32_t>(number));
            step.leaves.emplace_back(paths::value(paths::gateway(ipv6)), interface.gateway->text);
            has_gateway = true;
        }
        step.removals.push_back(path);
    }

    const long number;
    std::set<std::string> names;
    std::vector<CTavAddress> addresses;
    bool has_gateway = false;
};

} // namespace

int interface_add(const options_t &options) {
    const long number = number_of(options);
    client_t client;
    client.require();
    if (has_interface(read_store(client.tav, options.prefix), number)) {
        throw refusal("the store already has a node for " + shown(options.link) + " (interface " +
                      std::to_string(number) + ")");
    }
    if (!options.force) {
        require_link(kernel_reader(), options);
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
    const bool done = carry_out(client, options, [&](const store_view_t &store) {
        const found_t removal = find_interface(store, options);
        if (removal.has_settings && !options.force) {
            throw refusal("'" + shown(removal.path) +
                          "' contains settings that would be lost; use --force to remove them too");
        }
        step_t step{{}, {removal.path}};
        if (!removal.link.empty() && has_node(client.tav, link_memory(removal.link))) {
            step.removals.push_back(link_memory(removal.link)); // the keeper forgets it
        }
        return step;
    });
    if (done && !options.link.empty()) {
        std::fprintf(stderr,
                     "tandrelctl: %s is no longer synchronised; the kernel keeps its addresses and "
                     "its gateway\n",
                     shown(options.link).c_str());
    }
    return exit_done;
}

int interface_merge(const options_t &options) {
    const long number = number_of(options);
    client_t client;
    carry_out(client, options,
              [&](const store_view_t &store) { return merger_t(store, options, number).step; });
    return exit_done;
}

} // namespace ctl
