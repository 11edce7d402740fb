#include "ctl/kernel_view.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>

#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/ipv6.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <netlink/socket.h>

#include "netlink/decode.h"
#include "netlink/dump.h"
#include "netlink/wire.h"

// Not in every kernel's headers.
#ifndef IFA_PROTO
#define IFA_PROTO 11
#endif

namespace ctl {

namespace {

// Called with one message, beginning at its netlink header, and its length.
using visit_t = std::function<void(const unsigned char *, int)>;

class socket_t {
public:
    socket_t() : sock(nl_socket_alloc(), nl_socket_free) {
        if (sock == nullptr) {
            throw std::bad_alloc();
        }
        if (const int error = nl_connect(sock.get(), NETLINK_ROUTE)) {
            throw std::runtime_error(std::string("cannot open a netlink socket: ") +
                                     nl_geterror(error));
        }
    }

    // Asks for one dump and visits its messages. False when it may lack records.
    template <typename Header>
    bool dump(int type, Header header, const visit_t &visit) {
        const int sent = nl_send_simple(sock.get(), type, NLM_F_DUMP, &header, sizeof header);
        if (sent <= 0) {
            throw std::runtime_error(std::string("cannot send a request to the kernel: ") +
                                     nl_geterror(sent));
        }
        bool whole = true;
        while (receive(visit, whole)) {
        }
        return whole;
    }

private:
    // Reads one datagram; false when the dump has ended.
    bool receive(const visit_t &visit, bool &whole) {
        sockaddr_nl peer{};
        wire::owned_datagram_t received;
        received.length = nl_recv(sock.get(), &peer, &received.bytes, nullptr);
        if (received.length <= 0) {
            throw std::runtime_error("the kernel does not answer");
        }
        const wire::datagram_t datagram = received;
        whole = whole && !read_dump_marks(datagram).incomplete;
        std::size_t at = 0;
        while (datagram.length - at >= sizeof(nlmsghdr)) {
            const auto header = wire::read_at<nlmsghdr>(datagram, at);
            if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > datagram.length - at ||
                header.nlmsg_type == NLMSG_DONE) {
                return false;
            }
            if (header.nlmsg_type == NLMSG_ERROR) {
                const auto body = wire::read_at<nlmsgerr>(datagram, at + NLMSG_HDRLEN);
                throw std::runtime_error(std::string("the kernel refused the request: ") +
                                         std::strerror(-body.error));
            }
            visit(datagram.bytes + at, static_cast<int>(header.nlmsg_len));
            at = std::min<std::size_t>(at + NLMSG_ALIGN(header.nlmsg_len), datagram.length);
        }
        return true;
    }

    std::unique_ptr<nl_sock, decltype(&nl_socket_free)> sock;
};

template <typename Record>
void add(std::vector<Record> &records, const Record &record) {
    records.push_back(record);
}
template <typename Record>
void add(std::vector<Record> &records, const std::vector<Record> &more) {
    records.insert(records.end(), more.begin(), more.end());
}

// If its tables change during a dump, the kernel marks the dump as possibly incomplete. Repeat it
// then, a few times at most.
template <typename Record, typename Header, typename Read>
std::vector<Record> dump(int type, Header header, const Read &read) {
    constexpr int attempts = 5;
    std::vector<Record> records;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        records.clear();
        socket_t socket;
        const bool whole = socket.dump(type, header, [&](const unsigned char *bytes, int length) {
            add(records, read(bytes, length));
        });
        if (whole) {
            break;
        }
    }
    return records;
}

// Visits the attributes inside an attribute, whose content begins at `offset`.
template <typename Visit>
void for_each_inside(const wire::datagram_t &datagram, std::size_t offset, const Visit &visit) {
    const auto outer = wire::read_at<rtattr>(datagram, offset - sizeof(rtattr));
    const std::size_t end = std::min(datagram.length, offset - sizeof(rtattr) + outer.rta_len);
    while (offset + sizeof(rtattr) <= end) {
        const auto part = wire::read_at<rtattr>(datagram, offset);
        if (part.rta_len < sizeof part) {
            return;
        }
        visit(part.rta_type & NLA_TYPE_MASK, offset + sizeof part);
        offset += RTA_ALIGN(part.rta_len);
    }
}

