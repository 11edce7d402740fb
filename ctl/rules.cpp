#include "ctl/rules.h"

#include <algorithm>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include "ctl/text.h"

namespace ctl {

bool has_prefix(const std::string &link, const std::string &prefix) {
    return link.compare(0, prefix.size(), prefix) == 0;
}

std::string prefix_of(const std::string &link) {
    const std::string prefix = link.substr(0, link.find_last_not_of("0123456789") + 1);
    return interface_number(link, prefix) != 0 ? prefix : "PREFIX";
}

long interface_number(const std::string &link, const std::string &prefix) {
    if (!has_prefix(link, prefix)) {
        return 0;
    }
    const std::string digits = link.substr(prefix.size());
    const bool plain = !digits.empty() && digits.size() < 10 &&
                       digits.find_first_not_of("0123456789") == std::string::npos &&
                       (digits == "0" || digits.front() != '0');
    return plain ? std::stol(digits) + 1 : 0;
}

std::int32_t type_of_scope(std::uint8_t scope) {
    return scope == RT_SCOPE_LINK ? type_link_local : type_automatic;
}

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

bool is_configured(const kernel_address_t &address) {
    // Newer kernels report the origin: 1 loopback, 2 router advertisement, 3 link-local.
    const bool kernel_made_it = address.origin >= 1 && address.origin <= 3;
    return address.has_address && !address.has_peer && address.address.scope == RT_SCOPE_UNIVERSE &&
           (address.flags & IFA_F_PERMANENT) != 0 && !kernel_made_it;
}

bool is_configured(const kernel_view_t &kernel, std::int32_t ifindex) {
    return std::any_of(kernel.addresses.begin(), kernel.addresses.end(),
                       [&](const kernel_address_t &one) {
                           return one.address.ifindex == ifindex && is_configured(one);
                       }) ||
           std::any_of(kernel.routes.begin(), kernel.routes.end(), [&](const kernel_route_t &one) {
               return one.route.ifindex == ifindex && is_adopted(one);
           });
}

bool is_static(const kernel_route_t &route) {
    return has_gateway(route.route) && is_default_route(route.route) &&
           route.route.protocol == RTPROT_STATIC;
}

bool is_adopted(const kernel_route_t &route) {
    return route.has_index && is_static(route);
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

bool is_reachable(const kernel_view_t &kernel, std::int32_t ifindex, const in6_addr &gateway) {
    if (IN6_IS_ADDR_LINKLOCAL(&gateway)) {
        return true;
    }
    return std::any_of(kernel.routes.begin(), kernel.routes.end(), [&](const kernel_route_t &one) {
        return one.route.ifindex == ifindex && !has_gateway(one.route) && one.type == RTN_UNICAST &&
               one.table == RT_TABLE_MAIN && lies_in(gateway, one.route.dst, one.route.dst_len);
    });
}

std::string replacement(const std::string &link, const kernel_route_t &route) {
    std::string command = "tandrelctl nudge && ip -6 route del default via " +
                          address_text(route.route.gateway) + " dev " + shown_word(link);
    // Of a joined route the kernel says the protocol of one part only.
    if (!route.multipath) {
        command += " proto " + protocol_name(route.route.protocol);
    }
    if (route.metric != 0) {
        command += " metric " + std::to_string(route.metric);
    }
    if (route.table != RT_TABLE_MAIN) {
        command += " table " + std::to_string(route.table);
    }
    return command + " && tandrelctl nudge";
}

} // namespace ctl
