#include "ctl/preview.h"

#include <algorithm>
#include <iostream>
#include <map>
#include <set>

#include "ctl/rules.h"
#include "ctl/text.h"
#include "store/paths.h"

namespace ctl {

namespace {

// What the daemon takes from the store for one link.
struct wanted_t {
    std::map<std::string, std::string> addresses; // of type Static; by the path of the node
    std::string gateway;
};

using all_wanted_t = std::map<std::string, wanted_t>; // by link

all_wanted_t wanted_now(const store_view_t &store) {
    all_wanted_t all;
    for (const stored_interface_t &interface : store.interfaces) {
        if (interface.number == 0) {
            continue;
        }
        wanted_t &wanted = all[interface.link];
        const std::string ipv6 = paths::ipv6(interface.node);
        for (const stored_address_t &stored : interface.addresses) {
            if (!stored.fault && stored.address.type == type_static) {
                wanted.addresses[paths::address(paths::addresses(ipv6), stored.node)] =
                    prefix_text(stored.address);
            }
        }
        if (interface.gateway && !interface.gateway->fault) {
            wanted.gateway = address_text(interface.gateway->route.gateway);
        }
    }
    return all;
}

// The same after the step, of the links that keep a node.
all_wanted_t wanted_after(all_wanted_t all, const step_t &step, const store_view_t &store,
                          const options_t &options) {
    std::map<std::string, std::string> links; // by the path of the interface's IPv6 node
    for (const stored_interface_t &interface : store.interfaces) {
        links[paths::ipv6(interface.node)] = interface.link;
    }
    if (const long number = interface_number(options.link, options.prefix)) {
        links.emplace(paths::ipv6(static_cast<std::int32_t>(number)), options.link);
    }
    for (const auto &[ipv6, link] : links) {
        wanted_t &wanted = all[link];
        const std::string addresses = paths::addresses(ipv6) + "/";
        for (const auto &[path, text] : step.leaves) {
            const std::size_t end = path.find('/', addresses.size());
            if (path == paths::value(paths::gateway(ipv6))) {
                CRoute route; // the text may be one of the store's, with a prefix length
                wanted.gateway = convert_gateway(text, route) ? "" : address_text(route.gateway);
            } else if (path.compare(0, addresses.size(), addresses) == 0 &&
                       path == paths::address_value(path.substr(0, end))) {
                wanted.addresses[path.substr(0, end)] = text;
            }
        }
        for (const std::string &path : step.removals) {
            wanted.addresses.erase(path);
            if (path == paths::gateway(ipv6)) {
                wanted.gateway.clear();
            } else if (ipv6.compare(0, path.size() + 1, path + "/") == 0 && link == options.link &&
                       step.leaves.empty()) {
                all.erase(link); // no longer synchronised; the kernel keeps everything
                break;
            }
        }
    }
    return all;
}

std::set<std::string> lines_of(const wanted_t &wanted) {
    std::set<std::string> lines;
    for (const auto &[path, text] : wanted.addresses) {
        lines.insert("address " + text);
    }
    if (!wanted.gateway.empty()) {
        lines.insert("default route via " + wanted.gateway);
    }
    return lines;
}

bool kernel_has(const kernel_view_t &kernel, const std::string &link, const std::string &line) {
    for (const kernel_link_t &one : kernel.links) {
        if (one.name != link) {
            continue;
        }
        for (const kernel_address_t &address : kernel.addresses) {
            if (address.address.ifindex == one.index &&
                line == "address " + prefix_text(address.address)) {
                return true;
            }
        }
        for (const kernel_route_t &route : kernel.routes) {
            if (route.route.ifindex == one.index && is_static(route) &&
                line == "default route via " + address_text(route.route.gateway)) {
                return true;
            }
        }
    }
    return false;
}

} // namespace

void preview(const step_t &step, const store_view_t &store, const kernel_view_t &kernel,
             const options_t &options) {
    bool any = false;
    const auto print = [&](const std::string &line) {
        std::cout << line << '\n';
        any = true;
    };
    for (const auto &[path, text] : step.leaves) {
        print("store: set " + shown_word(path) + " to " + shown_word(text));
    }
    for (const std::string &path : step.removals) {
        print("store: remove " + shown_word(path));
    }
    const all_wanted_t before = wanted_now(store);
    const all_wanted_t after = wanted_after(before, step, store, options);
    for (const auto &[link, wanted] : after) {
        const std::set<std::string> now = lines_of(wanted);
        const auto known = before.find(link);
        for (const std::string &line :
             known != before.end() ? lines_of(known->second) : std::set<std::string>{}) {
            if (now.count(line) == 0 && kernel_has(kernel, link, line)) {
                print("kernel: " + shown(link) + ": remove " + line);
            }
        }
        for (const std::string &line : now) {
            if (!kernel_has(kernel, link, line)) {
                print("kernel: " + shown(link) + ": add " + line);
            }
        }
    }
    std::cout << (any ? "nothing was changed\n" : "there is nothing to change\n");
}

} // namespace ctl