// IFLA_AF_SPEC: a link without IPv6 has no part for it.
void read_ipv6(const wire::datagram_t &datagram, std::size_t offset, kernel_link_t &link) {
    for_each_inside(datagram, offset, [&](int family, std::size_t at) {
        if (family != AF_INET6) {
            return;
        }
        link.has_ipv6 = true;
        for_each_inside(datagram, at, [&](int type, std::size_t content) {
            const auto length = wire::read_at<rtattr>(datagram, content - sizeof(rtattr)).rta_len;
            constexpr std::size_t place = DEVCONF_DISABLE_IPV6 * sizeof(std::int32_t);
            if (type == IFLA_INET6_CONF &&
                length >= sizeof(rtattr) + place + sizeof(std::int32_t)) {
                link.ipv6_refused = wire::read_at<std::int32_t>(datagram, content + place) != 0;
            }
        });
    });
}

// IFLA_LINKINFO of a link that has a master.
void read_master(const wire::datagram_t &datagram, std::size_t offset, kernel_link_t &link) {
    for_each_inside(datagram, offset, [&](int type, std::size_t at) {
        if (type == IFLA_INFO_SLAVE_KIND) {
            using kind_t = std::array<char, sizeof "vrf">;
            // A part of a VRF has addresses of its own.
            link.is_part = wire::read_at<kind_t>(datagram, at) != kind_t{"vrf"};
        }
    });
}

// The gateways of the attribute RTA_MULTIPATH, whose content begins at `offset`: each is a header
// followed by attributes of its own.
std::vector<kernel_route_t> gateways_of(const wire::datagram_t &datagram, std::size_t offset) {
    std::vector<kernel_route_t> gateways;
    const auto attribute = wire::read_at<rtattr>(datagram, offset - sizeof(rtattr));
    const std::size_t end = std::min(datagram.length, offset - sizeof(rtattr) + attribute.rta_len);
    while (offset + sizeof(rtnexthop) <= end) {
        const auto hop = wire::read_at<rtnexthop>(datagram, offset);
        if (hop.rtnh_len < sizeof hop) {
            break;
        }
        kernel_route_t gateway;
        gateway.route.ifindex = hop.rtnh_ifindex;
        const std::size_t last = std::min<std::size_t>(end, offset + hop.rtnh_len);
        for (std::size_t at = offset + sizeof hop; at + sizeof(rtattr) <= last;) {
            const auto part = wire::read_at<rtattr>(datagram, at);
            if (part.rta_len < sizeof part) {
                break;
            }
            if (part.rta_type == RTA_GATEWAY) {
                gateway.route.gateway = wire::read_at<in6_addr>(datagram, at + sizeof part);
            }
            at += RTA_ALIGN(part.rta_len);
        }
        gateways.push_back(gateway);
        offset += RTNH_ALIGN(hop.rtnh_len);
    }
    return gateways;
}

} // namespace

kernel_link_t link_of_message(const unsigned char *bytes, int length) {
    kernel_link_t link;
    const wire::message_walk message({bytes, length});
    const auto header = message.payload<ifinfomsg>();
    link.index = header.ifi_index;
    link.ethernet = header.ifi_type == ARPHRD_ETHER;
    link.up = (header.ifi_flags & IFF_UP) != 0;
    link.carrier = link.up && (header.ifi_flags & IFF_RUNNING) != 0;
    message.for_each_attribute(sizeof header,
                               [&](int type, const wire::datagram_t &datagram, std::size_t offset) {
                                   if (type == IFLA_IFNAME) {
                                       using name_t = std::array<char, IFNAMSIZ>;
                                       auto name = wire::read_at<name_t>(datagram, offset);
                                       name.back() = '\0';
                                       link.name = name.data();
                                   } else if (type == IFLA_MTU) {
                                       link.mtu = wire::read_at<std::uint32_t>(datagram, offset);
                                   } else if ((type & NLA_TYPE_MASK) == IFLA_AF_SPEC) {
                                       read_ipv6(datagram, offset, link);
                                   } else if ((type & NLA_TYPE_MASK) == IFLA_LINKINFO) {
                                       read_master(datagram, offset, link);
                                   }
                               });
    const std::vector<CKernInterface> decoded = decode_links(bytes, length);
    if (!decoded.empty()) {
        link.hwaddr = decoded.front().hwaddr;
    }
    return link;
}

