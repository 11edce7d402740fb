#include "ctl/keeper_plan.h"

#include <algorithm>
#include <map>
#include <set>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include "ctl/edit.h"
#include "ctl/rules.h"
#include "ctl/text.h"
#include "store/paths.h"

namespace ctl {

namespace {

// Where a mirrored leaf is: in an address node, or below the gateway; `node` is then empty.
struct place_t {
    std::string link, node, leaf;
};

std::vector<std::string> split(const std::string &path) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (std::size_t slash = 0; slash != std::string::npos; start = slash + 1) {
        slash = path.find('/', start);
        parts.push_back("/" + path.substr(start, slash - start));
    }
    return parts;
}

std::optional<place_t> place_of(const std::string &path, const std::string &prefix) {
    const std::string top = std::string(paths::interfaces) + "/";
    if (path.compare(0, top.size(), top) != 0) {
        return std::nullopt;
    }
    const std::vector<std::string> parts = split(path.substr(top.size()));
    const long number = positive_number(parts[0].substr(1));
    if (number == 0 || parts.size() < 4 || parts[1] != paths::ipv6_part ||
        parts.back() != paths::value_part) {
        return std::nullopt;
    }
    const std::string link = prefix + std::to_string(number - 1);
    if (parts.size() == 4 && parts[2] == paths::gateway_part) {
        return place_t{link, "", parts[2]};
    }
    if (parts.size() == 6 && parts[2] == paths::addresses_part) {
        return place_t{link, parts[3].substr(1), parts[4]};
    }
    return std::nullopt;
}

struct node_change_t {
    std::optional<std::string> address_before, address_after;
    std::optional<std::string> type_before;
    bool type_changed = false;
};

void add_gateway_facts(const std::string &link, const leaf_change_t &leaf,
                       std::vector<fact_t> &facts) {
    for (const auto &[kind, text] :
         {std::pair(fact_t::left, leaf.before), std::pair(fact_t::set, leaf.after)}) {
        CRoute route;
        if (text && !convert_gateway(*text, route)) {
            setting_t setting{link, true, {}, ""};
            setting.address.addr = route.gateway;
            facts.push_back({kind, setting});
        }
    }
}

// Whether the node held a Static address, which becomes `left`, and does not hold it any more.
bool has_lost(const node_change_t &node, bool type_unchanged, CAddress &left) {
    const bool was_static =
        node.type_changed ? node.type_before == type_to_str(type_static) : type_unchanged;
    if (!was_static || !node.address_before || convert_address(*node.address_before, left)) {
        return false;
    }
    CAddress after;
    return !node.address_after || convert_address(*node.address_after, after) ||
           !same_address(after, left);
}

} // namespace

std::vector<fact_t> facts_of(const std::vector<leaf_change_t> &leaves, const std::string &prefix,
                             bool type_unchanged) {
    std::vector<fact_t> facts;
    std::map<std::pair<std::string, std::string>, node_change_t> nodes;
    for (const leaf_change_t &leaf : leaves) {
        const auto place = place_of(leaf.path, prefix);
        if (!place || leaf.before == leaf.after) {
            continue;
        }
        if (place->node.empty()) {
            add_gateway_facts(place->link, leaf, facts);
            continue;
        }
        node_change_t &node = nodes[{place->link, place->node}];
        if (place->leaf == paths::address_part) {
            node.address_before = leaf.before;
            node.address_after = leaf.after;
        } else if (place->leaf == paths::type_part) {
            node.type_before = leaf.before;
            node.type_changed = true;
        }
    }
    for (const auto &[name, node] : nodes) {
        setting_t setting{name.first, false, {}, name.second};
        if (has_lost(node, type_unchanged, setting.address)) {
            facts.push_back({fact_t::left, setting});
        }
    }
    return facts;
}

std::vector<setting_t> settings_made(const std::vector<leaf_change_t> &leaves,
                                     const std::string &prefix) {
    std::vector<leaf_change_t> reversed;
    reversed.reserve(leaves.size());
    for (const leaf_change_t &leaf : leaves) {
        reversed.push_back({leaf.path, leaf.after, leaf.before});
    }
    std::vector<setting_t> settings;
    for (const fact_t &fact : facts_of(reversed, prefix, true)) {
        if (fact.kind == fact_t::left) {
            settings.push_back(fact.setting);
        }
    }
    return settings;
}

namespace {

class planner_t {
public:
    planner_t(const memory_t &remembered, const kernel_view_t &kernel_view,
              const store_view_t &store_view, const links_t &known_links, const std::string &start)
        : memory(remembered), kernel(kernel_view), store(store_view), links(known_links),
          prefix(start) {}

    plan_t make() {
        for (const removal_t &removal : memory.removals) {
            finish(removal);
        }
        for (const kept_t &kept : memory.kept) {
            keep(kept);
        }
        for (const stored_interface_t &interface : store.interfaces) {
            if (interface.number != 0 && nodes_of(interface.link).size() == 1 &&
                links.obstacle(interface.link).empty()) {
                retry(interface);
            }
        }
        return plan;
    }

private:
    using address_list_t = std::vector<const stored_address_t *>;

