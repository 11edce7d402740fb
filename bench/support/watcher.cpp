#include "support/watcher.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <stdexcept>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "harness/sandbox.h"

namespace bench {
namespace {

constexpr int patience_ms = 120000;

int open_netlink(std::uint32_t groups) {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = groups;
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        kt::fail("netlink socket");
    }
    const int size = 16 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
    return fd;
}

} // namespace

std::string address_text(int number) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "2001:db8:0:1::%x/64", static_cast<unsigned>(number));
    return text.data();
}

Watcher::Watcher() : socket_fd(open_netlink(RTMGRP_IPV6_IFADDR)) {}

Watcher::~Watcher() {
    close(socket_fd);
}

void Watcher::drain() {
    std::array<unsigned char, 65536> buffer{};
    while (recv(socket_fd, buffer.data(), buffer.size(), MSG_DONTWAIT) > 0) {
    }
}

time_point Watcher::wait_for_addresses(std::size_t count) {
    std::set<std::string> seen;
    time_point last = clock_type::now();
    std::array<unsigned char, 65536> buffer{};
    while (seen.size() < count) {
        pollfd waiting{socket_fd, POLLIN, 0};
        if (poll(&waiting, 1, patience_ms) <= 0) {
            throw std::runtime_error("only " + std::to_string(seen.size()) + " of " +
                                     std::to_string(count) + " addresses came");
        }
        const ssize_t length = recv(socket_fd, buffer.data(), buffer.size(), 0);
        if (length < 0) {
            kt::fail("netlink recv");
        }
        last = clock_type::now();
        const auto header = kt::read_as<nlmsghdr>(buffer.data());
        const auto record = kt::read_as<ifaddrmsg>(buffer.data() + NLMSG_HDRLEN);
        if (header.nlmsg_type != RTM_NEWADDR || record.ifa_scope != RT_SCOPE_UNIVERSE) {
            continue;
        }
        kt::for_attributes(
            buffer.data(), NLMSG_HDRLEN + sizeof record, static_cast<std::size_t>(length),
            [&seen](std::uint16_t type, const unsigned char *data, std::size_t size) {
                if (type == IFA_ADDRESS) {
                    seen.emplace(data, data + size);
                }
            });
    }
    return last;
}

Requester::Requester(int link_index) : socket_fd(open_netlink(0)), index(link_index) {}

Requester::~Requester() {
    close(socket_fd);
}

void Requester::add(const std::string &address) {
    request(RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL, address);
}

void Requester::remove(const std::string &address) {
    request(RTM_DELADDR, 0, address);
}

void Requester::request(std::uint16_t type, std::uint16_t flags, const std::string &address) {
    const kt::prefix_t prefix = kt::parse_prefix(address);
    ifaddrmsg header{};
    header.ifa_family = AF_INET6;
    header.ifa_prefixlen = prefix.length;
    header.ifa_index = static_cast<std::uint32_t>(index);
    kt::Message message(type, static_cast<std::uint16_t>(NLM_F_REQUEST | NLM_F_ACK | flags));
    message.append(header);
    message.attribute(IFA_LOCAL, &prefix.address, sizeof prefix.address);
    auto bytes = message.bytes();
    auto outer = kt::read_as<nlmsghdr>(bytes.data());
    outer.nlmsg_seq = ++sequence;
    std::memcpy(bytes.data(), &outer, sizeof outer);
    std::array<unsigned char, 4096> answer{};
    if (send(socket_fd, bytes.data(), bytes.size(), 0) < 0 ||
        recv(socket_fd, answer.data(), answer.size(), 0) < 0) {
        kt::fail("netlink request");
    }
    errno = -kt::read_as<nlmsgerr>(answer.data() + NLMSG_HDRLEN).error;
    if (errno != 0) {
        kt::fail("changing " + address);
    }
}

} // namespace bench
