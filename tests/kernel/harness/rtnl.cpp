#include "harness/rtnl.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <arpa/inet.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include "harness/sandbox.h"

namespace kt {
namespace {

constexpr std::uint16_t request_flags = NLM_F_REQUEST | NLM_F_ACK;

Message address_request(std::uint16_t type, std::uint16_t flags, int index, const std::string &text,
                        const address_options_t &options) {
    const prefix_t prefix = parse_prefix(text);
    ifaddrmsg header{};
    header.ifa_family = AF_INET6;
    header.ifa_prefixlen = prefix.length;
    header.ifa_index = static_cast<std::uint32_t>(index);
    Message message(type, static_cast<std::uint16_t>(request_flags | flags));
    message.append(header);
    message.attribute(IFA_LOCAL, &prefix.address, sizeof prefix.address);
    if (options.peer.empty()) {
        message.attribute(IFA_ADDRESS, &prefix.address, sizeof prefix.address);
    } else {
        const prefix_t peer = parse_prefix(options.peer);
        message.attribute(IFA_ADDRESS, &peer.address, sizeof peer.address);
    }
    if (options.flags != 0) {
        message.attribute(IFA_FLAGS, options.flags);
    }
    if (options.valid_seconds != 0) {
        ifa_cacheinfo times{};
        times.ifa_valid = options.valid_seconds;
        times.ifa_prefered = options.valid_seconds;
        message.attribute(IFA_CACHEINFO, &times, sizeof times);
    }
    return message;
}

void put_next_hop(Message &message, const std::string &gateway, int index) {
    rtnexthop hop{};
    hop.rtnh_ifindex = index;
    const in6_addr address = parse_prefix(gateway).address;
    rtattr attribute{};
    attribute.rta_type = RTA_GATEWAY;
    attribute.rta_len = sizeof attribute + sizeof address;
    hop.rtnh_len = static_cast<std::uint16_t>(sizeof hop + attribute.rta_len);
    message.append(hop).append(attribute).append(address);
}

Message route_request(std::uint16_t type, std::uint16_t flags, int index,
                      const kernel_route_t &route) {
    const prefix_t destination = parse_prefix(route.destination);
    rtmsg header{};
    header.rtm_family = AF_INET6;
    header.rtm_dst_len = destination.length;
    header.rtm_table = static_cast<std::uint8_t>(std::min(route.table, 255U));
    header.rtm_protocol = route.protocol;
    header.rtm_scope = RT_SCOPE_UNIVERSE;
    header.rtm_type = RTN_UNICAST;
    Message message(type, static_cast<std::uint16_t>(request_flags | flags));
    message.append(header);
    message.attribute(RTA_TABLE, route.table);
    if (destination.length != 0) {
        message.attribute(RTA_DST, &destination.address, sizeof destination.address);
    }
    if (route.metric != 0) {
        message.attribute(RTA_PRIORITY, route.metric);
    }
    if (!route.more_gateways.empty()) {
        const std::size_t nest = message.begin(RTA_MULTIPATH);
        put_next_hop(message, route.gateway, index);
        for (const auto &gateway : route.more_gateways) {
            put_next_hop(message, gateway, index);
        }
        message.end(nest);
        return message;
    }
    if (!route.gateway.empty()) {
        const in6_addr gateway = parse_prefix(route.gateway).address;
        message.attribute(RTA_GATEWAY, &gateway, sizeof gateway);
    }
    if (index != 0) {
        message.attribute(RTA_OIF, static_cast<std::uint32_t>(index));
    }
    return message;
}

} // namespace

Kernel::Kernel(int namespace_fd) {
    const NamespaceVisit visit(namespace_fd);
    fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) {
        fail("netlink socket");
    }
    const int buffer = 1 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer); // less does as well
}

Kernel::~Kernel() {
    close(fd);
}

// Returns the kernel's answer as an errno value.
int Kernel::transact(std::vector<unsigned char> request) {
    auto header = read_as<nlmsghdr>(request.data());
    header.nlmsg_seq = ++sequence;
    std::memcpy(request.data(), &header, sizeof header);
    if (send(fd, request.data(), request.size(), 0) < 0) {
        fail("netlink send");
    }
    for (;;) {
        unsigned char buffer[65536];
        const ssize_t length = recv(fd, buffer, sizeof buffer, 0);
        if (length < static_cast<ssize_t>(sizeof(nlmsghdr))) {
            fail("netlink recv");
        }
        const auto answer = read_as<nlmsghdr>(buffer);
        if (answer.nlmsg_seq == sequence && answer.nlmsg_type == NLMSG_ERROR) {
            return -read_as<nlmsgerr>(buffer + NLMSG_HDRLEN).error;
        }
    }
}

