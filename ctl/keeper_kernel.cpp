#include "ctl/keeper_kernel.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <utility>

#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <sys/socket.h>

#include <linux/rtnetlink.h>

#include "ctl/rules.h"
#include "netlink/wire.h"

namespace ctl {

namespace {

void require(int result) {
    if (result != 0) {
        throw std::runtime_error(std::string("cannot watch the kernel: ") + nl_geterror(result));
    }
}

// The kernel adds this route when IPv6 starts on a link and deletes it when IPv6 stops.
bool is_multicast_route(const kernel_route_t &route) {
    return route.route.dst_len == 8 && route.route.dst.s6_addr[0] == 0xff;
}

} // namespace

void kernel_feed_t::closer_t::operator()(nl_sock *socket) const {
    nl_socket_free(socket);
}

kernel_feed_t::kernel_feed_t(links_t &to) : links(to), sock(nl_socket_alloc()) {
    if (sock == nullptr) {
        throw std::bad_alloc();
    }
    require(nl_connect(sock.get(), NETLINK_ROUTE));
    // As much as this user may have: each lost message is an uncertainty.
    const int size = 4 << 20;
    setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    require(nl_socket_add_memberships(sock.get(), RTNLGRP_LINK, RTNLGRP_IPV6_IFADDR,
                                      RTNLGRP_IPV6_ROUTE, 0));
    require(nl_socket_set_nonblocking(sock.get()));
    links.restart(read_kernel().links, std::chrono::steady_clock::now());
}

int kernel_feed_t::fd() const {
    return nl_socket_get_fd(sock.get());
}

bool kernel_feed_t::drain() {
    bool lost = false;
    for (;;) {
        const moment_t now = std::chrono::steady_clock::now();
        sockaddr_nl peer{};
        wire::owned_datagram_t datagram;
        datagram.length = nl_recv(sock.get(), &peer, &datagram.bytes, nullptr);
        if (datagram.length == 0 || datagram.length == -NLE_AGAIN) {
            break;
        }
        if (datagram.length < 0) { // messages were lost; older ones follow
            lost = true;
        } else if (peer.nl_pid == 0) {
            take(datagram.bytes, datagram.length, now);
        }
    }
    if (lost) {
        links.restart(read_kernel().links, std::chrono::steady_clock::now());
    } else if (look_again) {
        for (const kernel_link_t &link : read_kernel().links) {
            links.see(link, std::chrono::steady_clock::now());
        }
    }
    look_again = false;
    return std::exchange(relevant, false) || lost;
}

// Each notification is a separate datagram.
void kernel_feed_t::take(const unsigned char *bytes, int length, moment_t now) {
    const int type = wire::message_walk({bytes, length}).header().nlmsg_type;
    relevant = relevant || (type != RTM_NEWROUTE && type != RTM_DELROUTE);
    switch (type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
        take_link(type, bytes, length, now);
        break;
    case RTM_NEWADDR:
    case RTM_DELADDR:
        take_address(type, bytes, length, now);
        break;
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
        take_route(type, bytes, length, now);
        break;
    default:
        break;
    }
}

void kernel_feed_t::take_link(int type, const unsigned char *bytes, int length, moment_t now) {
    // Those of other families are about one aspect of a link, such as its place in a bridge.
    if (wire::message_walk({bytes, length}).payload<ifinfomsg>().ifi_family != AF_UNSPEC) {
        return;
    }
    const kernel_link_t link = link_of_message(bytes, length);
    if (type == RTM_NEWLINK) {
        look_again = !links.see(link, now) || look_again;
    } else {
        links.gone(link.index, link.name, now);
    }
}

void kernel_feed_t::take_address(int type, const unsigned char *bytes, int length, moment_t now) {
    const kernel_address_t address = address_of_message(bytes, length);
    const bool link_local = IN6_IS_ADDR_LINKLOCAL(&address.address.addr);
    look_again = look_again || link_local;
    if (type == RTM_DELADDR && address.has_address) {
        // The time that is left is in whole seconds.
        links.address_left(address.address.ifindex, address.address.addr, address.valid <= 1, now);
    }
}

void kernel_feed_t::take_route(int type, const unsigned char *bytes, int length, moment_t now) {
    for (const kernel_route_t &route : routes_of_message(bytes, length)) {
        // Default routes, and those that make a gateway reachable.
        const bool is_direct = IN6_IS_ADDR_UNSPECIFIED(&route.route.gateway);
        relevant = relevant || route.route.dst_len == 0 || is_direct;
        if (is_multicast_route(route)) {
            look_again = true;
            if (type == RTM_DELROUTE) {
                links.ipv6_stopped(route.route.ifindex, now);
            }
        } else if (type == RTM_DELROUTE && is_static(route)) {
            links.gateway_left(route.route.ifindex, route.route.gateway, now);
        }
    }
}

} // namespace ctl
