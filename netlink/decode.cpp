#include "netlink/decode.h"

#include <array>
#include <cstdio>
#include <linux/if_addr.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include "netlink/wire.h"
#include "shell/log.h"

namespace {

using mac_t = std::array<unsigned char, 6>;

// The text up to its NUL, or up to the end of the datagram.
tk_string string_at(const wire::datagram_t &datagram, std::size_t offset) {
    tk_string text;
    for (; offset < datagram.length && datagram.bytes[offset] != 0; ++offset) {
        text.push_back(static_cast<char>(datagram.bytes[offset]));
    }
    return text;
}

} // namespace

std::vector<CKernInterface> decode_links(const unsigned char *buffer, int length) {
    std::vector<CKernInterface> links;
    for (wire::message_walk message({buffer, length}); !message.at_end(); message.next()) {
        const auto header = message.payload<ifinfomsg>();
        if (header.ifi_type != ARPHRD_ETHER) {
            log_info_at(2, "Ignoring unknown interface type %d", header.ifi_type);
            continue;
        }
        CKernInterface link;
        link.ifindex = header.ifi_index;
        bool has_hwaddr = false;
        bool has_name = false;
        message.for_each_attribute(
            sizeof header, [&](int type, const wire::datagram_t &datagram, std::size_t offset) {
                if (type == IFLA_ADDRESS) {
                    link.hwaddr = mac_to_str(wire::read_at<mac_t>(datagram, offset).data());
                    has_hwaddr = true;
                } else if (type == IFLA_IFNAME) {
                    link.name = string_at(datagram, offset);
                    has_name = true;
                }
            });
        if (has_hwaddr && has_name) {
            links.push_back(link);
        } else {
            log_info_at(2, "Skipping link msg with no addr/name");
        }
    }
    return links;
}

std::vector<CKernAddress> decode_addrs(const unsigned char *buffer, int length) {
    std::vector<CKernAddress> addrs;
    for (wire::message_walk message({buffer, length}); !message.at_end(); message.next()) {
        const auto header = message.payload<ifaddrmsg>();
        CKernAddress addr;
        addr.ifindex = static_cast<std::int32_t>(header.ifa_index);
        addr.scope = header.ifa_scope;
        addr.prefix_len = header.ifa_prefixlen;
        bool has_addr = false;
        message.for_each_attribute(
            sizeof header, [&](int type, const wire::datagram_t &datagram, std::size_t offset) {
                if (type == IFA_ADDRESS) {
                    addr.addr = wire::read_at<in6_addr>(datagram, offset);
                    has_addr = true;
                }
            });
        if (has_addr) {
            addrs.push_back(addr);
        } else {
            log_info_at(2, "Skipping addr msg with no addr");
        }
    }
    return addrs;
}

std::vector<CKernRoute> decode_routes(const unsigned char *buffer, int length) {
    std::vector<CKernRoute> routes;
    for (wire::message_walk message({buffer, length}); !message.at_end(); message.next()) {
        const auto header = message.payload<rtmsg>();
        CKernRoute route;
        route.ifindex = -1;
        route.protocol = header.rtm_protocol;
        route.dst_len = header.rtm_dst_len;
        bool has_index = false;
        message.for_each_attribute(
            sizeof header, [&](int type, const wire::datagram_t &datagram, std::size_t offset) {
                if (type == RTA_DST) {
                    route.dst = wire::read_at<in6_addr>(datagram, offset);
                } else if (type == RTA_GATEWAY) {
                    route.gateway = wire::read_at<in6_addr>(datagram, offset);
                } else if (type == RTA_OIF) {
                    route.ifindex = wire::read_at<std::int32_t>(datagram, offset);
                    has_index = true;
                }
            });
        if (has_index) {
            routes.push_back(route);
        } else {
            log_info_at(2, "Skipping route msg with no idx");
        }
    }
    return routes;
}

tk_string mac_to_str(const unsigned char *bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2x:%.2x:%.2x:%.2x:%.2x:%.2x", bytes[0], bytes[1], bytes[2],
                  bytes[3], bytes[4], bytes[5]);
    return text;
}