// Returns false when the table changed meanwhile, so that records may be missing.
bool Kernel::dump_once(std::vector<unsigned char> &request,
                       const std::function<void(const nlmsghdr &, const unsigned char *)> &visit) {
    auto header = read_as<nlmsghdr>(request.data());
    header.nlmsg_seq = ++sequence;
    std::memcpy(request.data(), &header, sizeof header);
    if (send(fd, request.data(), request.size(), 0) < 0) {
        fail("netlink send");
    }
    bool complete = true;
    std::vector<unsigned char> buffer(1U << 16U);
    for (;;) {
        const ssize_t length = recv(fd, buffer.data(), buffer.size(), 0);
        if (length < 0) {
            fail("netlink recv");
        }
        for (std::size_t at = 0; at + sizeof(nlmsghdr) <= static_cast<std::size_t>(length);) {
            const auto message = read_as<nlmsghdr>(buffer.data() + at);
            if (message.nlmsg_seq == sequence) {
                complete = complete && (message.nlmsg_flags & NLM_F_DUMP_INTR) == 0;
                if (message.nlmsg_type == NLMSG_ERROR) {
                    errno = -read_as<nlmsgerr>(buffer.data() + at + NLMSG_HDRLEN).error;
                    fail("netlink dump");
                }
                if (message.nlmsg_type == NLMSG_DONE) {
                    return complete;
                }
                visit(message, buffer.data() + at);
            }
            at += NLMSG_ALIGN(message.nlmsg_len);
        }
    }
}

void Kernel::dump(std::vector<unsigned char> request,
                  const std::function<void(const nlmsghdr &, const unsigned char *)> &visit) {
    std::vector<std::vector<unsigned char>> messages;
    const auto keep = [&](const nlmsghdr &header, const unsigned char *bytes) {
        messages.emplace_back(bytes, bytes + header.nlmsg_len);
    };
    for (int attempt = 0; attempt < 50; ++attempt) {
        messages.clear();
        if (dump_once(request, keep)) {
            break;
        }
    }
    for (const auto &message : messages) {
        visit(read_as<nlmsghdr>(message.data()), message.data());
    }
}

void Kernel::add_veth(const std::string &name, const std::string &peer, int peer_namespace) {
    ifinfomsg header{};
    Message message(RTM_NEWLINK, request_flags | NLM_F_CREATE | NLM_F_EXCL);
    message.append(header).attribute(IFLA_IFNAME, name);
    const std::size_t info = message.begin(IFLA_LINKINFO);
    message.attribute(IFLA_INFO_KIND, std::string("veth"));
    const std::size_t data = message.begin(IFLA_INFO_DATA);
    const std::size_t other = message.begin(VETH_INFO_PEER);
    message.append(header).attribute(IFLA_IFNAME, peer);
    message.attribute(IFLA_NET_NS_FD, static_cast<std::uint32_t>(peer_namespace));
    message.end(other);
    message.end(data);
    message.end(info);
    errno = transact(message.bytes());
    if (errno != 0) {
        fail("adding the link pair " + name);
    }
}

void Kernel::change_link(const std::string &name, unsigned int flags, unsigned int change,
                         const std::function<void(Message &)> &attributes) {
    ifinfomsg header{};
    header.ifi_index = index(name);
    header.ifi_flags = flags;
    header.ifi_change = change;
    Message message(RTM_NEWLINK, request_flags);
    message.append(header);
    if (attributes) {
        attributes(message);
    }
    errno = transact(message.bytes());
    if (errno != 0) {
        fail("changing the link " + name);
    }
}

void Kernel::delete_link(const std::string &name) {
    ifinfomsg header{};
    header.ifi_index = index(name);
    errno = transact(Message(RTM_DELLINK, request_flags).append(header).bytes());
    if (errno != 0) {
        fail("deleting the link " + name);
    }
}

void Kernel::rename(const std::string &name, const std::string &new_name) {
    change_link(name, 0, 0, [&](Message &message) { message.attribute(IFLA_IFNAME, new_name); });
}

void Kernel::move_link(const std::string &name, int to_namespace) {
    change_link(name, 0, 0, [&](Message &message) {
        message.attribute(IFLA_NET_NS_FD, static_cast<std::uint32_t>(to_namespace));
    });
}

void Kernel::set_up(const std::string &name, bool up) {
    constexpr unsigned int up_flag = IFF_UP;
    change_link(name, up ? up_flag : 0U, up_flag, {});
}