kernel_address_t address_of_message(const unsigned char *bytes, int length) {
    kernel_address_t address;
    const wire::message_walk message({bytes, length});
    const auto header = message.payload<ifaddrmsg>();
    address.flags = header.ifa_flags;
    address.valid = address.preferred = forever;
    const std::vector<CKernAddress> decoded = decode_addrs(bytes, length);
    address.has_address = !decoded.empty();
    if (address.has_address) {
        address.address = decoded.front();
    } else {
        address.address.ifindex = static_cast<std::int32_t>(header.ifa_index);
    }
    message.for_each_attribute(
        sizeof header, [&](int type, const wire::datagram_t &datagram, std::size_t offset) {
            if (type == IFA_FLAGS) {
                address.flags = wire::read_at<std::uint32_t>(datagram, offset);
            } else if (type == IFA_CACHEINFO) {
                const auto times = wire::read_at<ifa_cacheinfo>(datagram, offset);
                address.valid = times.ifa_valid;
                address.preferred = times.ifa_prefered;
            } else if (type == IFA_PROTO) {
                address.origin = wire::read_at<std::uint8_t>(datagram, offset);
            } else if (type == IFA_LOCAL) {
                address.has_peer = true;
            }
        });
    return address;
}

std::vector<kernel_route_t> routes_of_message(const unsigned char *bytes, int length) {
    kernel_route_t route;
    std::vector<kernel_route_t> joined;
    const wire::message_walk message({bytes, length});
    const auto header = message.payload<rtmsg>();
    route.table = header.rtm_table;
    route.type = header.rtm_type;
    const std::vector<CKernRoute> decoded = decode_routes(bytes, length);
    route.has_index = !decoded.empty();
    if (route.has_index) {
        route.route = decoded.front();
    } else {
        route.route.protocol = header.rtm_protocol;
        route.route.dst_len = header.rtm_dst_len;
    }
    message.for_each_attribute(
        sizeof header, [&](int type, const wire::datagram_t &datagram, std::size_t offset) {
            if (type == RTA_TABLE) {
                route.table = wire::read_at<std::uint32_t>(datagram, offset);
            } else if (type == RTA_PRIORITY) {
                route.metric = wire::read_at<std::uint32_t>(datagram, offset);
            } else if (type == RTA_MULTIPATH) {
                joined = gateways_of(datagram, offset);
            } else if (type == RTA_DST && !route.has_index) {
                route.route.dst = wire::read_at<in6_addr>(datagram, offset);
            }
        });
    if (joined.empty()) {
        return {route};
    }
    for (kernel_route_t &part : joined) {
        const CKernRoute gateway = part.route;
        part = route;
        part.multipath = true;
        part.route.ifindex = gateway.ifindex;
        part.route.gateway = gateway.gateway;
    }
    return joined;
}

kernel_view_t read_kernel() {
    kernel_view_t view;
    view.links = dump<kernel_link_t>(RTM_GETLINK, ifinfomsg{}, link_of_message);
    ifaddrmsg addresses{};
    addresses.ifa_family = AF_INET6;
    view.addresses = dump<kernel_address_t>(RTM_GETADDR, addresses, address_of_message);
    rtmsg routes{};
    routes.rtm_family = AF_INET6;
    view.routes = dump<kernel_route_t>(RTM_GETROUTE, routes, routes_of_message);
    return view;
}

} // namespace ctl
