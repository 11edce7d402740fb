#include "daemon_model.h"

#include <algorithm>
#include <cerrno>

namespace model {
namespace {

constexpr int link_local_type = 1;
constexpr int automatic_type = 2;
constexpr int static_type = 3;
constexpr int static_protocol = 4;
constexpr int buckets = 11; // the engine visits links by index modulo this

const char *const type_names[] = {"", "Link-Local", "Automatic", "Static"};
static_assert(std::size(type_names) == static_type + 1);

bool is_tracked_name(const std::string &name) {
    return name.compare(0, 3, "eth") == 0;
}

} // namespace

std::vector<int> DaemonModel::order() const {
    std::vector<int> indices;
    for (const auto &item : links) {
        indices.push_back(item.first);
    }
    std::stable_sort(indices.begin(), indices.end(),
                     [](int left, int right) { return left % buckets < right % buckets; });
    return indices;
}

int DaemonModel::find_by_name(const std::string &name) const {
    for (const int index : order()) {
        if (links.at(index).name == name) {
            return index;
        }
    }
    return 0;
}

std::string DaemonModel::free_name(const Link &link) {
    for (int number = 1;; ++number) {
        const std::string name = std::to_string(number);
        const bool used = std::any_of(link.addresses.begin(), link.addresses.end(),
                                      [&](const Known &known) { return known.node == name; });
        if (!used && link.listed.count(name) == 0) {
            return name;
        }
    }
}

void DaemonModel::write_address(StoreModel &store, const Link &link, const Known &known) {
    busy = true;
    store.daemon_write(
        {{address_leaf(link.number, known.node), known.text + "/" + std::to_string(known.length)},
         {type_leaf(link.number, known.node), type_names[known.type]}});
}

void DaemonModel::remove_address(StoreModel &store, Link &link, const std::string &node) {
    busy = true;
    if (store.daemon_remove(address_node(link.number, node))) {
        link.listed.erase(node);
    }
}

void DaemonModel::stop(KernelModel &kernel, StoreModel &store) {
    running = false;
    links.clear();
    kernel.heard = false;
    kernel.notices.clear();
    store.watched = false;
    store.events.clear();
}

void DaemonModel::start(KernelModel &kernel, StoreModel &store) {
    running = true;
    links.clear();
    kernel.notices.clear();
    kernel.heard = true;
    store.watched = true;
    store.events.clear();
    // The store is not written while the numbers are 0, and they are until the first match.
    for (const auto &item : kernel.links) {
        if (is_tracked_name(item.second.name)) {
            links[item.first].name = item.second.name;
        }
    }
    for (const bool local : {false, true}) {
        for (const auto &item : kernel.links) {
            for (const auto &address : item.second.addresses) {
                if (is_link_local(address.text) == local && links.count(item.first) != 0) {
                    address_appeared(store, item.first, address.text, address.length);
                }
            }
        }
    }
    const std::vector<KernelRoute> routes = kernel.routes;
    for (const auto &route : routes) {
        if (links.count(route.link) != 0 && route.protocol == static_protocol &&
            !kernel.has_siblings(route)) {
            route_appeared(kernel, store, route.link, route.gateway);
        }
    }
    synchronise(kernel, store);
}

void DaemonModel::take_over(Link &link, const KernelAddress &address,
                            const StoredInterface &stored) {
    Known known{address.text, address.length,
                is_link_local(address.text) ? link_local_type : automatic_type, ""};
    std::vector<Known> declared; // Static entries for the same address as a link-local one
    for (const auto &one : stored.addresses) {
        if (one.text != address.text) {
            continue;
        }
        if (one.type == static_type && known.type == link_local_type) {
            declared.push_back({one.text, one.length, static_type, one.node});
            continue;
        }
        known.type = one.type == static_type ? static_type : known.type;
        known.node = known.node.empty() ? one.node : known.node;
    }
    if (known.node.empty()) {
        known.node = free_name(link);
    }
    link.addresses.push_back(known);
    if (!declared.empty()) {
        link.addresses.push_back(declared.front());
    }
}

void DaemonModel::take_over(int index, const KernelModel &kernel,
                            const std::vector<StoredInterface> &stored) {
    Link &link = links[index];
    const auto same_name = [&](const StoredInterface &one) {
        return link.name == "eth" + std::to_string(one.number - 1);
    };
    const auto mine = std::find_if(stored.begin(), stored.end(), same_name);
    if (mine != stored.end() && find_by_name(link.name) == index) {
        link.number = mine->number;
        link.listed = {mine->listed.begin(), mine->listed.end()};
    }
    const auto in_kernel = kernel.links.find(index);
    if (in_kernel == kernel.links.end()) {
        return;
    }
    for (const auto &address : in_kernel->second.addresses) {
        take_over(link, address, link.number == 0 ? StoredInterface{} : *mine);
    }
    for (const auto &route : kernel.routes) {
        const bool recorded =
            link.number != 0 ? mine->gateway == route.gateway : route.protocol == static_protocol;
        if (route.link == index && recorded) {
            link.gateway = route.gateway;
        }
    }
}

bool DaemonModel::fetch(StoreModel &store) {
    busy = true;
    return store.fetch();
}

void DaemonModel::serve_notice(KernelModel &kernel, StoreModel &store) {
    const Notice notice = kernel.notices.front();
    kernel.notices.pop_front();
    if (notice.what == Notice::link_new) {
        if (is_tracked_name(notice.text) && links.count(notice.link) == 0) {
            links[notice.link].name = notice.text;
            synchronise(kernel, store);
        }
        return;
    }
    if (links.count(notice.link) == 0) {
        return;
    }
    Link &link = links[notice.link];
    switch (notice.what) {
    case Notice::link_gone:
        if (is_tracked_name(notice.text)) {
            links.erase(notice.link);
        }
        break;
    case Notice::address_new:
        address_appeared(store, notice.link, notice.text, notice.number);
        break;
    case Notice::address_gone:
        address_vanished(store, notice.link, notice.text, notice.number);
        break;
    case Notice::route_new:
        if (notice.number == static_protocol) {
            route_appeared(kernel, store, notice.link, notice.text);
        }
        break;
    case Notice::route_gone:
        if (notice.number == static_protocol) {
            route_vanished(store, notice.link, notice.text);
        }
        break;
    case Notice::route_refused:
        if (link.gateway == notice.text && !link.gateway_leaving) {
            link.gateway.reset();
        }
        break;
    case Notice::route_removal_refused:
        route_vanished(store, notice.link, notice.text);
        break;
    default: // an address was refused: forgotten, so that it is tried again
        link.addresses.erase(std::remove_if(link.addresses.begin(), link.addresses.end(),
                                            [&](const Known &known) {
                                                return known.type == static_type &&
                                                       known.text == notice.text &&
                                                       known.length == notice.number;
                                            }),
                             link.addresses.end());
    }
}

void DaemonModel::address_appeared(StoreModel &store, int index, const std::string &text,
                                   int length) {
    Link &link = links[index];
    if (is_leaving(link, text, length) &&
        std::any_of(link.addresses.begin(), link.addresses.end(), [&](const Known &known) {
            return known.text == text && known.length != length;
        })) {
        return; // announced before the daemon gave it another length
    }
    Known *match = nullptr;
    for (auto &known : link.addresses) {
        if (known.text == text) {
            known.length = length;
            match = &known;
        }
    }
    if (match == nullptr) {
        link.addresses.push_back({text, length,
                                  is_link_local(text) ? link_local_type : automatic_type,
                                  free_name(link)});
        match = &link.addresses.back();
    }
    if (link.number != 0) {
        write_address(store, link, *match);
    }
}

void DaemonModel::delete_address(KernelModel &kernel, int index, const Known &known) {
    if (kernel.delete_address(index, known.text, known.length) == 0) {
        links[index].leaving.push_back({known.text, known.length, false});
    }
}

int DaemonModel::add_address(KernelModel &kernel, int index, const Known &known) {
    for (Deletion &deletion : links[index].leaving) {
        if (deletion.text == known.text && deletion.length == known.length) {
            deletion.added_again = true;
        }
    }
    return kernel.add_address(index, known.text, known.length, false);
}

bool DaemonModel::is_leaving(const Link &link, const std::string &text, int length) {
    return std::any_of(link.leaving.begin(), link.leaving.end(), [&](const Deletion &deletion) {
        return deletion.text == text && deletion.length == length && !deletion.added_again;
    });
}

void DaemonModel::address_vanished(StoreModel &store, int index, const std::string &text,
                                   int length) {
    Link &link = links[index];
    const auto own =
        std::find_if(link.leaving.begin(), link.leaving.end(), [&](const Deletion &deletion) {
            return deletion.text == text && deletion.length == length;
        });
    if (own != link.leaving.end()) {
        const bool added_again = own->added_again;
        link.leaving.erase(own);
        if (added_again) {
            return; // the report is not of what was added since
        }
    }
    for (std::size_t i = 0; i < link.addresses.size(); ++i) {
        if (link.addresses[i].text == text && link.addresses[i].length == length) {
            if (link.number != 0) {
                remove_address(store, link, link.addresses[i].node);
            }
            // Like the daemon, do not examine the entry that moves into its position.
            link.addresses.erase(link.addresses.begin() + static_cast<std::ptrdiff_t>(i));
        }
    }
}

void DaemonModel::route_appeared(KernelModel &kernel, StoreModel &store, int index,
                                 const std::string &gateway) {
    Link &link = links[index];
    if (link.gateway) {
        if (*link.gateway == gateway) {
            return;
        }
        if (kernel.delete_route({index, *link.gateway, 0, 0}) == ESRCH) {
            kernel.notices.push_back({Notice::route_removal_refused, index, *link.gateway});
        }
    }
    link.gateway = gateway;
    link.gateway_leaving = false;
    if (link.number != 0) {
        busy = true;
        store.daemon_write({{gateway_leaf(link.number), gateway}});
    }
}

void DaemonModel::route_vanished(StoreModel &store, int index, const std::string &gateway) {
    Link &link = links[index];
    if (link.gateway != gateway) {
        return;
    }
    if (link.number != 0) {
        busy = true;
        store.daemon_remove(gateway_node(link.number));
    }
    link.gateway.reset();
}

void DaemonModel::synchronise(KernelModel &kernel, StoreModel &store) {
    busy = true;
    const std::vector<StoredInterface> snapshot = store.read();
    const auto find_stored = [&](const Link &link) {
        return std::find_if(snapshot.begin(), snapshot.end(), [&](const StoredInterface &stored) {
            return link.name == "eth" + std::to_string(stored.number - 1);
        });
    };
    for (auto &item : links) {
        if (find_stored(item.second) == snapshot.end() ||
            find_by_name(item.second.name) != item.first) {
            item.second.number = 0;
            item.second.listed.clear();
        }
    }
    for (const auto &stored : snapshot) {
        const int index = find_by_name("eth" + std::to_string(stored.number - 1));
        if (index != 0) {
            store_into_kernel(kernel, store, index, stored);
        }
    }
    for (const int index : order()) {
        Link &link = links[index];
        if (link.number != 0) {
            kernel_into_store(store, link, *find_stored(link));
        }
    }
}

void DaemonModel::store_into_kernel(KernelModel &kernel, StoreModel &store, int index,
                                    const StoredInterface &stored) {
    Link &link = links[index];
    link.number = stored.number;
    link.listed = {stored.listed.begin(), stored.listed.end()};
    std::vector<bool> seen(link.addresses.size(), false);
    for (const auto &address : stored.addresses) {
        stored_address(kernel, store, index, address, seen);
    }
    std::vector<Known> kept;
    std::vector<bool> kept_seen;
    for (std::size_t i = 0; i < link.addresses.size(); ++i) {
        const Known &known = link.addresses[i];
        if (!seen[i] && known.type == static_type) {
            delete_address(kernel, index, known);
        } else {
            kept.push_back(known);
            kept_seen.push_back(seen[i]);
        }
    }
    link.addresses = kept;
    for (std::size_t i = 0; i < kept.size(); ++i) {
        if (!kept_seen[i] && link.listed.count(link.addresses[i].node) != 0) {
            link.addresses[i].node = free_name(link);
        }
    }
    gateway_into_kernel(kernel, index, stored);
}

void DaemonModel::stored_address(KernelModel &kernel, StoreModel &store, int index,
                                 const StoredAddress &stored, std::vector<bool> &seen) {
    Link &link = links[index];
    for (std::size_t i = 0; i < link.addresses.size(); ++i) {
        Known &known = link.addresses[i];
        if (known.text != stored.text) {
            continue;
        }
        if (known.type == automatic_type && stored.type == static_type) {
            known.type = static_type;
        }
        if (known.type != stored.type) {
            continue;
        }
        if (!seen[i]) {
            known.node = stored.node;
        }
        seen[i] = true;
        if (known.type == static_type && known.length != stored.length) {
            delete_address(kernel, index, known);
            known.length = stored.length;
            add_address(kernel, index, known);
        } else if (known.type == static_type && is_leaving(link, known.text, known.length)) {
            add_address(kernel, index, known);
        }
        return;
    }
    if (stored.type != static_type) {
        remove_address(store, link, stored.node);
        return;
    }
    link.addresses.push_back({stored.text, stored.length, static_type, stored.node});
    seen.push_back(true);
    const int error = add_address(kernel, index, link.addresses.back());
    if (error != 0 && error != EEXIST) {
        kernel.notices.push_back({Notice::address_refused, index, stored.text, stored.length});
    }
}

void DaemonModel::gateway_into_kernel(KernelModel &kernel, int index,
                                      const StoredInterface &stored) {
    Link &link = links[index];
    if (link.gateway && link.gateway != stored.gateway) {
        if (kernel.delete_route({index, *link.gateway, 0, 0}) == ESRCH) {
            kernel.notices.push_back({Notice::route_removal_refused, index, *link.gateway});
        }
        link.gateway_leaving = true;
    }
    if (!stored.gateway) {
        return;
    }
    link.gateway = stored.gateway;
    link.gateway_leaving = false;
    const int error = kernel.add_route(
        {index, *stored.gateway, static_protocol, KernelModel::usual_metric}, false);
    if (error != 0 && error != EEXIST) {
        kernel.notices.push_back({Notice::route_refused, index, *stored.gateway, error});
    }
}

void DaemonModel::kernel_into_store(StoreModel &store, Link &link, const StoredInterface &stored) {
    for (const auto &known : link.addresses) {
        const bool is_stored =
            std::any_of(stored.addresses.begin(), stored.addresses.end(),
                        [&](const StoredAddress &one) { return one.text == known.text; });
        if (!is_stored) {
            write_address(store, link, known);
        }
    }
    if (link.gateway) {
        store.daemon_write({{gateway_leaf(link.number), *link.gateway}});
    }
}

} // namespace model
