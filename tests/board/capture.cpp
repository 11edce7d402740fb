// Prints the kernel's answers to the daemon's requests: a line for each datagram, with its kind and
// its bytes in hexadecimal digits, in C++ syntax. The links, addresses and routes are always the
// same, so that the answers of different kernels can be compared.
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "harness/message.h"
#include "harness/process.h"
#include "harness/rtnl.h"
#include "harness/sandbox.h"

namespace {

using kt::Message;
using datagram_t = std::vector<unsigned char>;

// A netlink socket of the calling process's namespace, joined to one group (0: none).
class Channel {
public:
    explicit Channel(int group = 0) : fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, 0)) {
        // Bound, because the kernel sends no notifications to a socket without a port.
        sockaddr_nl own{};
        own.nl_family = AF_NETLINK;
        if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own) != 0 ||
            (group != 0 &&
             setsockopt(fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0)) {
            kt::fail("netlink socket");
        }
    }
    ~Channel() { close(fd); }
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;

    void send(const Message &message) const {
        const auto bytes = message.bytes();
        if (::send(fd, bytes.data(), bytes.size(), 0) < 0) {
            kt::fail("netlink send");
        }
    }
    datagram_t receive() const {
        datagram_t datagram(1U << 16U);
        const ssize_t length = recv(fd, datagram.data(), datagram.size(), 0);
        if (length < 0) {
            kt::fail("netlink recv");
        }
        datagram.resize(static_cast<std::size_t>(length));
        return datagram;
    }

private:
    int fd;
};

void print(const char *kind, const datagram_t &datagram) {
    std::printf("{\"%s\", \"", kind);
    for (const unsigned char byte : datagram) {
        std::printf("%02x", static_cast<unsigned int>(byte));
    }
    std::printf("\"},\n");
}

// What the messages of a datagram say about the dump.
void look_at(const datagram_t &datagram, bool &done, bool &interrupted) {
    for (std::size_t at = 0; at + sizeof(nlmsghdr) <= datagram.size();) {
        const auto header = kt::read_as<nlmsghdr>(datagram.data() + at);
        done = done || header.nlmsg_type == NLMSG_DONE;
        interrupted = interrupted || (header.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
        at += NLMSG_ALIGN(header.nlmsg_len);
    }
}

template <typename Header>
void capture_dump(const char *kind, std::uint16_t type, const Header &header) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        const Channel channel;
        channel.send(Message(type, NLM_F_REQUEST | NLM_F_ROOT).append(header));
        std::vector<datagram_t> answer;
        bool done = false;
        bool interrupted = false;
        while (!done) {
            answer.push_back(channel.receive());
            look_at(answer.back(), done, interrupted);
        }
        if (!interrupted) {
            for (const auto &datagram : answer) {
                print(kind, datagram);
            }
            return;
        }
    }
    throw std::runtime_error("every dump was interrupted");
}

void set_hardware_address(int index) {
    const unsigned char hardware_address[6] = {0x02, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
    ifinfomsg header{};
    header.ifi_index = index;
    const Channel channel;
    channel.send(Message(RTM_NEWLINK, NLM_F_REQUEST | NLM_F_ACK)
                     .append(header)
                     .attribute(IFLA_ADDRESS, hardware_address, sizeof hardware_address));
    if (kt::read_as<nlmsgerr>(channel.receive().data() + NLMSG_HDRLEN).error != 0) {
        throw std::runtime_error("the hardware address is refused");
    }
}

// One link, up, with its own link-local address, two configured addresses and two routes.
void set_the_scene(kt::Sandbox &sandbox, kt::Kernel &device, kt::Kernel &neighbour) {
    for (const std::string which : {"all", "default"}) {
        kt::write_file("/proc/sys/net/ipv6/conf/" + which + "/accept_dad", "0");
    }
    device.add_veth("eth0", "peer0", sandbox.neighbour());
    set_hardware_address(device.index("eth0"));
    neighbour.set_up("peer0");
    device.set_up("eth0");
    if (!kt::eventually([&] { return !device.link_local("eth0").empty(); })) {
        throw std::runtime_error("no link-local address");
    }
    device.add_address("eth0", "2001:db8::5/64");
    device.add_address("eth0", "2001:db8:1::6/48");
    device.add_route({"::/0", "fe80::1", "eth0"});
    device.add_route({"2001:db8:7::/48", "fe80::2", "eth0"});
    sleep(1); // the kernel adds the routes of its own addresses a moment later
}

Message addition(int index, const std::string &text) {
    const auto prefix = kt::parse_prefix(text);
    ifaddrmsg header{};
    header.ifa_family = AF_INET6;
    header.ifa_prefixlen = prefix.length;
    header.ifa_index = static_cast<std::uint32_t>(index);
    return Message(RTM_NEWADDR, NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_APPEND)
        .append(header)
        .attribute(IFA_ADDRESS, &prefix.address, sizeof prefix.address);
}

template <typename Header>
Header ipv6(Header header, unsigned char Header::*family) {
    header.*family = AF_INET6;
    return header;
}

} // namespace

int main() {
    kt::Sandbox sandbox;
    kt::Kernel device(sandbox.device());
    kt::Kernel neighbour(sandbox.neighbour());
    set_the_scene(sandbox, device, neighbour);

    capture_dump("links", RTM_GETLINK, ipv6(ifinfomsg{}, &ifinfomsg::ifi_family));
    capture_dump("addresses", RTM_GETADDR, ipv6(ifaddrmsg{}, &ifaddrmsg::ifa_family));
    capture_dump("routes", RTM_GETROUTE, ipv6(rtmsg{}, &rtmsg::rtm_family));

    const Channel listener(RTNLGRP_IPV6_IFADDR);
    device.add_address("eth0", "2001:db8:2::7/64");
    print("notification", listener.receive());
    const Channel refused;
    refused.send(addition(device.index("eth0"), "2001:db8::5/64"));
    print("refusal", refused.receive());
}
