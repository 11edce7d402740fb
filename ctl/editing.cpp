// The commands address and gateway, which change the store.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>

#include <linux/rtnetlink.h>

#include "ctl/edit.h"
#include "ctl/keeper_memory.h"
#include "ctl/rules.h"
#include "ctl/text.h"
#include "ctl/wait.h"
#include "store/paths.h"

namespace ctl {

namespace {

// Parses an address with its prefix length. Refuses one that the kernel would not accept.
CAddress parse_address(const options_t &options) {
    CAddress address;
    if (const auto fault = convert_address(options.address, address)) {
        const std::string text = "'" + shown(options.address) + "'";
        switch (fault->reason) {
        case reason_t::address_without_prefix:
            throw refusal(text + " has no prefix length; write for example " +
                              shown(options.address) + "/64",
                          exit_usage);
        case reason_t::address_bad_prefix:
            throw refusal("the prefix length of " + text + " is not a number from 1 to 128",
                          exit_usage);
        default:
            throw refusal(text + " is not an IPv6 address", exit_usage);
        }
    }
    if (const char *kind = unfit_kind(address.addr)) {
        throw refusal("'" + shown(options.address) + "' is " + kind + ", which a link cannot have",
                      exit_usage);
    }
    return address;
}

// Every stored address node of the link, with the path of its interface's "Addresses".
struct place_t {
    std::string path;
    const stored_address_t *stored;
};
std::vector<place_t> places(const store_view_t &store, const std::string &link) {
    std::vector<place_t> found;
    for (const stored_interface_t &interface : store.interfaces) {
        if (interface.number == 0 || interface.link != link) {
            continue;
        }
        const std::string path = paths::addresses(paths::ipv6(interface.node));
        for (const stored_address_t &stored : interface.addresses) {
            found.push_back({paths::address(path, stored.node), &stored});
        }
    }
    return found;
}

// Whether the node contains this address, even if its prefix length or its type is invalid.
bool holds(const stored_address_t &stored, const CAddress &address) {
    CRoute there;
    return !convert_gateway(stored.text.substr(0, stored.text.find('/')), there) &&
           std::memcmp(&there.gateway, &address.addr, sizeof address.addr) == 0;
}

std::string free_name(const std::vector<place_t> &taken) {
    std::set<std::string> names;
    for (const place_t &place : taken) {
        names.insert(place.stored->node);
    }
    return free_number(names);
}

std::string new_node(const options_t &options, const std::vector<place_t> &taken) {
    if (options.node.empty()) {
        return free_name(taken);
    }
    if (options.node.find('/') != std::string::npos) {
        throw refusal("a node name cannot contain '/'", exit_usage);
    }
    for (const place_t &place : taken) {
        if (place.stored->node == options.node) {
            throw refusal("node '" + shown(options.node) + "' already exists and contains '" +
                          shown(place.stored->text) + "'");
        }
    }
    return options.node;
}

// Whether a Static address of the link has a network that contains the gateway.
bool is_in_stored_network(const store_view_t &store, const in6_addr &gateway,
                          const std::string &link) {
    const std::vector<place_t> stored = places(store, link);
    return std::any_of(stored.begin(), stored.end(), [&](const place_t &place) {
        return !place.stored->fault && place.stored->address.type == type_static &&
               lies_in(gateway, place.stored->address.addr, place.stored->address.prefix_len);
    });
}

// Refuses a gateway that the kernel would refuse.
void require_gateway(const kernel_view_t &kernel, const store_view_t &store,
                     const in6_addr &gateway, const options_t &options) {
    const kernel_link_t &link = require_link(kernel, options);
    const std::string text = "'" + address_text(gateway) + "'";
    const auto refuse = [](std::string why) {
        throw refusal(why.append("; to store it anyway, use --force"));
    };
    for (const kernel_address_t &one : kernel.addresses) {
        if (one.address.ifindex == link.index &&
            std::memcmp(&one.address.addr, &gateway, sizeof gateway) == 0) {
            refuse(text + " is this link's own address");
        }
    }
    for (const kernel_route_t &one : kernel.routes) {
        if (one.route.ifindex != link.index || !is_default_route(one.route) ||
            std::memcmp(&one.route.gateway, &gateway, sizeof gateway) != 0) {
            continue;
        }
        if (is_static(one)) {
            return; // it works already
        }
        if (one.route.protocol == RTPROT_RA) {
            refuse("a router advertisement has set the default route via " + text +
                   " already, and the kernel refuses a second one");
        }
    }
    if (!is_reachable(kernel, link.index, gateway) &&
        !is_in_stored_network(store, gateway, options.link)) {
        throw refusal("no network of " + shown(options.link) + " contains " + text +
                      ", so the kernel would refuse it, and the present gateway would be lost; add "
                      "an address of its network first, or use --force");
    }
}

// On a terminal a removal waits, to report what kernel and store have in the end.
options_t waiting(options_t options) {
    // What the kernel assigned itself comes back.
    if (!options.patience && !options.force && tav::terminal::on_terminal()) {
        options.patience = default_patience;
    }
    return options;
}

int put(const options_t &options, bool may_exist) {
    const long number = number_of(options);
    const CAddress address = parse_address(options);
    client_t client;
    std::string was; // its type
    const bool done = carry_out(client, options, [&](const store_view_t &store) {
        const std::vector<place_t> stored = places(store, options.link);
        step_t step;
        was.clear();
        for (const place_t &place : stored) {
            if (!holds(*place.stored, address)) {
                continue;
            }
            if (!step.leaves.empty()) {
                step.removals.push_back(place.path); // it was stored twice
                continue;
            }
            if (!may_exist) {
                throw refusal("'" + shown(place.stored->text) + "' is already stored (" +
                              shown(place.stored->type_text) + ", node '" +
                              shown(place.stored->node) +
                              "'); use 'tandrelctl address replace' to change it");
            }
            put_address(step, place.path, address);
            was = place.stored->fault ? "" : place.stored->type_text;
        }
        if (!step.leaves.empty()) {
            return step;
        }
        if (!options.force) {
            require_link(kernel_reader(), options);
        }
        put_address(step, paths::address(addresses_path(number), new_node(options, stored)),
                    address);
        return step;
    });
    if (done && !was.empty() && was != type_to_str(type_static)) {
        std::fprintf(
            stderr,
            "tandrelctl: it was %s; as a Static address it is removed from the kernel when it "
            "is deleted\n",
            shown(was).c_str());
    }
    return done ? wait_for({options.link, false, true, address.addr}, client, options) : exit_done;
}

// Whether another node has the same address.
bool is_stored_twice(const std::vector<place_t> &stored, const stored_address_t &one) {
    return std::any_of(stored.begin(), stored.end(), [&](const place_t &other) {
        return other.stored != &one && !other.stored->fault &&
               same_address(other.stored->address, one.address);
    });
}

// Refuses the removal of an address that the daemon would write again, unless `force` is set.
void may_remove(const stored_address_t &stored, const options_t &options) {
    const bool kernels_own = !stored.fault && stored.address.type != type_static;
    if (kernels_own && !options.force) {
        throw refusal(
            "'" + shown(stored.text) + "' is " + shown(stored.type_text) +
            ": the kernel assigned it, and tandrel would store it again. Delete it in the "
            "kernel (ip -6 address del " +
            shown(stored.text) + " dev " + shown(options.link) + "), or use --force");
    }
}

std::string node_to_remove(const std::vector<place_t> &stored, const options_t &options) {
    for (const place_t &place : stored) {
        if (place.stored->node == options.node) {
            if (!is_stored_twice(stored, *place.stored)) {
                may_remove(*place.stored, options);
            }
            return place.path;
        }
    }
    throw refusal("no address node '" + shown(options.node) + "' is stored for " +
                  shown(options.link));
}

// The address given to `address del`; the prefix length is 0 if none was given.
CAddress parse_existing(const options_t &options) {
    CRoute parsed;
    CAddress address;
    if (!convert_address(options.address, address)) {
        return address;
    }
    if (options.address.find('/') != std::string::npos ||
        convert_gateway(options.address, parsed)) {
        throw refusal("'" + shown(options.address) + "' is not an IPv6 address", exit_usage);
    }
    address.addr = parsed.gateway;
    return address;
}

// Where the keeper remembers the address, or the gateway (null), which it would store again.
std::vector<std::string> remembered(client_t &client, const std::string &link,
                                    const CAddress *address) {
    std::vector<std::string> paths;
    for (const kept_t &kept : read_memory(client.tav).kept) {
        const setting_t &one = kept.setting;
        if (one.link == link && one.is_gateway == (address == nullptr) &&
            (address == nullptr || same_address(one.address, *address))) {
            paths.push_back(kept_path(one));
        }
    }
    return paths;
}

std::vector<std::string> nodes_to_remove(client_t &client, const std::vector<place_t> &stored,
                                         const CAddress &address, const options_t &options) {
    std::vector<std::string> paths;
    for (const place_t &place : stored) {
        if (!holds(*place.stored, address)) {
            continue;
        }
        if (address.prefix_len != 0 && !place.stored->fault &&
            address.prefix_len != place.stored->address.prefix_len) {
            throw refusal("it is stored as '" + shown(place.stored->text) + "'");
        }
        may_remove(*place.stored, options);
        paths.push_back(place.path);
    }
    if (paths.empty()) {
        paths = remembered(client, options.link, &address);
    }
    if (paths.empty()) {
        throw refusal("'" + shown(options.address) + "' is not stored for " + shown(options.link));
    }
    return paths;
}

} // namespace

int address_add(const options_t &options) {
    return put(options, false);
}

int address_replace(const options_t &options) {
    return put(options, true);
}

int address_delete(const options_t &options) {
    number_of(options);
    if (options.address.empty() == options.node.empty()) {
        throw refusal("give either the address or --node", exit_usage);
    }
    client_t client;
    CAddress address;
    if (!options.address.empty()) {
        address = parse_existing(options);
    }
    bool leaves_kernel = !options.address.empty();
    const bool done = carry_out(client, options, [&](const store_view_t &store) {
        const std::vector<place_t> stored = places(store, options.link);
        if (!options.address.empty()) {
            return step_t{{}, nodes_to_remove(client, stored, address, options)};
        }
        const std::string path = node_to_remove(stored, options);
        for (const place_t &place : stored) {
            if (place.path == path) {
                leaves_kernel = !convert_address(place.stored->text, address) &&
                                !is_stored_twice(stored, *place.stored);
            }
        }
        return step_t{{}, {path}};
    });
    if (!done || !leaves_kernel) {
        return exit_done; // the address never reached the kernel, or is stored once more
    }
    return wait_for({options.link, false, false, address.addr}, client, waiting(options));
}

int gateway_set(const options_t &options) {
    const long number = number_of(options);
    CRoute route;
    const std::string text = "'" + shown(options.address) + "'";
    if (options.address.find('/') != std::string::npos) {
        throw refusal("a gateway has no prefix length; give the router's address alone",
                      exit_usage);
    }
    if (convert_gateway(options.address, route)) {
        throw refusal(text + " is not an IPv6 address", exit_usage);
    }
    if (const char *kind = unfit_kind(route.gateway)) {
        throw refusal(text + " is " + kind + ", which cannot be a gateway", exit_usage);
    }
    client_t client;
    const bool done = carry_out(client, options, [&](const store_view_t &store) {
        if (!options.force) {
            require_gateway(kernel_reader(), store, route.gateway, options);
        }
        const std::string ipv6 = paths::ipv6(static_cast<std::int32_t>(number));
        return step_t{{{paths::value(paths::gateway(ipv6)), address_text(route.gateway)}}, {}};
    });
    return done ? wait_for({options.link, true, true, route.gateway}, client, options) : exit_done;
}

int gateway_clear(const options_t &options) {
    number_of(options);
    client_t client;
    const bool done = carry_out(client, options, [&](const store_view_t &store) {
        step_t step;
        for (const stored_interface_t &interface : store.interfaces) {
            if (interface.number != 0 && interface.link == options.link && interface.gateway) {
                step.removals.push_back(paths::gateway(paths::ipv6(interface.node)));
            }
        }
        if (step.removals.empty()) {
            step.removals = remembered(client, options.link, nullptr);
        }
        if (step.removals.empty()) {
            throw refusal("no gateway is stored for " + shown(options.link));
        }
        return step;
    });
    return done ? wait_for({options.link, true, false, {}}, client, waiting(options)) : exit_done;
}

} // namespace ctl
