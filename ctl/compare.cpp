// Pairs the two views: links with interface nodes, and their addresses and gateways.
#include "ctl/compare.h"

#include <algorithm>

#include <linux/if_addr.h>

#include "ctl/explain.h"
#include "ctl/rules.h"
#include "store/paths.h"

namespace ctl {

namespace {

// Whether the node stores this kernel address. If several nodes do, the first one is used and the
// others are duplicates.
bool same(const stored_address_t &stored, const kernel_address_t &address) {
    return !stored.fault && address.has_address && same_address(stored.address, address.address);
}

class pairing_t {
public:
    pairing_t(const kernel_view_t &kernel_view, const store_view_t &store_view,
              const std::string &link_prefix)
        : kernel(kernel_view), store(store_view), prefix(link_prefix) {}

    comparison_t run() {
        for (const kernel_link_t &link : kernel.links) {
            add(link.name, &link);
        }
        for (const stored_interface_t &stored : store.interfaces) {
            if (stored.number != 0 && result.find(stored.link) == nullptr) {
                add(stored.link, nullptr);
            }
        }
        if (store.answered) {
            explain_store(store, kernel, prefix, result.findings);
        }
        return std::move(result);
    }

private:
    void add(const std::string &name, const kernel_link_t *link) {
        interface_view_t view;
        view.link = name;
        view.number = interface_number(name, prefix);
        view.store_known = store.answered;
        if (link != nullptr) {
            view.kernel = *link;
            view.tracked = link->ethernet && !link->hwaddr.empty() && link->has_ipv6 &&
                           has_prefix(name, prefix);
        }
        std::vector<const stored_interface_t *> nodes;
        for (const stored_interface_t &stored : store.interfaces) {
            if (stored.number != 0 && stored.link == name) {
                nodes.push_back(&stored);
            }
        }
        view.has_node = !nodes.empty();
        add_addresses(view, nodes);
        add_gateways(view, nodes);
        if (store.answered) {
            explain_interface(view, nodes, kernel, prefix);
        }
        result.interfaces.push_back(std::move(view));
    }

    // The mark of an item that only the kernel has, as far as is known. `wanted`: the daemon would
    // store it.
    static mark_t mark_of_kernels(const interface_view_t &view, bool wanted) {
        if (!view.store_known) {
            return mark_t::half_known;
        }
        return wanted && view.has_node && view.tracked ? mark_t::kernel_only : mark_t::left_alone;
    }

    void add_addresses(interface_view_t &view,
                       const std::vector<const stored_interface_t *> &nodes) const {
        for (const kernel_address_t &address : kernel.addresses) {
            if (view.kernel && address.address.ifindex == view.kernel->index) {
                address_row_t row;
                row.kernel = address;
                row.mark = mark_of_kernels(view, true);
                view.addresses.push_back(row);
            }
        }
        for (const stored_interface_t *node : nodes) {
            for (const stored_address_t &stored : node->addresses) {
                add_stored(view, stored);
            }
        }
    }

    static void add_stored(interface_view_t &view, const stored_address_t &stored) {
        for (address_row_t &row : view.addresses) {
            if (row.kernel && !row.stored && same(stored, *row.kernel)) {
                row.stored = stored;
                const bool agree = row.kernel->address.prefix_len == stored.address.prefix_len &&
                                   type_agrees(stored.address.type, row.kernel->address.scope);
                const bool duplicate = (row.kernel->flags & IFA_F_DADFAILED) != 0;
                row.mark = !agree ? mark_t::differ : duplicate ? mark_t::unusable : mark_t::both;
                return;
            }
        }
        address_row_t row;
        row.stored = stored;
        row.mark = stored.fault ? mark_t::unusable : mark_t::store_only;
        view.addresses.push_back(row);
    }

    // Adds the kernel's default routes, and the stored gateway in the row of the static one.
    void add_gateways(interface_view_t &view,
                      const std::vector<const stored_interface_t *> &nodes) const {
        for (const kernel_route_t &route : kernel.routes) {
            if (!view.kernel || route.route.ifindex != view.kernel->index ||
                !is_default_route(route.route) || !has_gateway(route.route)) {
                continue;
            }
            gateway_row_t row;
            row.kernel = route;
            row.mark = mark_of_kernels(view, is_adopted(route));
            view.gateways.push_back(row);
        }
        for (const stored_interface_t *node : nodes) {
            if (node->gateway) {
                add_stored(view, *node->gateway);
            }
        }
    }

    static void add_stored(interface_view_t &view, const stored_gateway_t &stored) {
        gateway_row_t *beside = nullptr;
        for (gateway_row_t &row : view.gateways) {
            if (stored.fault || !row.kernel || row.stored || !is_static(*row.kernel)) {
                continue;
            }
            // The kernel may have several: prefer the one via the stored gateway with the metric
            // that tandrel uses, then any via that gateway, then the first.
            const bool same = same_gateway(row.kernel->route, stored.route);
            if (same ? beside == nullptr || !same_gateway(beside->kernel->route, stored.route) ||
                           row.kernel->metric == usual_metric
                     : beside == nullptr && is_adopted(*row.kernel)) {
                beside = &row;
            }
        }
        if (beside == nullptr) {
            gateway_row_t row;
            row.mark = stored.fault ? mark_t::unusable : mark_t::store_only;
            row.stored = stored;
            view.gateways.push_back(row);
            return;
        }
        beside->stored = stored;
        beside->mark =
            same_gateway(beside->kernel->route, stored.route) ? mark_t::both : mark_t::differ;
        for (gateway_row_t &row : view.gateways) {
            // The same with another metric, or in another table.
            if (row.mark == mark_t::kernel_only && same_gateway(row.kernel->route, stored.route)) {
                row.mark = mark_t::left_alone;
            }
        }
    }

    const kernel_view_t &kernel;
    const store_view_t &store;
    const std::string &prefix;
    comparison_t result;
};

} // namespace

const interface_view_t *comparison_t::find(const std::string &link) const {
    const auto found = std::find_if(interfaces.begin(), interfaces.end(),
                                    [&](const interface_view_t &one) { return one.link == link; });
    return found != interfaces.end() ? &*found : nullptr;
}

comparison_t compare(const kernel_view_t &kernel, const store_view_t &store,
                     const std::string &prefix) {
    return pairing_t(kernel, store, prefix).run();
}

} // namespace ctl
