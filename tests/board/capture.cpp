// Prints the kernel's answers to the daemon's requests: a line for each datagram, with its kind and
// its bytes in hexadecimal digits, in C++ syntax. The links, addresses and routes are always the
// same, so that the answers of different kernels can be compared.
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <netlink/netlink.h>
#include <unistd.h>

#include "harness/netlink.h"
#include "harness/process.h"
#include "harness/rtnl.h"
#include "harness/sandbox.h"

namespace {

using kt::Message;
using datagram_t = std::vector<unsigned char>;

// A netlink socket of the calling process's namespace, joined to one group (0: none).
class Channel {
public:
    explicit Channel(int group = 0) : netlink(nl_socket_alloc()) {
        kt::check(nl_connect(netlink.get(), NETLINK_ROUTE), "netlink socket");
        kt::check(nl_socket_add_membership(netlink.get(), group), "joining a netlink group");
    }
    // As it is, without the number and the port that libnl would add.
    void send(const Message &message) const {
        kt::check(nl_send(netlink.get(), message.get()), "netlink send");
    }
    datagram_t receive() const {
        sockaddr_nl sender{};
        unsigned char *bytes = nullptr;
        const int length = nl_recv(netlink.get(), &sender, &bytes, nullptr);
        kt::check(length, "netlink recv");
        datagram_t datagram(bytes, bytes + length);
        std::free(bytes);
        return datagram;
    }

private:
    kt::socket_ptr netlink;
};

void print(const char *kind, const datagram_t &datagram) {
    std::printf("{\"%s\", \"", kind);
    for (const unsigned char byte : datagram) {
        std::printf("%02x", static_cast<unsigned int>(byte));
    }
    std::printf("\"},\n");
}

// What the messages of a datagram say about the dump.
void look_at(datagram_t &datagram, bool &done, bool &interrupted) {
    int left = static_cast<int>(datagram.size());
    auto *header = static_cast<nlmsghdr *>(static_cast<void *>(datagram.data()));
    for (; nlmsg_ok(header, left) != 0; header = nlmsg_next(header, &left)) {
        done = done || header->nlmsg_type == NLMSG_DONE;
        interrupted = interrupted || (header->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
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

// One link, up, with its own link-local address, two configured addresses and two routes.
void set_the_scene(kt::Sandbox &sandbox, kt::Kernel &device, kt::Kernel &neighbour) {
    for (const std::string which : {"all", "default"}) {
        kt::write_file("/proc/sys/net/ipv6/conf/" + which + "/accept_dad", "0");
    }
    device.add_veth("eth0", "peer0", sandbox.neighbour());
    device.set_hardware_address("eth0", "02:1a:2b:3c:4d:5e");
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
    const auto address = kt::parse_address(text);
    ifaddrmsg header{};
    header.ifa_family = AF_INET6;
    header.ifa_prefixlen = static_cast<std::uint8_t>(nl_addr_get_prefixlen(address.get()));
    header.ifa_index = static_cast<std::uint32_t>(index);
    return Message(RTM_NEWADDR, NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_APPEND)
        .append(header)
        .attribute(IFA_ADDRESS, nl_addr_get_binary_addr(address.get()), sizeof(in6_addr));
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
