#include "support/watcher.h"

#include <array>
#include <cstdio>
#include <set>
#include <stdexcept>

#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/netlink.h>
#include <netlink/route/addr.h>
#include <poll.h>

#include "harness/sandbox.h"

namespace bench {
namespace {

constexpr int patience_ms = 120000;

kt::socket_ptr open_netlink() {
    kt::socket_ptr netlink(nl_socket_alloc());
    kt::check(nl_connect(netlink.get(), NETLINK_ROUTE), "netlink socket");
    return netlink;
}

using rtnl_addr_ptr = std::unique_ptr<rtnl_addr, kt::released_by<rtnl_addr_put>>;

rtnl_addr_ptr describe(int index, const std::string &text) {
    rtnl_addr_ptr address(rtnl_addr_alloc());
    rtnl_addr_set_ifindex(address.get(), index);
    kt::check(rtnl_addr_set_local(address.get(), kt::parse_address(text).get()), text);
    return address;
}

} // namespace

std::string address_text(int number) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "2001:db8:0:1::%x/64", static_cast<unsigned>(number));
    return text.data();
}

Watcher::Watcher() : netlink(open_netlink()) {
    kt::check(nl_socket_add_membership(netlink.get(), RTNLGRP_IPV6_IFADDR), "joining a group");
    const int size = 16 << 20;
    setsockopt(fd(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
}

void Watcher::drain() {
    std::array<unsigned char, 65536> buffer{};
    while (recv(fd(), buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) {
    }
}

time_point Watcher::wait_for_addresses(std::size_t count) {
    std::set<std::string> seen;
    time_point last = clock_type::now();
    alignas(nlmsghdr) std::array<unsigned char, 65536> buffer{};
    while (seen.size() < count) {
        pollfd waiting{fd(), POLLIN, 0};
        if (poll(&waiting, 1, patience_ms) <= 0) {
            throw std::runtime_error("only " + std::to_string(seen.size()) + " of " +
                                     std::to_string(count) + " addresses came");
        }
        const ssize_t length = recv(fd(), buffer.data(), buffer.size(), 0);
        if (length < 0) {
            kt::fail("netlink recv");
        }
        last = clock_type::now();
        auto *header = static_cast<nlmsghdr *>(static_cast<void *>(buffer.data()));
        const auto *record = static_cast<const ifaddrmsg *>(nlmsg_data(header));
        if (header->nlmsg_type != RTM_NEWADDR || record->ifa_scope != RT_SCOPE_UNIVERSE) {
            continue;
        }
        const nlattr *address = nlmsg_find_attr(header, sizeof *record, IFA_ADDRESS);
        if (address != nullptr) {
            const auto *bytes = static_cast<const unsigned char *>(nla_data(address));
            seen.emplace(bytes, bytes + nla_len(address));
        }
    }
    return last;
}

Requester::Requester(int link_index) : netlink(open_netlink()), index(link_index) {}

void Requester::add(const std::string &address) {
    kt::check(rtnl_addr_add(netlink.get(), describe(index, address).get(), NLM_F_EXCL),
              "adding " + address);
}

void Requester::remove(const std::string &address) {
    kt::check(rtnl_addr_delete(netlink.get(), describe(index, address).get(), 0),
              "deleting " + address);
}

} // namespace bench
