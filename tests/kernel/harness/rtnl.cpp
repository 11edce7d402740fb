#include "harness/rtnl.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <set>
#include <utility>

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <netlink/route/link/bridge.h>
#include <netlink/route/link/veth.h>
#include <netlink/route/route.h>
#include <netlink/route/rtnl.h>

#include "harness/sandbox.h"

namespace kt {
namespace {

using rtnl_addr_ptr = std::unique_ptr<rtnl_addr, released_by<rtnl_addr_put>>;
using route_ptr = std::unique_ptr<rtnl_route, released_by<rtnl_route_put>>;
using callbacks_ptr = std::unique_ptr<nl_cb, released_by<nl_cb_put>>;

// libnl maps several errno values to one code of its own.
int keep_refusal(sockaddr_nl * /*sender*/, nlmsgerr *answer, void *refusal) {
    *static_cast<int *>(refusal) = -answer->error;
    return NL_STOP;
}

int keep_objects(nl_msg *message, void *objects) {
    const auto keep = [](nl_object *object, void *kept) {
        nl_object_get(object);
        static_cast<std::vector<object_ptr> *>(kept)->emplace_back(object);
    };
    return nl_msg_parse(message, keep, objects);
}

void succeed(int error, const std::string &what) {
    errno = error;
    if (error != 0) {
        fail(what);
    }
}

std::string text_of(const nl_addr *address) {
    char text[64] = {};
    return address == nullptr ? "" : nl_addr2str(address, static_cast<char *>(text), sizeof text);
}

// With the prefix length, which libnl leaves out for a whole address.
std::string prefix_text(const nl_addr *address) {
    if (nl_addr_get_len(address) == 0) {
        return "::/0"; // messages about default routes have no destination
    }
    const std::string text = text_of(address);
    return text.find('/') == std::string::npos ? text + "/128" : text;
}

rtnl_addr_ptr describe_address(int index, const std::string &text,
                               const address_options_t &options) {
    rtnl_addr_ptr address(rtnl_addr_alloc());
    rtnl_addr_set_ifindex(address.get(), index);
    check(rtnl_addr_set_local(address.get(), parse_address(text).get()), text);
    rtnl_addr_set_flags(address.get(), options.flags);
    if (options.valid_seconds != 0) {
        rtnl_addr_set_valid_lifetime(address.get(), options.valid_seconds);
        rtnl_addr_set_preferred_lifetime(address.get(), options.valid_seconds);
    }
    return address;
}

route_ptr describe_route(int index, const kernel_route_t &route) {
    route_ptr described(rtnl_route_alloc());
    check(rtnl_route_set_dst(described.get(), parse_address(route.destination).get()),
          route.destination);
    rtnl_route_set_protocol(described.get(), route.protocol);
    rtnl_route_set_table(described.get(), route.table);
    if (route.metric != 0) {
        rtnl_route_set_priority(described.get(), route.metric);
    }
    auto gateways = route.more_gateways;
    gateways.insert(gateways.begin(), route.gateway);
    for (const auto &gateway : gateways) {
        const address_ptr through = gateway.empty() ? nullptr : parse_address(gateway);
        rtnl_nexthop *hop = rtnl_route_nh_alloc();
        rtnl_route_nh_set_ifindex(hop, index);
        rtnl_route_nh_set_gateway(hop, through.get());
        rtnl_route_add_nexthop(described.get(), hop); // which owns it then
    }
    return described;
}

} // namespace

Kernel::Kernel(int namespace_fd) : netlink(nl_socket_alloc()) {
    const NamespaceVisit visit(namespace_fd);
    check(nl_connect(netlink.get(), NETLINK_ROUTE), "netlink socket");
    nl_socket_modify_err_cb(netlink.get(), NL_CB_CUSTOM, keep_refusal, &refusal);
}

// Takes what libnl returned for a request; returns the errno value of the kernel's answer.
int Kernel::answer(int status) {
    const int error = std::exchange(refusal, 0);
    if (error == 0) {
        check(status, "netlink request");
    }
    return status < 0 ? error : 0;
}

// Without libnl's caches: they keep one route for each destination and metric, and report an error
// when they repeat an interrupted dump.
std::vector<object_ptr> Kernel::dump(int type, int family) {
    std::vector<object_ptr> found;
    const callbacks_ptr callbacks(nl_cb_alloc(NL_CB_DEFAULT));
    nl_cb_set(callbacks.get(), NL_CB_VALID, NL_CB_CUSTOM, keep_objects, &found);
    // A table that changes meanwhile interrupts its dump, and records may be missing. If it keeps
    // changing, the last dump has to do.
    int status = -NLE_DUMP_INTR;
    for (int attempt = 0; attempt < 50 && status == -NLE_DUMP_INTR; ++attempt) {
        found.clear();
        check(nl_rtgen_request(netlink.get(), type, family, NLM_F_DUMP), "netlink dump request");
        status = nl_recvmsgs(netlink.get(), callbacks.get());
    }
    check(status == -NLE_DUMP_INTR ? 0 : status, "netlink dump");
    return found;
}

void Kernel::add_veth(const std::string &name, const std::string &peer, int peer_namespace) {
    const link_ptr link(rtnl_link_veth_alloc());
    rtnl_link_set_name(link.get(), name.c_str());
    const link_ptr other(rtnl_link_veth_get_peer(link.get()));
    rtnl_link_set_name(other.get(), peer.c_str());
    rtnl_link_set_ns_fd(other.get(), peer_namespace);
    succeed(answer(rtnl_link_add(netlink.get(), link.get(), NLM_F_CREATE | NLM_F_EXCL)),
            "adding the link pair " + name);
}

void Kernel::add_bridge(const std::string &name) {
    succeed(answer(rtnl_link_bridge_add(netlink.get(), name.c_str())), "adding the bridge " + name);
}

void Kernel::set_master(const std::string &name, const std::string &master) {
    const int status = master.empty()
                           ? rtnl_link_release_ifindex(netlink.get(), index(name))
                           : rtnl_link_enslave_ifindex(netlink.get(), index(master), index(name));
    succeed(answer(status), "changing the master of " + name);
}

void Kernel::change_link(const std::string &name, const std::function<void(rtnl_link *)> &change) {
    const link_ptr link(rtnl_link_alloc());
    const link_ptr changes(rtnl_link_alloc());
    rtnl_link_set_ifindex(link.get(), index(name));
    change(changes.get());
    succeed(answer(rtnl_link_change(netlink.get(), link.get(), changes.get(), 0)),
            "changing the link " + name);
}

void Kernel::delete_link(const std::string &name) {
    const link_ptr link(rtnl_link_alloc());
    rtnl_link_set_ifindex(link.get(), index(name));
    succeed(answer(rtnl_link_delete(netlink.get(), link.get())), "deleting the link " + name);
}

void Kernel::rename(const std::string &name, const std::string &new_name) {
    change_link(name, [&](rtnl_link *link) { rtnl_link_set_name(link, new_name.c_str()); });
}

void Kernel::move_link(const std::string &name, int to_namespace) {
    change_link(name, [&](rtnl_link *link) { rtnl_link_set_ns_fd(link, to_namespace); });
}

void Kernel::set_up(const std::string &name, bool up) {
    change_link(name, [&](rtnl_link *link) {
        (up ? rtnl_link_set_flags : rtnl_link_unset_flags)(link, IFF_UP);
    });
}

void Kernel::set_hardware_address(const std::string &name, const std::string &octets) {
    change_link(name, [&](rtnl_link *link) {
        rtnl_link_set_addr(link, parse_address(octets, AF_LLC).get());
    });
}

void Kernel::set_mtu(const std::string &name, std::uint32_t mtu) {
    change_link(name, [&](rtnl_link *link) { rtnl_link_set_mtu(link, mtu); });
}

std::vector<kernel_link_t> Kernel::links() {
    std::vector<kernel_link_t> found;
    for (const auto &object : dump(RTM_GETLINK, AF_UNSPEC)) {
        auto *link = reinterpret_cast<rtnl_link *>(object.get());
        found.push_back({rtnl_link_get_ifindex(link), rtnl_link_get_name(link),
                         text_of(rtnl_link_get_addr(link))});
    }
    return found;
}

link_ptr Kernel::find_link(const std::string &name) {
    rtnl_link *link = nullptr;
    const int status = rtnl_link_get_kernel(netlink.get(), 0, name.c_str(), &link);
    check(status == -NLE_NODEV ? 0 : status, "looking for the link " + name);
    return link_ptr(link);
}

int Kernel::index(const std::string &name) {
    const link_ptr link = find_link(name);
    return link == nullptr ? 0 : rtnl_link_get_ifindex(link.get());
}

std::string Kernel::hardware_address(const std::string &name) {
    const link_ptr link = find_link(name);
    return link == nullptr ? "" : text_of(rtnl_link_get_addr(link.get()));
}

int Kernel::try_add_address(const std::string &link, const std::string &text,
                            const address_options_t &options) {
    const rtnl_addr_ptr address = describe_address(index(link), text, options);
    nl_msg *request = nullptr;
    check(rtnl_addr_build_add_request(address.get(), options.replace ? NLM_F_REPLACE : NLM_F_EXCL,
                                      &request),
          text);
    if (!options.peer.empty()) {
        // rtnl_addr_set_peer refuses IPv6; without a peer the attribute repeats the own address.
        nlattr *place = nlmsg_find_attr(nlmsg_hdr(request), sizeof(ifaddrmsg), IFA_ADDRESS);
        const address_ptr peer = parse_address(options.peer);
        std::memcpy(nla_data(place), nl_addr_get_binary_addr(peer.get()), sizeof(in6_addr));
    }
    return answer(nl_send_sync(netlink.get(), request)); // which frees it
}

int Kernel::try_delete_address(const std::string &link, const std::string &text) {
    const rtnl_addr_ptr address = describe_address(index(link), text, {});
    return answer(rtnl_addr_delete(netlink.get(), address.get(), 0));
}

void Kernel::add_address(const std::string &link, const std::string &text,
                         const address_options_t &options) {
    succeed(try_add_address(link, text, options), "adding " + text + " to " + link);
}

void Kernel::delete_address(const std::string &link, const std::string &text) {
    succeed(try_delete_address(link, text), "deleting " + text + " from " + link);
}

std::vector<kernel_address_t> Kernel::addresses(const std::string &link) {
    std::vector<kernel_address_t> found;
    const int wanted = index(link);
    for (const auto &object : dump(RTM_GETADDR, AF_INET6)) {
        auto *address = reinterpret_cast<rtnl_addr *>(object.get());
        if (rtnl_addr_get_ifindex(address) == wanted) {
            const nl_addr *peer = rtnl_addr_get_peer(address);
            found.push_back({prefix_text(peer != nullptr ? peer : rtnl_addr_get_local(address)),
                             rtnl_addr_get_flags(address),
                             static_cast<std::uint8_t>(rtnl_addr_get_scope(address)),
                             rtnl_addr_get_valid_lifetime(address)});
        }
    }
    return found;
}

bool Kernel::has_address(const std::string &link, const std::string &text) {
    const auto all = addresses(link);
    return std::any_of(all.begin(), all.end(),
                       [&](const kernel_address_t &address) { return address.text == text; });
}

bool Kernel::is_checking() {
    std::set<int> running;
    for (const auto &object : dump(RTM_GETLINK, AF_UNSPEC)) {
        auto *link = reinterpret_cast<rtnl_link *>(object.get());
        if ((rtnl_link_get_flags(link) & IFF_RUNNING) != 0) {
            running.insert(rtnl_link_get_ifindex(link));
        }
    }
    const auto all = dump(RTM_GETADDR, AF_INET6);
    return std::any_of(all.begin(), all.end(), [&running](const auto &object) {
        auto *address = reinterpret_cast<rtnl_addr *>(object.get());
        const unsigned int state =
            rtnl_addr_get_flags(address) & (IFA_F_TENTATIVE | IFA_F_DADFAILED);
        return state == IFA_F_TENTATIVE && running.count(rtnl_addr_get_ifindex(address)) != 0;
    });
}

std::string Kernel::link_local(const std::string &link) {
    for (const auto &address : addresses(link)) {
        if (address.scope == RT_SCOPE_LINK) {
            return address.text;
        }
    }
    return {};
}

int Kernel::try_add_route(const kernel_route_t &route) {
    const route_ptr described = describe_route(route.link.empty() ? 0 : index(route.link), route);
    return answer(rtnl_route_add(netlink.get(), described.get(), NLM_F_EXCL));
}

int Kernel::try_delete_route(const kernel_route_t &route) {
    const route_ptr described = describe_route(route.link.empty() ? 0 : index(route.link), route);
    return answer(rtnl_route_delete(netlink.get(), described.get(), 0));
}

void Kernel::add_route(const kernel_route_t &route) {
    succeed(try_add_route(route),
            "adding the route to " + route.destination + " through " + route.gateway);
}

void Kernel::delete_route(const kernel_route_t &route) {
    succeed(try_delete_route(route),
            "deleting the route to " + route.destination + " through " + route.gateway);
}

std::vector<kernel_route_t> Kernel::routes() {
    std::map<int, std::string> names;
    std::vector<kernel_route_t> found;
    const auto objects = dump(RTM_GETROUTE, AF_INET6);
    for (const auto &link : links()) {
        names[link.index] = link.name;
    }
    for (const auto &object : objects) {
        auto *route = reinterpret_cast<rtnl_route *>(object.get());
        if (rtnl_route_get_table(route) != RT_TABLE_MAIN) {
            continue;
        }
        kernel_route_t one;
        one.destination = prefix_text(rtnl_route_get_dst(route));
        one.protocol = rtnl_route_get_protocol(route);
        one.metric = rtnl_route_get_priority(route);
        const int hops = rtnl_route_get_nnexthops(route);
        for (int i = 0; i < hops; ++i) {
            rtnl_nexthop *hop = rtnl_route_nexthop_n(route, i);
            one.gateway = text_of(rtnl_route_nh_get_gateway(hop));
            one.link = names[rtnl_route_nh_get_ifindex(hop)];
            found.push_back(one);
        }
    }
    return found;
}

std::vector<std::string> Kernel::static_gateways(const std::string &link) {
    std::vector<std::string> gateways;
    for (const auto &route : routes()) {
        if (route.destination == "::/0" && route.protocol == RTPROT_STATIC && route.link == link &&
            !route.gateway.empty()) {
            gateways.push_back(route.gateway);
        }
    }
    return gateways;
}

void Kernel::forge(unsigned int group, std::vector<unsigned char> datagram) {
    nl_socket_set_peer_groups(netlink.get(), 1U << (group - 1));
    const int status = nl_sendto(netlink.get(), datagram.data(), datagram.size());
    nl_socket_set_peer_groups(netlink.get(), 0);
    check(status, "sending to a netlink group");
}

} // namespace kt