    std::vector<const stored_interface_t *> nodes_of(const std::string &link) const {
        std::vector<const stored_interface_t *> nodes;
        for (const stored_interface_t &interface : store.interfaces) {
            if (interface.number != 0 && interface.link == link) {
                nodes.push_back(&interface);
            }
        }
        return nodes;
    }

    const kernel_address_t *in_kernel(const std::string &link, const CAddress &address) const {
        const std::int32_t index = links.index(link);
        for (const kernel_address_t &one : kernel.addresses) {
            if (one.has_address && one.address.ifindex == index &&
                same_address(one.address, address)) {
                return &one;
            }
        }
        return nullptr;
    }

    static address_list_t stored(const stored_interface_t &interface, const CAddress &address) {
        address_list_t result;
        for (const stored_address_t &one : interface.addresses) {
            if (!one.fault && same_address(one.address, address)) {
                result.push_back(&one);
            }
        }
        return result;
    }

    static bool has_gateway_leaf(const stored_interface_t &interface) {
        return interface.gateway &&
               !(interface.gateway->fault &&
                 interface.gateway->fault->reason == reason_t::gateway_leaf_missing);
    }

    void add(task_t::kind_t kind, const setting_t &setting, const std::string &text,
             const std::string &words) {
        plan.tasks.push_back({kind, setting, text, words, type_automatic});
    }

    void keep(const kept_t &kept) {
        const setting_t &setting = kept.setting;
        const std::string text =
            setting.is_gateway ? address_text(setting.address.addr) : prefix_text(setting.address);
        if (interface_number(setting.link, prefix) == 0) {
            return; // it left while the keeper ran with another link prefix
        }
        const auto nodes = nodes_of(setting.link);
        if (nodes.empty()) {
            return add(task_t::forget, setting, text, "interface node removed");
        }
        const bool again = std::any_of(nodes.begin(), nodes.end(), [&](const auto *interface) {
            return setting.is_gateway ? has_gateway_leaf(*interface)
                                      : is_static(stored(*interface, setting.address));
        });
        if (again) {
            return add(task_t::forget, setting, text,
                       setting.is_gateway ? "a gateway is stored again" : "stored again");
        }
        if (nodes.size() > 1 || !links.obstacle(setting.link).empty()) {
            return;
        }
        setting_t free = setting;
        address_list_t copies;
        if (!setting.is_gateway) {
            copies = stored(*nodes.front(), setting.address);
            if (must_wait(in_kernel(setting.link, setting.address), !copies.empty())) {
                return;
            }
            free.node = free_node(*nodes.front(), setting.node);
        }
        add(task_t::restore, free, text, kept.why);
        drop(setting, copies);
    }

    static bool is_static(const address_list_t &found) {
        return std::any_of(found.begin(), found.end(), [](const stored_address_t *one) {
            return one->address.type == type_static;
        });
    }

    // Before an address is restored. A late message of the kernel makes the daemon store an address
    // as Automatic that it has just deleted; another message makes it remove that node again.
    static bool must_wait(const kernel_address_t *present, bool is_automatic) {
        if (is_automatic) {
            return present == nullptr || !is_configured(*present);
        }
        return present != nullptr && (present->flags & IFA_F_DADFAILED) != 0; // to be deleted
    }

    // The wanted node name, or a free number if the store or an address restored in the same run
    // has that name.
    std::string free_node(const stored_interface_t &interface, const std::string &wanted) {
        std::set<std::string> &taken = names[interface.link];
        for (const stored_address_t &one : interface.addresses) {
            taken.insert(one.node);
        }
        std::string name =
            taken.count(wanted) == 0 && !wanted.empty() ? wanted : free_number(taken);
        taken.insert(name);
        return name;
    }

    void finish(const removal_t &removal) {
        const setting_t &setting = removal.setting;
        const std::string text = prefix_text(setting.address);
        const auto nodes = nodes_of(setting.link);
        const kernel_address_t *present = in_kernel(setting.link, setting.address);
        if (nodes.size() != 1 || present == nullptr) {
            return add(task_t::settle, setting, text, "");
        }
        const address_list_t found = stored(*nodes.front(), setting.address);
        if (found.empty()) {
            return; // the daemon is not connected
        }
        if (drop_surplus(removal, found, *present)) {
            return;
        }
        const stored_address_t &one = *found.front();
        setting_t at = setting;
        at.node = one.node;
        if (found.size() == 1 && one.address.type == type_automatic && is_configured(*present)) {
            add(task_t::adopt, at, one.text, "");
        } else if (found.size() == 1 && one.address.type == type_static &&
                   one.node == removal.node) {
            add(task_t::remove, at, one.text,
                "removed from the store while tandrel was disconnected");
        } else {
            add(task_t::settle, setting, text, "");
        }
    }