void Kernel::set_hardware_address(const std::string &name, const std::string &octets) {
    unsigned char bytes[6] = {};
    for (std::size_t i = 0; i < sizeof bytes; ++i) {
        bytes[i] = static_cast<unsigned char>(std::stoul(octets.substr(3 * i, 2), nullptr, 16));
    }
    change_link(name, 0, 0,
                [&](Message &message) { message.attribute(IFLA_ADDRESS, bytes, sizeof bytes); });
}

void Kernel::set_mtu(const std::string &name, std::uint32_t mtu) {
    change_link(name, 0, 0, [&](Message &message) { message.attribute(IFLA_MTU, mtu); });
}

std::vector<kernel_link_t> Kernel::links() {
    std::vector<kernel_link_t> found;
    dump(Message(RTM_GETLINK, NLM_F_REQUEST | NLM_F_DUMP).append(ifinfomsg{}).bytes(),
         [&](const nlmsghdr &message, const unsigned char *bytes) {
             kernel_link_t link;
             const auto record = read_as<ifinfomsg>(bytes + NLMSG_HDRLEN);
             link.index = record.ifi_index;
             for_attributes(bytes, NLMSG_HDRLEN + sizeof record, message.nlmsg_len,
                            [&](std::uint16_t type, const unsigned char *data, std::size_t size) {
                                if (type == IFLA_IFNAME) {
                                    link.name = std::string(data, data + size - 1);
                                } else if (type == IFLA_ADDRESS) {
                                    link.hardware_address = octets_text(data, size);
                                }
                            });
             found.push_back(link);
         });
    return found;
}

int Kernel::index(const std::string &name) {
    for (const auto &link : links()) {
        if (link.name == name) {
            return link.index;
        }
    }
    return 0;
}

std::string Kernel::hardware_address(const std::string &name) {
    for (const auto &link : links()) {
        if (link.name == name) {
            return link.hardware_address;
        }
    }
    return {};
}

int Kernel::try_add_address(const std::string &link, const std::string &text,
                            const address_options_t &options) {
    const std::uint16_t flags =
        options.replace ? NLM_F_CREATE | NLM_F_REPLACE : NLM_F_CREATE | NLM_F_EXCL;
    return transact(address_request(RTM_NEWADDR, flags, index(link), text, options).bytes());
}

int Kernel::try_delete_address(const std::string &link, const std::string &text) {
    return transact(address_request(RTM_DELADDR, 0, index(link), text, {}).bytes());
}

void Kernel::add_address(const std::string &link, const std::string &text,
                         const address_options_t &options) {
    errno = try_add_address(link, text, options);
    if (errno != 0) {
        fail("adding " + text + " to " + link);
    }
}

void Kernel::delete_address(const std::string &link, const std::string &text) {
    errno = try_delete_address(link, text);
    if (errno != 0) {
        fail("deleting " + text + " from " + link);
    }
}

std::vector<kernel_address_t> Kernel::addresses(const std::string &link) {
    std::vector<kernel_address_t> found;
    const int wanted = index(link);
    ifaddrmsg header{};
    header.ifa_family = AF_INET6;
    dump(Message(RTM_GETADDR, NLM_F_REQUEST | NLM_F_DUMP).append(header).bytes(),
         [&](const nlmsghdr &message, const unsigned char *bytes) {
             const auto record = read_as<ifaddrmsg>(bytes + NLMSG_HDRLEN);
             if (static_cast<int>(record.ifa_index) != wanted) {
                 return;
             }
             kernel_address_t address;
             address.scope = record.ifa_scope;
             address.flags = record.ifa_flags;
             for_attributes(bytes, NLMSG_HDRLEN + sizeof record, message.nlmsg_len,
                            [&](std::uint16_t type, const unsigned char *data, std::size_t) {
                                if (type == IFA_ADDRESS) {
                                    address.text = address_text(data) + "/" +
                                                   std::to_string(record.ifa_prefixlen);
                                } else if (type == IFA_FLAGS) {
                                    address.flags = read_as<std::uint32_t>(data);
                                } else if (type == IFA_CACHEINFO) {
                                    address.valid_seconds = read_as<ifa_cacheinfo>(data).ifa_valid;
                                }
                            });
             found.push_back(address);
         });
    return found;
}

bool Kernel::has_address(const std::string &link, const std::string &text) {
    const auto all = addresses(link);
    return std::any_of(all.begin(), all.end(),
                       [&](const kernel_address_t &address) { return address.text == text; });
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
    const int link = route.link.empty() ? 0 : index(route.link);
    return transact(route_request(RTM_NEWROUTE, NLM_F_CREATE | NLM_F_EXCL, link, route).bytes());
}

