#include "kernel_model.h"

#include <algorithm>
#include <cerrno>

namespace model {

bool is_link_local(const std::string &address) {
    return address.compare(0, 4, "fe80") == 0;
}

void KernelModel::tell(Notice::What what, int link, const std::string &text, int number) {
    if (heard) {
        notices.push_back({what, link, text, number});
    }
}

int KernelModel::link_of(int slot) const {
    for (const auto &item : links) {
        if (item.second.slot == slot) {
            return item.first;
        }
    }
    return 0;
}

int KernelModel::create(int slot, int index) {
    links[index] = {"eth" + std::to_string(slot), slot, false, {}};
    tell(Notice::link_new, index, links[index].name);
    return 0;
}

int KernelModel::remove(int index) {
    drop_routes(index);
    drop_addresses(index);
    tell(Notice::link_gone, index, links.at(index).name);
    links.erase(index);
    return 0;
}

int KernelModel::rename(int index, const std::string &name) {
    links.at(index).name = name;
    tell(Notice::link_new, index, name);
    return 0;
}

int KernelModel::set_up(int index, const std::string &link_local) {
    KernelLink &link = links.at(index);
    tell(Notice::link_new, index, link.name);
    if (!link.up) {
        link.up = true;
        add_address(index, link_local, 64, false);
    }
    return 0;
}

int KernelModel::set_down(int index) {
    KernelLink &link = links.at(index);
    tell(Notice::link_new, index, link.name);
    if (link.up) {
        drop_routes(index);
        drop_addresses(index);
        link.up = false;
    }
    return 0;
}

void KernelModel::drop_routes(int index) {
    for (std::size_t i = 0; i < routes.size();) {
        const KernelRoute route = routes[i];
        if (route.link != index) {
            ++i;
            continue;
        }
        routes_unsure = routes_unsure || has_siblings(route);
        routes.erase(routes.begin() + static_cast<std::ptrdiff_t>(i));
        tell(Notice::route_gone, index, route.gateway, route.protocol);
    }
}

void KernelModel::drop_addresses(int index) {
    for (const auto &address : links.at(index).addresses) {
        tell(Notice::address_gone, index, address.text, address.length);
    }
    links.at(index).addresses.clear();
}

KernelAddress *KernelModel::find_address(int index, const std::string &text) {
    for (auto &address : links.at(index).addresses) {
        if (address.text == text) {
            return &address;
        }
    }
    return nullptr;
}

bool KernelModel::has_address(int index, const std::string &text) const {
    const auto link = links.find(index);
    return link != links.end() &&
           std::any_of(link->second.addresses.begin(), link->second.addresses.end(),
                       [&](const KernelAddress &one) { return one.text == text; });
}

int KernelModel::add_address(int index, const std::string &text, int length, bool expires) {
    if (links.count(index) == 0) {
        return ENODEV;
    }
    if (find_address(index, text) != nullptr) {
        return EEXIST;
    }
    KernelLink &link = links.at(index);
    auto place = link.addresses.begin();
    if (is_link_local(text)) {
        place = std::find_if(link.addresses.begin(), link.addresses.end(),
                             [](const KernelAddress &one) { return is_link_local(one.text); });
    }
    link.addresses.insert(place, {text, length, expires});
    tell(Notice::address_new, index, text, length);
    return 0;
}

int KernelModel::delete_address(int index, const std::string &text, int length) {
    if (links.count(index) == 0) {
        return ENODEV;
    }
    const KernelAddress *const found = find_address(index, text);
    if (found == nullptr || found->length != length) {
        return EADDRNOTAVAIL;
    }
    auto &addresses = links.at(index).addresses;
    addresses.erase(addresses.begin() + (found - addresses.data()));
    tell(Notice::address_gone, index, text, length);
    return 0;
}

int KernelModel::refresh_address(int index, const std::string &text, int length) {
    KernelAddress *const found = find_address(index, text);
    if (found == nullptr) {
        return add_address(index, text, length, false);
    }
    found->expires = false;
    tell(Notice::address_new, index, text, found->length);
    return 0;
}

int KernelModel::advertise(int index, const std::string &text, bool expires) {
    if (!links.at(index).up) {
        return 0;
    }
    KernelAddress *const found = find_address(index, text);
    if (found == nullptr) {
        return add_address(index, text, 64, expires);
    }
    found->expires = found->expires && expires; // a life time is never cut short by a router
    tell(Notice::address_new, index, text, found->length);
    return 0;
}

void KernelModel::expire() {
    for (const auto &item : links) {
        const std::vector<KernelAddress> before = item.second.addresses;
        for (const auto &address : before) {
            if (address.expires) {
                delete_address(item.first, address.text, address.length);
            }
        }
    }
}

bool KernelModel::has_siblings(const KernelRoute &route) const {
    return std::any_of(routes.begin(), routes.end(), [&](const KernelRoute &other) {
        return other.metric == route.metric && !(other == route);
    });
}

int KernelModel::add_route(const KernelRoute &route, bool exclusive) {
    const auto link = links.find(route.link);
    if (link == links.end()) {
        return ENODEV;
    }
    if (!is_link_local(route.gateway)) {
        return EHOSTUNREACH;
    }
    if (!link->second.up) {
        return ENETDOWN;
    }
    for (const auto &known : routes) {
        if (known.metric == route.metric &&
            (exclusive || (known.link == route.link && known.gateway == route.gateway))) {
            return EEXIST;
        }
    }
    routes.insert(std::find_if(routes.begin(), routes.end(),
                               [&](const KernelRoute &one) { return one.metric > route.metric; }),
                  route);
    if (!has_siblings(route)) {
        tell(Notice::route_new, route.link, route.gateway, route.protocol);
    }
    return 0;
}

int KernelModel::delete_route(const KernelRoute &route) {
    if (links.count(route.link) == 0) {
        return ENODEV;
    }
    for (auto known = routes.begin(); known != routes.end(); ++known) {
        if (known->link == route.link && known->gateway == route.gateway &&
            (route.protocol == 0 || known->protocol == route.protocol) &&
            (route.metric == 0 || known->metric == route.metric)) {
            const KernelRoute gone = *known;
            routes.erase(known);
            tell(Notice::route_gone, gone.link, gone.gateway, gone.protocol);
            return 0;
        }
    }
    return ESRCH;
}

} // namespace model