    // If the address was stored again meanwhile, removes the nodes that tandrel and the keeper
    // made: they would keep it alive when somebody deletes it. False if there are none.
    bool drop_surplus(const removal_t &removal, const address_list_t &found,
                      const kernel_address_t &present) {
        address_list_t surplus;
        for (const stored_address_t *one : found) {
            if (one->node == removal.node ||
                (one->address.type == type_automatic && is_configured(present))) {
                surplus.push_back(one);
            }
        }
        if (surplus.size() == found.size()) {
            return false;
        }
        drop(removal.setting, surplus);
        return !surplus.empty();
    }

    void drop(const setting_t &setting, const address_list_t &surplus) {
        for (const stored_address_t *one : surplus) {
            setting_t at = setting;
            at.node = one->node;
            add(task_t::drop, at, one->text, "");
            plan.tasks.back().type = one->address.type;
        }
    }

    // Whether a removal of the address is under way.
    bool is_leaving(const std::string &link, const CAddress &address) const {
        return std::any_of(memory.removals.begin(), memory.removals.end(), [&](const auto &one) {
            return one.setting.link == link && same_address(one.setting.address, address);
        });
    }

    void retry(const stored_interface_t &interface) {
        for (const stored_address_t &one : interface.addresses) {
            if (!one.fault && one.address.type == type_static &&
                unfit_kind(one.address.addr) == nullptr &&
                !is_leaving(interface.link, one.address)) {
                retry_address(interface, one);
            }
        }
        if (interface.gateway && !interface.gateway->fault &&
            is_acceptable(interface, interface.gateway->route)) {
            setting_t setting{interface.link, true, {}, ""};
            setting.address.addr = interface.gateway->route.gateway;
            add(task_t::synchronise, setting, interface.gateway->text, "");
        }
    }

    void retry_address(const stored_interface_t &interface, const stored_address_t &one) {
        setting_t setting{interface.link, false, one.address, one.node};
        const kernel_address_t *present = in_kernel(interface.link, one.address);
        if (present == nullptr) {
            add(task_t::synchronise, setting, one.text, "");
        } else if ((present->flags & IFA_F_DADFAILED) != 0) {
            if (stored(interface, one.address).size() == 1) {
                add(task_t::take_out, setting, one.text, "duplicate on the network");
            }
        } else if ((present->flags & IFA_F_TENTATIVE) != 0) {
            plan.unsettled.insert(interface.link);
        }
    }

    // Whether the kernel lacks the gateway and should accept it.
    bool is_acceptable(const stored_interface_t &interface, const CRoute &stored_route) const {
        const std::int32_t index = links.index(interface.link);
        CAddress own;
        own.addr = stored_route.gateway;
        if (unfit_kind(own.addr) != nullptr || in_kernel(interface.link, own) != nullptr) {
            return false;
        }
        const bool there =
            std::any_of(kernel.routes.begin(), kernel.routes.end(), [&](const auto &one) {
                return one.route.ifindex == index && one.table == RT_TABLE_MAIN &&
                       is_default_route(one.route) && one.route.dst_len == 0 &&
                       same_gateway(one.route, stored_route);
            });
        if (there) {
            return false; // the kernel has it, perhaps from a router advertisement
        }
        const auto contains = [&](const stored_address_t &one) {
            return !one.fault && one.address.type == type_static &&
                   lies_in(own.addr, one.address.addr, one.address.prefix_len);
        };
        return is_reachable(kernel, index, own.addr) ||
               std::any_of(interface.addresses.begin(), interface.addresses.end(), contains);
    }

    const memory_t &memory;
    const kernel_view_t &kernel;
    const store_view_t &store;
    const links_t &links;
    const std::string &prefix;
    std::map<std::string, std::set<std::string>> names;
    plan_t plan;
};

} // namespace

std::vector<setting_t> settings_of(const store_view_t &store) {
    std::vector<setting_t> settings;
    for (const stored_interface_t &interface : store.interfaces) {
        for (const stored_address_t &one : interface.addresses) {
            if (!one.fault && one.address.type == type_static) {
                settings.push_back({interface.link, false, one.address, one.node});
            }
        }
        if (interface.gateway && !interface.gateway->fault) {
            setting_t gateway{interface.link, true, {}, ""};
            gateway.address.addr = interface.gateway->route.gateway;
            settings.push_back(gateway);
        }
    }
    return settings;
}

plan_t make_plan(const memory_t &memory, const kernel_view_t &kernel, const store_view_t &store,
                 const links_t &links, const std::string &prefix) {
    return planner_t(memory, kernel, store, links, prefix).make();
}

bool pace_t::is_due(moment_t now, bool lazy) {
    if (idle && lazy) {
        not_before = std::max(not_before, now + delay);
    }
    idle = false;
    return now >= not_before;
}

void pace_t::attempted(moment_t now) {
    constexpr std::chrono::seconds longest{60};
    last = now;
    not_before = now + delay;
    delay = std::min(2 * delay, longest);
}

void pace_t::reset() {
    delay = std::chrono::seconds(1);
    not_before = std::min(not_before, last + delay);
    idle = true;
}

} // namespace ctl