int Kernel::try_delete_route(const kernel_route_t &route) {
    const int link = route.link.empty() ? 0 : index(route.link);
    return transact(route_request(RTM_DELROUTE, 0, link, route).bytes());
}

void Kernel::add_route(const kernel_route_t &route) {
    errno = try_add_route(route);
    if (errno != 0) {
        fail("adding the route to " + route.destination + " through " + route.gateway);
    }
}

void Kernel::delete_route(const kernel_route_t &route) {
    errno = try_delete_route(route);
    if (errno != 0) {
        fail("deleting the route to " + route.destination + " through " + route.gateway);
    }
}

namespace {

struct raw_route_t {
    kernel_route_t route;
    std::uint32_t index = 0;
};

raw_route_t read_route(const nlmsghdr &message, const unsigned char *bytes) {
    const auto record = read_as<rtmsg>(bytes + NLMSG_HDRLEN);
    raw_route_t raw;
    raw.route.protocol = record.rtm_protocol;
    raw.route.table = record.rtm_table;
    std::string destination = "::";
    for_attributes(bytes, NLMSG_HDRLEN + sizeof record, message.nlmsg_len,
                   [&](std::uint16_t type, const unsigned char *data, std::size_t) {
                       if (type == RTA_DST) {
                           destination = address_text(data);
                       } else if (type == RTA_GATEWAY) {
                           raw.route.gateway = address_text(data);
                       } else if (type == RTA_OIF) {
                           raw.index = read_as<std::uint32_t>(data);
                       } else if (type == RTA_PRIORITY) {
                           raw.route.metric = read_as<std::uint32_t>(data);
                       } else if (type == RTA_TABLE) {
                           raw.route.table = read_as<std::uint32_t>(data);
                       }
                   });
    raw.route.destination = destination + "/" + std::to_string(record.rtm_dst_len);
    return raw;
}

// The gateways inside a multipath attribute.
std::vector<raw_route_t> read_siblings(const raw_route_t &common, const nlmsghdr &message,
                                       const unsigned char *bytes) {
    std::vector<raw_route_t> siblings;
    for_attributes(
        bytes, NLMSG_HDRLEN + sizeof(rtmsg), message.nlmsg_len,
        [&](std::uint16_t type, const unsigned char *data, std::size_t size) {
            for (std::size_t at = 0; type == RTA_MULTIPATH && at + sizeof(rtnexthop) <= size;) {
                const auto hop = read_as<rtnexthop>(data + at);
                if (hop.rtnh_len < sizeof hop) {
                    return;
                }
                raw_route_t sibling = common;
                sibling.index = static_cast<std::uint32_t>(hop.rtnh_ifindex);
                for_attributes(data, at + sizeof hop, at + hop.rtnh_len,
                               [&](std::uint16_t kind, const unsigned char *bytes2, std::size_t) {
                                   if (kind == RTA_GATEWAY) {
                                       sibling.route.gateway = address_text(bytes2);
                                   }
                               });
                siblings.push_back(sibling);
                at += RTNH_ALIGN(hop.rtnh_len);
            }
        });
    return siblings;
}

} // namespace

std::vector<kernel_route_t> Kernel::routes() {
    std::vector<raw_route_t> raw;
    rtmsg header{};
    header.rtm_family = AF_INET6;
    dump(Message(RTM_GETROUTE, NLM_F_REQUEST | NLM_F_DUMP).append(header).bytes(),
         [&](const nlmsghdr &message, const unsigned char *bytes) {
             const raw_route_t one = read_route(message, bytes);
             if (one.route.table != RT_TABLE_MAIN) {
                 return;
             }
             const auto siblings = read_siblings(one, message, bytes);
             raw.insert(raw.end(), siblings.begin(), siblings.end());
             if (siblings.empty()) {
                 raw.push_back(one);
             }
         });
    const auto all_links = links();
    std::vector<kernel_route_t> found;
    for (auto &one : raw) {
        for (const auto &link : all_links) {
            if (link.index == static_cast<int>(one.index)) {
                one.route.link = link.name;
            }
        }
        found.push_back(one.route);
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

void Kernel::forge(unsigned int group, const std::vector<unsigned char> &datagram) {
    sockaddr_nl to{};
    to.nl_family = AF_NETLINK;
    to.nl_groups = 1U << (group - 1);
    if (sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&to),
               sizeof to) < 0) {
        fail("sending to a netlink group");
    }
}

} // namespace kt
